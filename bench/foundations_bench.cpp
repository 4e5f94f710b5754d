#include <mutex>

#include <benchmark/benchmark.h>

#include <carrow/concurrency/unfair_lock.h>

namespace {

template <class Lock>
void BM_LockUnlockUncontended(benchmark::State& state) {
  Lock lock;
  for (auto _ : state) {
    lock.lock();
    benchmark::ClobberMemory();
    lock.unlock();
  }
}
BENCHMARK(BM_LockUnlockUncontended<carrow::CRUnfairLock>);
BENCHMARK(BM_LockUnlockUncontended<std::mutex>);

}  // namespace

BENCHMARK_MAIN();
