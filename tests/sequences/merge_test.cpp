#include <algorithm>
#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_stream.h>
#include <carrow/runtime/async_throwing_stream.h>
#include <carrow/runtime/cancellation.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>
#include <carrow/runtime/task_group.h>
#include <carrow/sequences/any_async_sequence.h>
#include <carrow/sequences/async_sync_sequence.h>
#include <carrow/sequences/merge.h>

#include "sequence_probes.h"

namespace carrow {
namespace {

using testing::eventually;
using testing::Fed;
using testing::play;
using testing::ProbeCounts;
using testing::probed;
using testing::Results;
using testing::Scripted;
using testing::step;

using Ints = AsyncSyncSequence<std::vector<int>>;
using Stream = AsyncThrowingStream<int>;
static_assert(AsyncSequenceOf<AsyncMerge2Sequence<Ints, Ints>, int>);
static_assert(
    AsyncSequenceOf<AsyncMerge2Sequence<AsyncStream<int>, AnyAsyncThrowingSequence<int>>, int>);

TEST(Merge, EndsWhenBothEndAndKeepsEachUpstreamsOrder) {
  const auto results = runMain([]() -> Async<std::vector<Results>> {
    std::vector<int> odd, even;
    for (int i = 0; i < 200; ++i) (i % 2 ? odd : even).push_back(i);
    auto empty = merge(asAsync(std::vector<int>{}), asAsync(std::vector<int>{}));
    auto oneSided = merge(asAsync(std::vector<int>{1, 2, 3}), asAsync(std::vector<int>{}));
    auto both = merge(asAsync(odd), asAsync(even));
    std::vector<Results> results;
    results.push_back(co_await play(empty, 3));
    results.push_back(co_await play(oneSided, 5));
    results.push_back(co_await play(both, 201));
    co_return results;
  });
  EXPECT_EQ(results[0], (Results{"end", "end", "end"}));
  EXPECT_EQ(results[1], (Results{"1", "2", "3", "end", "end"}));
  ASSERT_EQ(results[2].back(), "end");
  std::vector<int> odd, even;
  for (std::size_t i = 0; i + 1 < results[2].size(); ++i) {
    const int value = std::stoi(results[2][i]);
    (value % 2 ? odd : even).push_back(value);
  }
  EXPECT_EQ(odd.size(), 100u);
  EXPECT_EQ(even.size(), 100u);
  EXPECT_TRUE(std::is_sorted(odd.begin(), odd.end()));
  EXPECT_TRUE(std::is_sorted(even.begin(), even.end()));
}

TEST(Merge, DroppedIteratorBeforeTheFirstNextStartsNothing) {
  auto counts = std::make_shared<ProbeCounts>();
  {
    auto merged = merge(probed(asAsync(std::vector<int>{1}), counts),
                        probed(asAsync(std::vector<int>{2}), counts));
    auto iterator = merged.makeAsyncIterator();
    auto copy = iterator;
  }
  EXPECT_EQ(counts->iteratorsMade.load(), 0);
}

TEST(Merge, CopiesOfAnIteratorShareOneIteration) {
  const auto results = runMain([]() -> Async<Results> {
    auto merged = merge(asAsync(std::vector<int>{1, 2, 3}), asAsync(std::vector<int>{}));
    auto first = merged.makeAsyncIterator();
    Results results;
    results.push_back(co_await step(first));
    auto second = first;
    first = merged.makeAsyncIterator();  // dropping one copy does not end the iteration
    results.push_back(co_await step(second));
    results.push_back(co_await step(second));
    results.push_back(co_await step(first));  // a new iteration starts again
    co_return results;
  });
  EXPECT_EQ(results, (Results{"1", "2", "3", "1"}));
}

TEST(Merge, ErrorFollowsTheElementsProducedBeforeItAndThenTheEnd) {
  const auto results = runMain([]() -> Async<std::vector<Results>> {
    std::vector<Results> results;
    auto afterTwo = merge(Scripted({1, 2, -1}), asAsync(std::vector<int>{}));
    results.push_back(co_await play(afterTwo, 5));
    for (int round = 0; round < 20; ++round) {
      auto racing = merge(asAsync(std::vector<int>{1, 2, 3}), Scripted({-7}));
      results.push_back(co_await play(racing, 6));
    }
    co_return results;
  });
  EXPECT_EQ(results[0], (Results{"1", "2", "error: failure 1", "end", "end"}));
  for (std::size_t round = 1; round < results.size(); ++round) {
    // Some in-order prefix of 1 2 3 (the reads race the failure), the error once, then the end.
    const Results& seen = results[round];
    auto error = std::find(seen.begin(), seen.end(), "error: failure 7");
    ASSERT_NE(error, seen.end());
    int expected = 1;
    for (auto it = seen.begin(); it != error; ++it) EXPECT_EQ(*it, std::to_string(expected++));
    for (auto it = error + 1; it != seen.end(); ++it) EXPECT_EQ(*it, "end");
  }
}

TEST(Merge, ErrorWhileWaitingReachesTheConsumerAtOnceAndLaterElementsAreDropped) {
  Fed fed;
  const auto results = runMain([&fed]() -> Async<Results> {
    auto merged = merge(*fed.stream, Scripted({-3}));
    auto iterator = merged.makeAsyncIterator();
    Results results;
    results.push_back(co_await step(iterator));
    fed.continuation->yield(5);
    results.push_back(co_await step(iterator));
    co_return results;
  });
  EXPECT_EQ(results, (Results{"error: failure 3", "end"}));
  EXPECT_TRUE(eventually([&] { return fed.terminations.load() == 1; }));
}

TEST(Merge, CancelledWhileWaitingEndsThatNextAndStopsEveryRead) {
  Fed first, second;
  auto counts = std::make_shared<ProbeCounts>();
  auto consumer = Task<Results>::start([&first, &second, counts]() -> Async<Results> {
    auto merged = merge(probed(*first.stream, counts), probed(*second.stream, counts));
    auto iterator = merged.makeAsyncIterator();
    Results results;
    results.push_back(co_await step(iterator));
    results.push_back(co_await step(iterator));
    co_return results;
  });
  // Both upstreams are being read only once the consumer waits.
  ASSERT_TRUE(eventually([&] { return counts->nexts.load() == 2; }));
  consumer.cancel();
  const auto results =
      runMain([consumer]() -> Async<Results> { co_return co_await consumer.value(); });
  EXPECT_EQ(results, (Results{"end", "end"}));
  EXPECT_TRUE(eventually([&] { return counts->iteratorsDropped.load() == 2; }));
  EXPECT_EQ(first.terminations.load(), 1);
  EXPECT_EQ(second.terminations.load(), 1);
}

TEST(Merge, AlreadyCancelledConsumerGetsTheEndAndStartsNothing) {
  auto counts = std::make_shared<ProbeCounts>();
  const auto results = runMain([counts]() -> Async<Results> {
    auto body = [counts](ThrowingTaskGroup<Results>& group) -> Async<Results> {
      group.cancelAll();  // children added now start cancelled
      group.addTask([counts]() -> Async<Results> {
        auto merged = merge(probed(asAsync(std::vector<int>{1}), counts),
                            probed(asAsync(std::vector<int>{2}), counts));
        co_return co_await play(merged, 2);
      });
      co_return *co_await group.next();
    };
    co_return co_await withThrowingTaskGroup<Results>(body);
  });
  EXPECT_EQ(results, (Results{"end", "end"}));
  EXPECT_EQ(counts->iteratorsMade.load(), 0);
}

TEST(Merge, DroppingTheIteratorStopsChildrenWaitingForDemandAndReadsInFlight) {
  Fed fed;
  auto counts = std::make_shared<ProbeCounts>();
  const auto results = runMain([&fed, counts]() -> Async<Results> {
    auto merged =
        merge(probed(asAsync(std::vector<int>{1, 2, 3}), counts), probed(*fed.stream, counts));
    auto iterator = merged.makeAsyncIterator();
    Results results;
    results.push_back(co_await step(iterator));
    co_return results;
  });
  // One upstream's child waits for demand, the other waits inside its read of the stream.
  EXPECT_EQ(results, (Results{"1"}));
  EXPECT_TRUE(eventually([&] { return counts->iteratorsDropped.load() == 2; }));
  EXPECT_EQ(fed.terminations.load(), 1);
}

TEST(Merge, StreamsFedFromOtherThreadsDeliverEveryElementOnce) {
  Fed first, second;
  std::thread producers([&] {
    for (int i = 1; i <= 500; ++i) {
      first.continuation->yield(i);
      second.continuation->yield(-i);
    }
    first.continuation->finish();
    second.continuation->finish();
  });
  const auto seen = runMain([&first, &second]() -> Async<std::vector<int>> {
    auto merged = merge(*first.stream, *second.stream);
    auto iterator = merged.makeAsyncIterator();
    std::vector<int> seen;
    while (auto element = co_await iterator.next()) seen.push_back(*element);
    co_return seen;
  });
  producers.join();
  std::vector<int> positive, negative;
  for (int value : seen) (value > 0 ? positive : negative).push_back(value > 0 ? value : -value);
  ASSERT_EQ(positive.size(), 500u);
  ASSERT_EQ(negative.size(), 500u);
  EXPECT_TRUE(std::is_sorted(positive.begin(), positive.end()));
  EXPECT_TRUE(std::is_sorted(negative.begin(), negative.end()));
}

TEST(MergeDeathTest, SecondNextWhileOneWaitsStopsWithAMessage) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto twoConsumers = [] {
    Fed first, second;
    auto counts = std::make_shared<ProbeCounts>();
    runMain([&first, &second, counts]() -> Async<void> {
      auto merged = merge(probed(*first.stream, counts), probed(*second.stream, counts));
      auto iterator = merged.makeAsyncIterator();
      auto waiting =
          Task<void>::start([iterator]() mutable -> Async<void> { co_await iterator.next(); });
      while (counts->nexts.load() < 2) co_await yieldNow();
      co_await iterator.next();
    });
  };
  EXPECT_DEATH(twoConsumers(), "next\\(\\) awaited while another next\\(\\) on the same iterator");
}

}  // namespace
}  // namespace carrow
