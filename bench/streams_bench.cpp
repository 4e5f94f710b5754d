// Streams, each beside the baseline it has to beat.
//
// Hand-off: one producer thread feeds a consumer as fast as it can; the consumer reads every
// element. The baseline is the classic std::mutex + std::condition_variable queue between two
// threads. Unfolding: the per-element cost of a stream whose step completes without suspending,
// beside a loop awaiting the same step directly.

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

#include <benchmark/benchmark.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_stream.h>
#include <carrow/runtime/run_main.h>

namespace {

using carrow::Async;
using carrow::AsyncStream;

constexpr int kElements = 200'000;

void BM_AsyncStreamHandOff(benchmark::State& state) {
  for (auto _ : state) {
    auto [stream, continuation] = AsyncStream<int>::makeStream();
    std::thread producer([continuation = continuation] {
      for (int i = 0; i < kElements; ++i) continuation.yield(i);
      continuation.finish();
    });
    const long sum = carrow::runMain([stream = stream]() -> Async<long> {
      auto iterator = stream.makeAsyncIterator();
      long sum = 0;
      while (auto value = co_await iterator.next()) sum += *value;
      co_return sum;
    });
    producer.join();
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(BM_AsyncStreamHandOff)
    ->Name("HandOff/AsyncStream")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_ConditionVariableHandOff(benchmark::State& state) {
  for (auto _ : state) {
    std::mutex mutex;
    std::condition_variable available;
    std::deque<int> queue;
    bool finished = false;
    std::thread producer([&] {
      for (int i = 0; i < kElements; ++i) {
        {
          std::lock_guard guard(mutex);
          queue.push_back(i);
        }
        available.notify_one();
      }
      {
        std::lock_guard guard(mutex);
        finished = true;
      }
      available.notify_one();
    });
    long sum = 0;
    for (;;) {
      std::unique_lock lock(mutex);
      available.wait(lock, [&] { return !queue.empty() || finished; });
      if (queue.empty()) break;
      sum += queue.front();
      queue.pop_front();
    }
    producer.join();
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(BM_ConditionVariableHandOff)
    ->Name("HandOff/std::mutex+std::condition_variable")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

Async<std::optional<int>> countUpTo(int* counter, int limit) {
  if (*counter >= limit) co_return std::nullopt;
  co_return (*counter)++;
}

void BM_UnfoldingStream(benchmark::State& state) {
  for (auto _ : state) {
    const long sum = carrow::runMain([]() -> Async<long> {
      int counter = 0;
      auto stream =
          AsyncStream<int>::unfolding([&counter] { return countUpTo(&counter, kElements); });
      auto iterator = stream.makeAsyncIterator();
      long sum = 0;
      while (auto value = co_await iterator.next()) sum += *value;
      co_return sum;
    });
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(BM_UnfoldingStream)
    ->Name("Unfolding/AsyncStream")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_DirectSteps(benchmark::State& state) {
  for (auto _ : state) {
    const long sum = carrow::runMain([]() -> Async<long> {
      int counter = 0;
      long sum = 0;
      while (auto value = co_await countUpTo(&counter, kElements)) sum += *value;
      co_return sum;
    });
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(BM_DirectSteps)
    ->Name("Unfolding/baseline:direct-await-of-the-step")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
