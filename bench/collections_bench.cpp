// SortedDictionary against std::map and boost::container::flat_map (lookup, insert+remove), and
// Deque against std::deque and std::queue (append+popFirst).

#include <algorithm>
#include <boost/container/flat_map.hpp>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <queue>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include <carrow/collections/deque.h>
#include <carrow/collections/sorted_dictionary.h>

namespace {

using Key = std::int64_t;
using Mapped = std::int64_t;

// Uniform adapters, so that each benchmark body is written once.
struct CarrowDictionary {
  using Dictionary = carrow::SortedDictionary<Key, Mapped>;
  Dictionary map{Dictionary::Direction::ascending};
  void put(Key key, Mapped value) { map.setValue(key, value); }
  void remove(Key key) { map.removeValue(key); }
  std::optional<Mapped> get(Key key) const { return map.value(key); }
};

struct StdMap {
  std::map<Key, Mapped> map;
  void put(Key key, Mapped value) { map.insert_or_assign(key, value); }
  void remove(Key key) { map.erase(key); }
  std::optional<Mapped> get(Key key) const {
    auto found = map.find(key);
    return found == map.end() ? std::nullopt : std::optional<Mapped>(found->second);
  }
};

struct FlatMap {
  boost::container::flat_map<Key, Mapped> map;
  void put(Key key, Mapped value) { map.insert_or_assign(key, value); }
  void remove(Key key) { map.erase(key); }
  std::optional<Mapped> get(Key key) const {
    auto found = map.find(key);
    return found == map.end() ? std::nullopt : std::optional<Mapped>(found->second);
  }
};

// Entries hold the even keys 0, 2, ..., 2(n - 1), inserted in random order.
template <class Map>
Map filled(std::int64_t size) {
  std::vector<Key> keys(static_cast<std::size_t>(size));
  for (std::int64_t i = 0; i < size; ++i) keys[static_cast<std::size_t>(i)] = 2 * i;
  std::shuffle(keys.begin(), keys.end(), std::mt19937_64(1));
  Map map;
  if constexpr (requires { map.map.reserve(keys.size()); }) map.map.reserve(keys.size());
  if constexpr (std::is_same_v<Map, StdMap>) {
    for (Key key : keys) map.put(key, key);
  } else {
    // Building a million-entry sorted array one random insert at a time takes minutes; insert in
    // order instead (the contents are the same).
    std::sort(keys.begin(), keys.end());
    for (Key key : keys) map.put(key, key);
  }
  return map;
}

std::vector<Key> probes(std::int64_t size, bool present) {
  std::mt19937_64 random(2);
  std::uniform_int_distribution<std::int64_t> index(0, size - 1);
  std::vector<Key> keys(4096);
  for (Key& key : keys) key = 2 * index(random) + (present ? 0 : 1);
  return keys;
}

template <class Map>
void BM_Lookup(benchmark::State& state) {
  const Map map = filled<Map>(state.range(0));
  const std::vector<Key> keys = probes(state.range(0), true);
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.get(keys[next]));
    next = (next + 1) & 4095;
  }
  state.SetItemsProcessed(state.iterations());
}

// One insert of an absent key and its removal, so that the size stays n.
template <class Map>
void BM_InsertRemove(benchmark::State& state) {
  Map map = filled<Map>(state.range(0));
  const std::vector<Key> keys = probes(state.range(0), false);
  std::size_t next = 0;
  for (auto _ : state) {
    map.put(keys[next], 1);
    map.remove(keys[next]);
    next = (next + 1) & 4095;
  }
  benchmark::DoNotOptimize(map.get(0));
  state.SetItemsProcessed(state.iterations());
}

// Other programs share this machine: besides the median, report the least time of the
// repetitions, which the load disturbs least.
double fastest(const std::vector<double>& times) {
  return *std::min_element(times.begin(), times.end());
}

#define CARROW_MAP_BENCHMARKS(Map)         \
  BENCHMARK_TEMPLATE(BM_Lookup, Map)       \
      ->Arg(100)                           \
      ->Arg(10'000)                        \
      ->Arg(1'000'000)                     \
      ->ComputeStatistics("min", fastest); \
  BENCHMARK_TEMPLATE(BM_InsertRemove, Map) \
      ->Arg(100)                           \
      ->Arg(10'000)                        \
      ->Arg(1'000'000)                     \
      ->ComputeStatistics("min", fastest)

CARROW_MAP_BENCHMARKS(CarrowDictionary);
CARROW_MAP_BENCHMARKS(FlatMap);
CARROW_MAP_BENCHMARKS(StdMap);

// Each popFirst reports an empty queue, as the combinators need it to.
struct CarrowDeque {
  carrow::Deque<std::int64_t> queue;
  void append(std::int64_t value) { queue.append(value); }
  std::optional<std::int64_t> popFirst() { return queue.popFirst(); }
};

struct StdDeque {
  std::deque<std::int64_t> queue;
  void append(std::int64_t value) { queue.push_back(value); }
  std::optional<std::int64_t> popFirst() {
    if (queue.empty()) return std::nullopt;
    std::int64_t value = queue.front();
    queue.pop_front();
    return value;
  }
};

struct StdQueue {
  std::queue<std::int64_t> queue;
  void append(std::int64_t value) { queue.push(value); }
  std::optional<std::int64_t> popFirst() {
    if (queue.empty()) return std::nullopt;
    std::int64_t value = queue.front();
    queue.pop();
    return value;
  }
};

// A queue that stays `depth` long: each iteration appends one element and pops one. The ring
// wraps; std::deque frees and allocates a 512-byte chunk every 64 elements.
template <class Queue>
void BM_AppendPopSteady(benchmark::State& state) {
  Queue queue;
  for (std::int64_t i = 0; i < state.range(0); ++i) queue.append(i);
  std::int64_t next = state.range(0);
  for (auto _ : state) {
    queue.append(next++);
    benchmark::DoNotOptimize(queue.popFirst());
  }
  state.SetItemsProcessed(state.iterations());
}

// Bursts: append `burst` elements, then pop them all, with the queue kept between bursts (as a
// combinator's buffer is). Time is per element (one append and one pop).
template <class Queue>
void BM_AppendPopBurst(benchmark::State& state) {
  Queue queue;
  const std::int64_t burst = state.range(0);
  for (auto _ : state) {
    for (std::int64_t i = 0; i < burst; ++i) queue.append(i);
    for (std::int64_t i = 0; i < burst; ++i) benchmark::DoNotOptimize(queue.popFirst());
  }
  state.SetItemsProcessed(state.iterations() * burst);
}

#define CARROW_QUEUE_BENCHMARKS(Queue)          \
  BENCHMARK_TEMPLATE(BM_AppendPopSteady, Queue) \
      ->Arg(16)                                 \
      ->Arg(1'000)                              \
      ->ComputeStatistics("min", fastest);      \
  BENCHMARK_TEMPLATE(BM_AppendPopBurst, Queue)  \
      ->Arg(16)                                 \
      ->Arg(1'000)                              \
      ->ComputeStatistics("min", fastest)

CARROW_QUEUE_BENCHMARKS(CarrowDeque);
CARROW_QUEUE_BENCHMARKS(StdDeque);
CARROW_QUEUE_BENCHMARKS(StdQueue);

}  // namespace

BENCHMARK_MAIN();
