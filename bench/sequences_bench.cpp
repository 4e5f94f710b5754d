// The sequence combinators, each beside the baseline a user would otherwise write.
//
// Merge: two upstreams of 100,000 ints each, as ready ranges (asAsync) and as streams fed by
// producer threads. Baselines in the same run: the "unbounded merge" (two tasks each iterating one
// upstream and yielding into one AsyncThrowingStream, no demand) and one range of the same total
// length read directly. Combine-latest and chain over the same ready ranges; one poll stream
// ticking with a zero interval (the cost of a step: hop to the main actor and back).
//
// Two figures are reported as counters rather than times: the heap held by a live merge iterator
// whose reads are in flight, and the spread of 10,000 poll streams started together with a 50 ms
// interval (the time from the first to the last first tick, and the latest tick after 50 ms).

#include <algorithm>
#include <atomic>
#include <chrono>
#include <malloc.h>
#include <memory>
#include <numeric>
#include <optional>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_throwing_stream.h>
#include <carrow/runtime/clock.h>
#include <carrow/runtime/continuation.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>
#include <carrow/runtime/task_group.h>
#include <carrow/sequences/async_sync_sequence.h>
#include <carrow/sequences/chain.h>
#include <carrow/sequences/combine_latest.h>
#include <carrow/sequences/merge.h>
#include <carrow/sequences/poll_stream.h>

