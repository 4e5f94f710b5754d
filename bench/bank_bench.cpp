// The Bank against the bare runtime: many callers sharing one slow task, and the cache hit
// against a mutex-guarded map.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <malloc.h>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>

#include <carrow/concurrency/bank.h>
#include <carrow/concurrency/bell.h>
#include <carrow/logging/log.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/sleep.h>
#include <carrow/runtime/task.h>

// g++ 12 inlines the replacement operators and then mistakes their malloc/free pairs for
// mismatched new/free.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpragmas"
#pragma GCC diagnostic ignored "-Wunknown-warning-option"
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#include "support/allocation_counter.h"
#pragma GCC diagnostic pop

namespace carrow {
namespace {

using namespace std::chrono_literals;
using IntBank = Bank<int, int>;

constexpr int kCallers = 10000;
constexpr auto kWorkTime = 10ms;

// Drops every record, so that the figures measure the bank, not a logger. When it accepts
// records (`acceptsRecords`), the bank formats its debug records and the facade counts them
// before they are dropped here: the cost a logger that wants category "Bank" pays.
class QuietLogger final : public CRLogger {
 public:
  static inline std::atomic<bool> acceptsRecords{false};
  bool shouldLog(std::optional<std::string_view>) override { return acceptsRecords.load(); }
  void log(std::string_view, CRLogLevel, std::optional<std::string_view>, const char*,
           std::uint32_t) override {}
};

void installQuietLogger() {
  static const bool installed = [] {
    CRLog::setLogger(std::make_shared<QuietLogger>());
    return true;
  }();
  (void)installed;
}

// The work: held until the gate opens (when every caller waits), then 10 ms more.
Async<void> untilOpen(std::shared_ptr<Bell2> gate) {
  while (!gate->hasRung()) co_await sleep(100us);
  co_await sleep(kWorkTime);
}

// Argument 1: keep freed heap in the process (as a long-running daemon's heap is, warm), so the
// figure leaves out the page faults of growing a fresh heap; 0: glibc's default trimming.
void setWarmHeap(const benchmark::State& state) {
  mallopt(M_TRIM_THRESHOLD, state.range(0) != 0 ? 1 << 30 : 128 * 1024);
}

Task<int> bankCaller(std::shared_ptr<IntBank> bank, std::shared_ptr<std::atomic<int>> runs,
                     std::shared_ptr<Bell2> gate) {
  return Task<int>::start([bank, runs, gate]() -> Async<int> {
    auto work = [runs, gate]() -> Async<int> {
      runs->fetch_add(1);
      co_await untilOpen(gate);
      co_return 42;
    };
    co_return co_await bank->lock(1, LockWait::indefinite(), std::move(work));
  });
}

Task<int> bareCaller(Task<int> shared, std::shared_ptr<std::atomic<int>> waiting) {
  return Task<int>::start([shared, waiting]() -> Async<int> {
    waiting->fetch_add(1);
    co_return co_await shared.value();
  });
}

Task<int> sharedWork(std::shared_ptr<std::atomic<int>> runs, std::shared_ptr<Bell2> gate) {
  return Task<int>::start([runs, gate]() -> Async<int> {
    runs->fetch_add(1);
    co_await untilOpen(gate);
    co_return 42;
  });
}

// Wall time of `kCallers` callers of one key whose work takes 10 ms once all of them wait (so
// that every one of them runs the full race); the counter is the time each later caller adds
// beyond the work itself.
void BM_BankTenThousandCallersOneKey(benchmark::State& state) {
  setWarmHeap(state);
  installQuietLogger();
  QuietLogger::acceptsRecords = state.range(1) != 0;
  std::chrono::nanoseconds total{};
  for (auto _ : state) {
    auto runs = std::make_shared<std::atomic<int>>(0);
    const auto start = std::chrono::steady_clock::now();
    runMain([runs]() -> Async<void> {
      auto bank = std::make_shared<IntBank>(0, BankOptions::clearWhenUnused());
      auto gate = std::make_shared<Bell2>();
      std::vector<Task<int>> callers;
      callers.reserve(kCallers);
      for (int index = 0; index < kCallers; ++index) {
        callers.push_back(bankCaller(bank, runs, gate));
      }
      for (;;) {
        std::optional<IntBank::Entry> entry = co_await bank->entry(1);
        if (entry && entry->waiting == kCallers) break;
        co_await sleep(100us);
      }
      gate->ring();
      for (auto& caller : callers) co_await caller.value();
    });
    total += std::chrono::steady_clock::now() - start;
    if (runs->load() != 1) state.SkipWithError("the work ran more than once");
  }
  const double perIteration = std::chrono::duration<double, std::micro>(total).count()
                              / static_cast<double>(state.iterations());
  state.counters["us_per_later_caller"] =
      (perIteration - std::chrono::duration<double, std::micro>(kWorkTime).count())
      / (kCallers - 1);
  QuietLogger::acceptsRecords = false;
}
BENCHMARK(BM_BankTenThousandCallersOneKey)
    ->ArgNames({"warm_heap", "records"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({1, 1})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Baseline: the same callers awaiting one shared Task directly (no key, no race, no count).
void BM_SharedTaskTenThousandAwaiters(benchmark::State& state) {
  setWarmHeap(state);
  std::chrono::nanoseconds total{};
  for (auto _ : state) {
    auto runs = std::make_shared<std::atomic<int>>(0);
    const auto start = std::chrono::steady_clock::now();
    runMain([runs]() -> Async<void> {
      auto gate = std::make_shared<Bell2>();
      auto waiting = std::make_shared<std::atomic<int>>(0);
      Task<int> shared = sharedWork(runs, gate);
      std::vector<Task<int>> callers;
      callers.reserve(kCallers);
      for (int index = 0; index < kCallers; ++index) callers.push_back(bareCaller(shared, waiting));
      while (waiting->load() != kCallers) co_await sleep(100us);
      gate->ring();
      for (auto& caller : callers) co_await caller.value();
    });
    total += std::chrono::steady_clock::now() - start;
  }
  const double perIteration = std::chrono::duration<double, std::micro>(total).count()
                              / static_cast<double>(state.iterations());
  state.counters["us_per_later_caller"] =
      (perIteration - std::chrono::duration<double, std::micro>(kWorkTime).count())
      / (kCallers - 1);
}
BENCHMARK(BM_SharedTaskTenThousandAwaiters)
    ->ArgName("warm_heap")
    ->Arg(0)
    ->Arg(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Heap held per waiting caller while all of them wait (the work is held open by a gate), and the
// allocations each caller made to get there.
template <bool UseBank>
void heapPerWaitingCaller(benchmark::State& state) {
  installQuietLogger();
  for (auto _ : state) {
    auto runs = std::make_shared<std::atomic<int>>(0);
    auto gate = std::make_shared<Bell2>();
    double bytes = 0;
    double allocationsPerCaller = 0;
    runMain([&]() -> Async<void> {
      auto bank = std::make_shared<IntBank>(0, BankOptions::clearWhenUnused());
      std::vector<Task<int>> callers;
      callers.reserve(kCallers);
      const auto heapBefore = mallinfo2().uordblks;
      const long allocationsBefore = allocations.load();
      auto waiting = std::make_shared<std::atomic<int>>(0);
      Task<int> shared;
      if (!UseBank) shared = sharedWork(runs, gate);
      for (int index = 0; index < kCallers; ++index) {
        callers.push_back(UseBank ? bankCaller(bank, runs, gate) : bareCaller(shared, waiting));
      }
      // Let every caller reach its wait: counted in, race built, poll timer armed.
      for (int round = 0; round < 2000; ++round) {
        std::optional<IntBank::Entry> entry = co_await bank->entry(1);
        if (!UseBank || (entry && entry->waiting == kCallers)) break;
        co_await sleep(1ms);
      }
      co_await sleep(200ms);
      bytes = static_cast<double>(mallinfo2().uordblks - heapBefore) / kCallers;
      allocationsPerCaller = static_cast<double>(allocations.load() - allocationsBefore) / kCallers;
      gate->ring();
      for (auto& caller : callers) co_await caller.value();
    });
    state.counters["bytes_per_waiting_caller"] = bytes;
    state.counters["allocations_per_caller"] = allocationsPerCaller;
    if (runs->load() != 1) state.SkipWithError("the work ran more than once");
  }
}
void BM_BankHeapPerWaitingCaller(benchmark::State& state) {
  heapPerWaitingCaller<true>(state);
}
void BM_SharedTaskHeapPerWaitingCaller(benchmark::State& state) {
  heapPerWaitingCaller<false>(state);
}
BENCHMARK(BM_BankHeapPerWaitingCaller)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SharedTaskHeapPerWaitingCaller)->Iterations(1)->Unit(benchmark::kMillisecond);

// The uncontended path: `lock` on a kept key whose task has finished.
void BM_BankCacheHit(benchmark::State& state) {
  installQuietLogger();
  runMain([&state]() -> Async<void> {
    auto bank = std::make_shared<IntBank>(0, BankOptions());
    auto work = []() -> Async<int> { co_return 42; };
    co_await bank->lock(1, LockWait::indefinite(), work);
    for (auto _ : state) {
      benchmark::DoNotOptimize(co_await bank->lock(1, LockWait::indefinite(), work));
    }
  });
}
BENCHMARK(BM_BankCacheHit)->UseRealTime();

// Baseline: a ready value looked up under a std::mutex (a second thread stays alive, so the
// mutex takes its atomic path).
void BM_MutexMapCacheHit(benchmark::State& state) {
  std::mutex mutex;
  std::unordered_map<int, int> cache{{1, 42}};
  std::mutex idleMutex;
  std::condition_variable idle;
  bool done = false;
  std::thread helper([&] {
    std::unique_lock guard(idleMutex);
    idle.wait(guard, [&] { return done; });
  });
  for (auto _ : state) {
    std::lock_guard guard(mutex);
    benchmark::DoNotOptimize(cache.find(1)->second);
  }
  {
    std::lock_guard guard(idleMutex);
    done = true;
  }
  idle.notify_all();
  helper.join();
}
BENCHMARK(BM_MutexMapCacheHit)->UseRealTime();

}  // namespace
}  // namespace carrow

BENCHMARK_MAIN();
