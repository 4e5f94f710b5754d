// Locks, locked cells and the logging facade, each beside the baseline it has to beat.
//
// A helper thread stays alive for the whole run: glibc skips the atomic instructions of
// std::mutex while a process has a single thread, which would flatter the baseline.

#include <atomic>
#include <future>
#include <mutex>
#include <thread>

#include <benchmark/benchmark.h>

#include <carrow/concurrency/atomic.h>
#include <carrow/concurrency/unfair_lock.h>
#include <carrow/logging/log.h>

namespace {

template <class Lock>
Lock& sharedLock() {
  static Lock lock;
  return lock;
}

template <class Lock>
void BM_LockUnlock(benchmark::State& state) {
  Lock& lock = sharedLock<Lock>();
  static long counter = 0;
  for (auto _ : state) {
    lock.lock();
    ++counter;  // a short critical section
    benchmark::DoNotOptimize(counter);
    lock.unlock();
  }
}
BENCHMARK(BM_LockUnlock<carrow::CRUnfairLock>)->Name("Lock/uncontended/CRUnfairLock");
BENCHMARK(BM_LockUnlock<std::mutex>)->Name("Lock/uncontended/std::mutex");
BENCHMARK(BM_LockUnlock<carrow::CRUnfairLock>)
    ->Name("Lock/contended/CRUnfairLock")
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();
BENCHMARK(BM_LockUnlock<std::mutex>)
    ->Name("Lock/contended/std::mutex")
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();

void BM_AtomicIncrement(benchmark::State& state) {
  carrow::Atomic<int> cell(0);
  for (auto _ : state) cell.increment(1);
  benchmark::DoNotOptimize(cell.wrappedValue());
}
BENCHMARK(BM_AtomicIncrement)->Name("Increment/carrow::Atomic<int>");

void BM_MutexIncrement(benchmark::State& state) {
  std::mutex mutex;
  int value = 0;
  for (auto _ : state) {
    std::lock_guard guard(mutex);
    ++value;
  }
  benchmark::DoNotOptimize(value);
}
BENCHMARK(BM_MutexIncrement)->Name("Increment/std::mutex+int");

void BM_StdAtomicIncrement(benchmark::State& state) {
  std::atomic<int> value{0};
  for (auto _ : state) value.fetch_add(1);
  benchmark::DoNotOptimize(value.load());
}
BENCHMARK(BM_StdAtomicIncrement)->Name("Increment/std::atomic<int>");

class NoOpLogger final : public carrow::CRLogger {
 public:
  bool shouldLog(std::optional<std::string_view>) override { return true; }
  void log(std::string_view message, carrow::CRLogLevel, std::optional<std::string_view>,
           const char*, std::uint32_t) override {
    benchmark::DoNotOptimize(message.data());
  }
};

void installNoOpLogger() {
  static bool installed = [] {
    carrow::CRLog::setLogger(std::make_shared<NoOpLogger>());
    return true;
  }();
  benchmark::DoNotOptimize(installed);
}

void BM_LogRecord(benchmark::State& state) {
  installNoOpLogger();
  for (auto _ : state) carrow::CRLog::debug("Bench", "Took First Lock { key: k waiter: 1 }");
}
BENCHMARK(BM_LogRecord)->Name("CRLog/record/no limit");

void BM_LogRecordWithLimit(benchmark::State& state) {
  installNoOpLogger();
  // A fresh key per batch would grow the table; one key with noFlood would be dropped after 300,
  // so alternate within the allowance by keying on a counter that never repeats below the limit.
  std::int64_t key = 1'000'000'000;
  for (auto _ : state) {
    carrow::CRLog::debug("Bench", "limited record", carrow::LogLimit::noFlood, key / 200);
    ++key;
  }
}
BENCHMARK(BM_LogRecordWithLimit)->Name("CRLog/record/noFlood limit");

void BM_LogDroppedRecord(benchmark::State& state) {
  installNoOpLogger();
  for (int i = 0; i < 10; ++i) {
    carrow::CRLog::debug("Bench", "dropped", carrow::LogLimit::aFewTimes, std::string("drop-key"));
  }
  for (auto _ : state) {
    carrow::CRLog::debug("Bench", "dropped", carrow::LogLimit::aFewTimes,
                         std::string_view("drop-key"));
  }
}
BENCHMARK(BM_LogDroppedRecord)->Name("CRLog/dropped record");

void BM_LogDroppedByMessage(benchmark::State& state) {
  installNoOpLogger();
  const char* message = "a message long enough to defeat the small string optimisation";
  for (int i = 0; i < 10; ++i) carrow::CRLog::debug("Bench", message, carrow::LogLimit::aFewTimes);
  for (auto _ : state) carrow::CRLog::debug("Bench", message, carrow::LogLimit::aFewTimes);
}
BENCHMARK(BM_LogDroppedByMessage)->Name("CRLog/dropped record keyed by message");

}  // namespace

int main(int argc, char** argv) {
  std::promise<void> finished;
  std::thread keepAlive([done = finished.get_future()] { done.wait(); });
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  finished.set_value();
  keepAlive.join();
  return 0;
}