namespace {

using carrow::Async;
using carrow::AsyncThrowingStream;

constexpr int kPerUpstream = 100'000;

std::vector<int> numbers(int count) {
  std::vector<int> values(count);
  std::iota(values.begin(), values.end(), 0);
  return values;
}

template <class Sequence>
Async<long> sumOf(Sequence sequence) {
  auto iterator = sequence.makeAsyncIterator();
  long sum = 0;
  while (auto value = co_await iterator.next()) sum += *value;
  co_return sum;
}

// Two continuation-fed streams, each fed by a thread of its own as fast as it can.
struct FedPair {
  FedPair() {
    auto a = AsyncThrowingStream<int>::makeStream();
    auto b = AsyncThrowingStream<int>::makeStream();
    first.emplace(a.stream);
    second.emplace(b.stream);
    feeders.emplace_back(feed, a.continuation);
    feeders.emplace_back(feed, b.continuation);
  }
  ~FedPair() {
    for (auto& feeder : feeders) feeder.join();
  }
  static void feed(AsyncThrowingStream<int>::Continuation continuation) {
    for (int i = 0; i < kPerUpstream; ++i) continuation.yield(i);
    continuation.finish();
  }
  std::optional<AsyncThrowingStream<int>> first, second;
  std::vector<std::thread> feeders;
};

// What a user would write without the merge: two tasks drain one upstream each into one stream.
template <class Base1, class Base2>
Async<long> unboundedMerge(Base1 base1, Base2 base2) {
  auto pair = AsyncThrowingStream<int>::makeStream();
  auto body = [&](carrow::ThrowingTaskGroup<void>& group) -> Async<long> {
    auto drain = [continuation = pair.continuation](auto base) -> Async<void> {
      auto iterator = base.makeAsyncIterator();
      while (auto value = co_await iterator.next()) continuation.yield(*value);
    };
    std::shared_ptr<std::atomic<int>> remaining = std::make_shared<std::atomic<int>>(2);
    auto finishing = [drain, remaining, continuation = pair.continuation](auto base) {
      return [drain, remaining, continuation, base]() -> Async<void> {
        co_await drain(base);
        if (remaining->fetch_sub(1) == 1) continuation.finish();
      };
    };
    group.addTask(finishing(base1));
    group.addTask(finishing(base2));
    co_return co_await sumOf(pair.stream);
  };
  co_return co_await carrow::withThrowingTaskGroup<void>(body);
}

void BM_MergeReadyRanges(benchmark::State& state) {
  const auto upstream = carrow::asAsync(numbers(kPerUpstream));
  for (auto _ : state) {
    const long sum =
        carrow::runMain([&upstream] { return sumOf(carrow::merge(upstream, upstream)); });
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * 2 * kPerUpstream);
}
BENCHMARK(BM_MergeReadyRanges)
    ->Name("Merge/ready-ranges/merge")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_UnboundedMergeReadyRanges(benchmark::State& state) {
  const auto upstream = carrow::asAsync(numbers(kPerUpstream));
  for (auto _ : state) {
    const long sum = carrow::runMain([&upstream] { return unboundedMerge(upstream, upstream); });
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * 2 * kPerUpstream);
}
BENCHMARK(BM_UnboundedMergeReadyRanges)
    ->Name("Merge/ready-ranges/baseline:two-tasks-into-one-unbounded-stream")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_SingleRange(benchmark::State& state) {
  const auto range = carrow::asAsync(numbers(2 * kPerUpstream));
  for (auto _ : state) {
    const long sum = carrow::runMain([&range] { return sumOf(range); });
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * 2 * kPerUpstream);
}
BENCHMARK(BM_SingleRange)
    ->Name("Merge/ready-ranges/baseline:one-range-of-the-same-length")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_MergeFedStreams(benchmark::State& state) {
  for (auto _ : state) {
    FedPair fed;
    const long sum =
        carrow::runMain([&fed] { return sumOf(carrow::merge(*fed.first, *fed.second)); });
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * 2 * kPerUpstream);
}
BENCHMARK(BM_MergeFedStreams)
    ->Name("Merge/fed-streams/merge")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_UnboundedMergeFedStreams(benchmark::State& state) {
  for (auto _ : state) {
    FedPair fed;
    const long sum = carrow::runMain([&fed] { return unboundedMerge(*fed.first, *fed.second); });
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * 2 * kPerUpstream);
}
BENCHMARK(BM_UnboundedMergeFedStreams)
    ->Name("Merge/fed-streams/baseline:two-tasks-into-one-unbounded-stream")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_CombineLatestReadyRanges(benchmark::State& state) {
  const auto upstream = carrow::asAsync(numbers(kPerUpstream));
  for (auto _ : state) {
    const long tuples = carrow::runMain([&upstream]() -> Async<long> {
      auto iterator = carrow::combineLatest(upstream, upstream).makeAsyncIterator();
      long count = 0;
      while (auto tuple = co_await iterator.next()) ++count;
      co_return count;
    });
    benchmark::DoNotOptimize(tuples);
  }
  state.SetItemsProcessed(state.iterations() * 2 * kPerUpstream);
}
BENCHMARK(BM_CombineLatestReadyRanges)
    ->Name("CombineLatest/ready-ranges (items: upstream elements)")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_ChainReadyRanges(benchmark::State& state) {
  const auto upstream = carrow::asAsync(numbers(kPerUpstream));
  for (auto _ : state) {
    const long sum =
        carrow::runMain([&upstream] { return sumOf(carrow::chain(upstream, upstream)); });
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * 2 * kPerUpstream);
}
BENCHMARK(BM_ChainReadyRanges)
    ->Name("Chain/ready-ranges")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_PollStreamStep(benchmark::State& state) {
  constexpr int kTicks = 10'000;
  for (auto _ : state) {
    const int ticks = carrow::runMain([]() -> Async<int> {
      auto polls = carrow::pollStream(std::chrono::nanoseconds(0)).makeAsyncIterator();
      int ticks = 0;
      for (int i = 0; i < kTicks; ++i) ticks += (co_await polls.next()).has_value();
      co_return ticks;
    });
    benchmark::DoNotOptimize(ticks);
  }
  state.SetItemsProcessed(state.iterations() * kTicks);
}
BENCHMARK(BM_PollStreamStep)
    ->Name("PollStream/zero-interval-step")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Heap held per live merge iterator with its reading task and both children started and both
// upstream reads in flight (on silent streams), from glibc's count of allocated bytes over 1,000
// of them. The total includes the consumer's task and the two stream reads, which are not the
// merge's; two baselines in the same run take them out: consumer tasks parked on a continuation
// (a task alone), and consumer tasks each reading one stream (a task and one read). The merge's
// own share is then total - 2 * oneRead + taskAlone.
constexpr int kFootprintConsumers = 1000;

template <class Consume>
double heapPerConsumer(Consume consume) {
  std::vector<AsyncThrowingStream<int>::Continuation> feeds;
  std::vector<AsyncThrowingStream<int>> streams;
  for (int i = 0; i < 2 * kFootprintConsumers; ++i) {
    auto pair = AsyncThrowingStream<int>::makeStream();
    streams.push_back(pair.stream);
    feeds.push_back(pair.continuation);
  }
  std::vector<std::optional<carrow::UnsafeContinuation<void>>> parked(kFootprintConsumers);
  const std::size_t before = mallinfo2().uordblks;
  const std::size_t held = carrow::runMain([&]() -> Async<std::size_t> {
    std::vector<carrow::Task<void>> consumers;
    consumers.reserve(kFootprintConsumers);
    for (int i = 0; i < kFootprintConsumers; ++i) {
      consumers.push_back(consume(streams[2 * i], streams[2 * i + 1], &parked[i]));
    }
    // Let every consumer reach its wait.
    for (int round = 0; round < 100; ++round) co_await carrow::yieldNow();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const std::size_t held =
        mallinfo2().uordblks - before - consumers.capacity() * sizeof(carrow::Task<void>);
    for (auto& feed : feeds) feed.finish();
    for (auto& slot : parked) {
      if (slot) slot->resume();
    }
    for (auto& consumer : consumers) co_await consumer.value();
    co_return held;
  });
  return static_cast<double>(held) / kFootprintConsumers;
}

void BM_MergeIteratorFootprint(benchmark::State& state) {
  using Stream = AsyncThrowingStream<int>;
  using Parked = std::optional<carrow::UnsafeContinuation<void>>;
  for (auto _ : state) {
    const double total = heapPerConsumer([](Stream first, Stream second, Parked*) {
      return carrow::Task<void>::start([first, second]() -> Async<void> {
        auto iterator = carrow::merge(first, second).makeAsyncIterator();
        co_await iterator.next();
      });
    });
    const double oneRead = heapPerConsumer([](Stream first, Stream, Parked*) {
      return carrow::Task<void>::start([first]() -> Async<void> {
        auto iterator = first.makeAsyncIterator();
        co_await iterator.next();
      });
    });
    const double taskAlone = heapPerConsumer([](Stream, Stream, Parked* slot) {
      return carrow::Task<void>::start([slot]() -> Async<void> {
        auto park = [slot](carrow::UnsafeContinuation<void> continuation) {
          slot->emplace(continuation);
        };
        co_await carrow::withUnsafeContinuation<void>(park);
      });
    });
    state.counters["total_bytes"] = total;
    state.counters["merge_bytes"] = total - 2 * oneRead + taskAlone;
    state.counters["task_bytes"] = taskAlone;
    state.counters["read_bytes"] = oneRead - taskAlone;
  }
}
BENCHMARK(BM_MergeIteratorFootprint)
    ->Name("Merge/heap-per-live-iterator")
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// 10,000 poll streams, each read once by a task of its own, all started together with a 50 ms
// interval: when does each first tick arrive, measured from the start? Also reported: when the
// last reader called next() (starting 10,000 tasks takes a while) and the worst lateness of a
// tick behind its own call plus 50 ms.
void BM_PollStreamFanOut(benchmark::State& state) {
  constexpr int kStreams = 10'000;
  constexpr auto kInterval = std::chrono::milliseconds(50);
  for (auto _ : state) {
    std::vector<std::int64_t> calls(kStreams);
    std::vector<std::int64_t> arrivals(kStreams);
    const auto start = carrow::ContinuousClock::now();
    carrow::runMain([&calls, &arrivals, start, kInterval]() -> Async<void> {
      std::vector<carrow::Task<void>> readers;
      readers.reserve(kStreams);
      for (int i = 0; i < kStreams; ++i) {
        readers.push_back(carrow::Task<void>::start(
            [called = &calls[i], arrived = &arrivals[i], start, kInterval]() -> Async<void> {
              auto polls = carrow::pollStream(kInterval).makeAsyncIterator();
              *called = (carrow::ContinuousClock::now() - start).count();
              co_await polls.next();
              *arrived = (carrow::ContinuousClock::now() - start).count();
            }));
      }
      for (auto& reader : readers) co_await reader.value();
    });
    const auto [first, last] = std::minmax_element(arrivals.begin(), arrivals.end());
    std::int64_t lateness = 0;
    for (int i = 0; i < kStreams; ++i) {
      lateness =
          std::max(lateness, arrivals[i] - calls[i] - std::chrono::nanoseconds(kInterval).count());
    }
    state.counters["first_tick_ms"] = *first / 1e6;
    state.counters["last_tick_ms"] = *last / 1e6;
    state.counters["spread_ms"] = (*last - *first) / 1e6;
    state.counters["last_call_ms"] = *std::max_element(calls.begin(), calls.end()) / 1e6;
    state.counters["max_lateness_ms"] = lateness / 1e6;
  }
}
BENCHMARK(BM_PollStreamFanOut)
    ->Name("PollStream/10000-streams-50ms")
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
