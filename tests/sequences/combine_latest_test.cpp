#include <atomic>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_throwing_stream.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>
#include <carrow/sequences/any_async_sequence.h>
#include <carrow/sequences/async_sync_sequence.h>
#include <carrow/sequences/combine_latest.h>
#include <carrow/sequences/combine_latest_optional.h>

#include "sequence_probes.h"

namespace carrow {
namespace {

using testing::eventually;
using testing::Fed;
using testing::ProbeCounts;
using testing::probed;
using testing::Results;
using testing::Scripted;

using Ints = AsyncSyncSequence<std::vector<int>>;
using Stream = AsyncThrowingStream<int>;
static_assert(AsyncSequenceOf<AsyncCombineLatest2Sequence<Ints, Stream>, std::tuple<int, int>>);
static_assert(AsyncSequenceOf<AsyncCombineLatest3Sequence<Ints, Ints, AnyAsyncSequence<int>>,
                              std::tuple<int, int, int>>);

template <class Tuple>
std::string text(const Tuple& tuple) {
  std::string out = "(";
  std::apply(
      [&out](const auto&... member) {
        ((out += (out.size() > 1 ? "," : "") + std::to_string(member)), ...);
      },
      tuple);
  return out + ")";
}

template <class Sequence>
Async<Results> playTuples(Sequence sequence, int count) {
  auto iterator = sequence.makeAsyncIterator();
  Results results;
  for (int i = 0; i < count; ++i) {
    try {
      auto tuple = co_await iterator.next();
      results.push_back(tuple ? text(*tuple) : "end");
    } catch (const std::exception& error) {
      results.push_back(std::string("error: ") + error.what());
    }
  }
  co_return results;
}

TEST(CombineLatest, PairsOnlyTheLatestElementOnceEveryUpstreamHasProduced) {
  Fed letters;
  auto numbers = std::make_shared<ProbeCounts>();
  std::thread feeder([&] {
    // Upstream 1 has read 1, 2, 3 and ended before upstream 2 produces anything.
    ASSERT_TRUE(eventually([&] { return numbers->iteratorsDropped.load() == 1; }));
    letters.continuation->yield(10);
    letters.continuation->yield(20);
    letters.continuation->finish();
  });
  const auto results = runMain([&letters, numbers]() -> Async<Results> {
    auto combined =
        combineLatest(probed(asAsync(std::vector<int>{1, 2, 3}), numbers), *letters.stream);
    co_return co_await playTuples(combined, 4);
  });
  feeder.join();
  EXPECT_EQ(results, (Results{"(3,10)", "(3,20)", "end", "end"}));
}

TEST(CombineLatest, AnUpstreamEndingEmptyEndsTheCombinationAndStopsTheOthers) {
  Fed never;
  const auto results = runMain([&never]() -> Async<Results> {
    auto combined = combineLatest(asAsync(std::vector<int>{}), *never.stream);
    co_return co_await playTuples(combined, 2);
  });
  EXPECT_EQ(results, (Results{"end", "end"}));
  EXPECT_TRUE(eventually([&] { return never.terminations.load() == 1; }));
}

TEST(CombineLatest, ThreeUpstreamsWaitForAllThreeAndErrorsReachTheWaitingConsumer) {
  Fed silent;
  const auto results = runMain([&silent]() -> Async<std::vector<Results>> {
    auto three = combineLatest(asAsync(std::vector<int>{1}), asAsync(std::vector<int>{2}),
                               asAsync(std::vector<int>{3}));
    auto failing = combineLatest(*silent.stream, Scripted({-3}));
    std::vector<Results> results;
    results.push_back(co_await playTuples(three, 2));
    results.push_back(co_await playTuples(failing, 2));
    co_return results;
  });
  EXPECT_EQ(results[0], (Results{"(1,2,3)", "end"}));
  EXPECT_EQ(results[1], (Results{"error: failure 3", "end"}));
}

TEST(CombineLatest, CancelledWhileWaitingEndsThatNextAndStopsEveryRead) {
  Fed first, second;
  auto counts = std::make_shared<ProbeCounts>();
  auto consumer = Task<Results>::start([&first, &second, counts]() -> Async<Results> {
    auto combined = combineLatest(probed(*first.stream, counts), probed(*second.stream, counts));
    co_return co_await playTuples(combined, 2);
  });
  ASSERT_TRUE(eventually([&] { return counts->nexts.load() == 2; }));
  consumer.cancel();
  const auto results =
      runMain([consumer]() -> Async<Results> { co_return co_await consumer.value(); });
  EXPECT_EQ(results, (Results{"end", "end"}));
  EXPECT_TRUE(eventually([&] { return counts->iteratorsDropped.load() == 2; }));
  EXPECT_EQ(first.terminations.load() + second.terminations.load(), 2);
}

TEST(CombineLatest, DroppingTheIteratorWhileWaitingForDemandStopsTheChildren) {
  auto counts = std::make_shared<ProbeCounts>();
  const auto results = runMain([counts]() -> Async<Results> {
    auto combined = combineLatest(probed(asAsync(std::vector<int>{1, 2}), counts),
                                  probed(asAsync(std::vector<int>{3, 4}), counts));
    auto iterator = combined.makeAsyncIterator();
    auto first = co_await iterator.next();
    Results results;
    results.push_back(first ? "tuple" : "end");
    co_return results;
  });
  EXPECT_EQ(results, (Results{"tuple"}));
  EXPECT_TRUE(eventually([&] { return counts->iteratorsDropped.load() == 2; }));
}

TEST(CombineLatestOptional, ProducesBeforeEveryInputHasAndMarksTheSilentOnesAbsent) {
  Fed never;
  const auto seen = runMain([&never]() -> Async<std::vector<std::string>> {
    auto combined = combineLatestOptional(asAsync(std::vector<int>{1}), *never.stream);
    auto iterator = combined.makeAsyncIterator();
    std::vector<std::string> seen;
    for (;;) {
      auto tuple = co_await iterator.next();
      const auto& [first, second] = *tuple;
      seen.push_back((first ? std::to_string(*first) : "nil") + "," + (second ? "x" : "nil"));
      if (first) break;
    }
    co_return seen;
  });
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.back(), "1,nil");
  EXPECT_LE(seen.size(), 2u);
}

}  // namespace
}  // namespace carrow
