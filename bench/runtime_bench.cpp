// The task runtime against the standard library's ways of doing the same thing: spawning work on
// another thread, handing control between threads, and calling a function.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <future>
#include <malloc.h>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <carrow/runtime/actor.h>
#include <carrow/runtime/async.h>
#include <carrow/runtime/continuation.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>

namespace carrow {
namespace {

// --- spawn and await a trivial task ---------------------------------------------------------

void BM_TaskSpawnAndAwait(benchmark::State& state) {
  runMain([&state]() -> Async<void> {
    for (auto _ : state) {
      auto task = Task<int>::start([]() -> Async<int> { co_return 1; });
      benchmark::DoNotOptimize(co_await task.value());
    }
  });
}
BENCHMARK(BM_TaskSpawnAndAwait)->UseRealTime();

void BM_StdAsyncSpawnAndGet(benchmark::State& state) {
  for (auto _ : state) {
    auto future = std::async(std::launch::async, [] { return 1; });
    benchmark::DoNotOptimize(future.get());
  }
}
BENCHMARK(BM_StdAsyncSpawnAndGet)->UseRealTime();

void BM_StdThreadStartAndJoin(benchmark::State& state) {
  for (auto _ : state) {
    int value = 0;
    std::thread thread([&value] { value = 1; });
    thread.join();
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_StdThreadStartAndJoin)->UseRealTime();

// --- await of an async function that is ready at once -------------------------------------

Async<int> ready(int value) {
  co_return value + 1;
}

[[gnu::noinline]] int plainCall(int value) {
  benchmark::DoNotOptimize(value);
  return value + 1;
}

void BM_AwaitReadyAsync(benchmark::State& state) {
  runMain([&state]() -> Async<void> {
    int value = 0;
    for (auto _ : state) {
      value = co_await ready(value);
      benchmark::DoNotOptimize(value);
    }
  });
}
BENCHMARK(BM_AwaitReadyAsync)->UseRealTime();

void BM_PlainFunctionCall(benchmark::State& state) {
  int value = 0;
  for (auto _ : state) {
    value = plainCall(value);
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_PlainFunctionCall);

// --- actor hop: from the global executor onto an actor and back ---------------------------

class Counter : public Actor {
 public:
  Async<int> increment() {
    co_await enter();
    co_return ++value_;
  }

 private:
  int value_ = 0;
};

void BM_ActorHopRoundTrip(benchmark::State& state) {
  Counter counter;
  runMain([&state, &counter]() -> Async<void> {
    for (auto _ : state) benchmark::DoNotOptimize(co_await counter.increment());
  });
}
BENCHMARK(BM_ActorHopRoundTrip)->UseRealTime();

// --- resume-to-running against a condition-variable handoff -------------------------------
//
// Both sides do one round trip per iteration. The baseline hands control from thread A to
// thread B and back through a mutex and a condition variable. The runtime's side hands a
// continuation from a task to a plain thread the same way, and the thread resumes the task:
// one condition-variable handoff plus one resume-to-running.

// Each side also reports the one-way latency it measures directly: from just before the resume
// (or the notify) until the resumed side runs.

std::int64_t nowNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

struct Mailbox {
  std::mutex mutex;
  std::condition_variable changed;
  std::optional<UnsafeContinuation<void>> continuation;
  bool stop = false;
  std::atomic<std::int64_t> resumedAt{0};
};

void BM_ContinuationResumeRoundTrip(benchmark::State& state) {
  Mailbox mailbox;
  std::thread resumer([&mailbox] {
    std::unique_lock guard(mailbox.mutex);
    for (;;) {
      mailbox.changed.wait(guard, [&] { return mailbox.continuation || mailbox.stop; });
      if (mailbox.stop) return;
      auto continuation = *std::exchange(mailbox.continuation, std::nullopt);
      guard.unlock();
      mailbox.resumedAt.store(nowNanoseconds(), std::memory_order_release);
      continuation.resume();
      guard.lock();
    }
  });
  std::int64_t latency = 0;
  runMain([&state, &mailbox, &latency]() -> Async<void> {
    for (auto _ : state) {
      auto post = [&mailbox](UnsafeContinuation<void> continuation) {
        std::lock_guard guard(mailbox.mutex);
        mailbox.continuation.emplace(continuation);
        mailbox.changed.notify_one();
      };
      co_await withUnsafeContinuation<void>(post);
      latency += nowNanoseconds() - mailbox.resumedAt.load(std::memory_order_acquire);
    }
  });
  state.counters["resume_to_running_ns"] =
      static_cast<double>(latency) / static_cast<double>(state.iterations());
  {
    std::lock_guard guard(mailbox.mutex);
    mailbox.stop = true;
    mailbox.changed.notify_one();
  }
  resumer.join();
}
BENCHMARK(BM_ContinuationResumeRoundTrip)->UseRealTime();

void BM_ConditionVariableRoundTrip(benchmark::State& state) {
  std::mutex mutex;
  std::condition_variable changed;
  int turn = 0;  // 1: B's turn, 0: A's turn, -1: stop
  std::int64_t notifiedAt = 0;
  std::thread b([&] {
    std::unique_lock guard(mutex);
    for (;;) {
      changed.wait(guard, [&] { return turn != 0; });
      if (turn < 0) return;
      turn = 0;
      notifiedAt = nowNanoseconds();
      changed.notify_all();
    }
  });
  std::int64_t latency = 0;
  for (auto _ : state) {
    std::unique_lock guard(mutex);
    turn = 1;
    changed.notify_all();
    changed.wait(guard, [&] { return turn == 0; });
    latency += nowNanoseconds() - notifiedAt;
  }
  state.counters["handoff_to_running_ns"] =
      static_cast<double>(latency) / static_cast<double>(state.iterations());
  {
    std::lock_guard guard(mutex);
    turn = -1;
    changed.notify_all();
  }
  b.join();
}
BENCHMARK(BM_ConditionVariableRoundTrip)->UseRealTime();

// --- memory held by a suspended task ------------------------------------------------------

// Starts tasks that each await one async function which suspends on a continuation, and
// reports the heap that one such suspended task holds (state, both frames, allocator overhead).
void BM_SuspendedTaskFootprint(benchmark::State& state) {
  constexpr int kTasks = 10000;
  for (auto _ : state) {
    std::mutex mutex;
    std::vector<UnsafeContinuation<void>> parked;
    parked.reserve(kTasks);
    std::vector<Task<void>> tasks;
    tasks.reserve(kTasks);
    const auto before = mallinfo2().uordblks;
    for (int i = 0; i < kTasks; ++i) {
      tasks.push_back(Task<void>::start([&mutex, &parked]() -> Async<void> {
        auto inner = [](std::mutex& lock,
                        std::vector<UnsafeContinuation<void>>& list) -> Async<void> {
          auto park = [&lock, &list](UnsafeContinuation<void> continuation) {
            std::lock_guard guard(lock);
            list.push_back(continuation);
          };
          co_await withUnsafeContinuation<void>(park);
        };
        co_await inner(mutex, parked);
      }));
    }
    for (;;) {
      std::lock_guard guard(mutex);
      if (parked.size() == kTasks) break;
    }
    const auto after = mallinfo2().uordblks;
    state.counters["bytes_per_suspended_task"] =
        static_cast<double>(after - before) / static_cast<double>(kTasks);
    for (auto& continuation : parked) continuation.resume();
    runMain([&tasks]() -> Async<void> {
      for (auto& task : tasks) co_await task.value();
    });
  }
}
BENCHMARK(BM_SuspendedTaskFootprint)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace carrow

BENCHMARK_MAIN();
