// Counts every allocation of the process to show that the combinators allocate nothing per
// element in the steady state: reading 100,000 elements costs as many allocations as reading
// 1,000. A program of its own: it replaces the global operator new.

#include <numeric>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/run_main.h>
#include <carrow/sequences/async_sync_sequence.h>
#include <carrow/sequences/combine_latest.h>
#include <carrow/sequences/map.h>
#include <carrow/sequences/merge.h>

#include "support/allocation_counter.h"

namespace carrow {
namespace {

using Ints = AsyncSyncSequence<std::vector<int>>;

Ints numbers(int count) {
  std::vector<int> values(count);
  std::iota(values.begin(), values.end(), 0);
  return Ints(std::move(values));
}

template <class Sequence>
Async<long> countElements(Sequence sequence) {
  auto iterator = sequence.makeAsyncIterator();
  long count = 0;
  while (auto element = co_await iterator.next()) ++count;
  co_return count;
}

// Allocations made while `combine` of two ranges of `perUpstream` elements is read to the end.
// The counter sees the whole process, and the reading task of a previous run may still be
// winding down on a worker while a run is counted (it makes the errors that stop its children),
// which can only add to a count: the least of three runs is the run's own.
template <class Combine>
long allocationsToRead(int perUpstream, Combine combine) {
  const Ints first = numbers(perUpstream);
  const Ints second = numbers(perUpstream);
  long least = -1;
  for (int run = 0; run < 3; ++run) {
    long count = 0;
    const long allocated = allocationsDuring(
        [&] { count = runMain([&] { return countElements(combine(first, second)); }); });
    EXPECT_GE(count, perUpstream);
    if (least < 0 || allocated < least) least = allocated;
  }
  return least;
}

TEST(CombinatorsAllocation, ReadingMoreElementsAllocatesNoMore) {
  auto merged = [](Ints a, Ints b) { return merge(std::move(a), std::move(b)); };
  auto combined = [](Ints a, Ints b) { return combineLatest(std::move(a), std::move(b)); };
  auto mapped = [](Ints a, Ints) { return map(std::move(a), [](int v) { return v + 1; }); };
  // The first runs warm up what the process makes once (threads, the executor's queues).
  (void)allocationsToRead(10, merged);
  (void)allocationsToRead(10, combined);
  // A few allocations may differ with how the children's reads interleave (the buffer's first
  // growth), never with the number of elements.
  EXPECT_NEAR(allocationsToRead(100'000, merged), allocationsToRead(1'000, merged), 4);
  EXPECT_NEAR(allocationsToRead(100'000, combined), allocationsToRead(1'000, combined), 4);
  EXPECT_EQ(allocationsToRead(100'000, mapped), allocationsToRead(1'000, mapped));
}

}  // namespace
}  // namespace carrow
