#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_throwing_stream.h>
#include <carrow/runtime/cancellation_error.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>
#include <carrow/runtime/timer_service.h>
#include <carrow/sequences/async_sync_sequence.h>
#include <carrow/sequences/chain.h>
#include <carrow/sequences/cycle.h>
#include <carrow/sequences/for_each.h>
#include <carrow/sequences/on_first.h>
#include <carrow/sequences/poll_stream.h>
#include <carrow/sequences/prefixed_with_nil.h>
#include <carrow/sequences/prepend.h>
#include <carrow/sequences/with_immediate_tick.h>

#include "sequence_probes.h"

namespace carrow {
namespace {

using namespace std::chrono_literals;
using testing::play;
using testing::ProbeCounts;
using testing::probed;
using testing::Results;
using testing::Scripted;

TEST(Chain, PlaysTheFirstThenTheSecondAndEndsForEverAfterAnError) {
  auto secondReads = std::make_shared<ProbeCounts>();
  const auto results = runMain([secondReads]() -> Async<std::vector<Results>> {
    auto plain = chain(Scripted({1, 2}), Scripted({3}));
    auto emptyFirst = chain(Scripted({}), Scripted({4, 5}));
    auto firstThrows = chain(Scripted({1, -9}), probed(Scripted({3}), secondReads));
    auto secondThrows = chain(Scripted({1}), Scripted({2, -8, 4}));
    std::vector<Results> results;
    results.push_back(co_await play(plain, 5));
    results.push_back(co_await play(emptyFirst, 3));
    results.push_back(co_await play(firstThrows, 4));
    results.push_back(co_await play(secondThrows, 5));
    co_return results;
  });
  EXPECT_EQ(results[0], (Results{"1", "2", "3", "end", "end"}));
  EXPECT_EQ(results[1], (Results{"4", "5", "end"}));
  EXPECT_EQ(results[2], (Results{"1", "error: failure 9", "end", "end"}));
  EXPECT_EQ(secondReads->nexts.load(), 0);
  EXPECT_EQ(results[3], (Results{"1", "2", "error: failure 8", "end", "end"}));
}

TEST(Prepend, PutsAnElementOrAProducedOneFirstInEachIteration) {
  const auto results = runMain([]() -> Async<std::vector<Results>> {
    auto element = prepend(Scripted({2, 3}), 1);
    auto produced = prependProducing(Scripted({2}), []() -> Async<int> { co_return 7; });
    auto failing = prependProducing(Scripted({2}), []() -> Async<int> {
      throw std::runtime_error("no first");
      co_return 0;
    });
    auto baseFails = prepend(Scripted({-5, 6}), 1);
    std::vector<Results> results;
    results.push_back(co_await play(element, 4));
    results.push_back(co_await play(element, 2));  // a second iteration starts over
    results.push_back(co_await play(produced, 3));
    results.push_back(co_await play(failing, 2));
    results.push_back(co_await play(baseFails, 3));
    co_return results;
  });
  EXPECT_EQ(results[0], (Results{"1", "2", "3", "end"}));
  EXPECT_EQ(results[1], (Results{"1", "2"}));
  EXPECT_EQ(results[2], (Results{"7", "2", "end"}));
  EXPECT_EQ(results[3], (Results{"error: no first", "end"}));
  EXPECT_EQ(results[4], (Results{"1", "error: failure 5", "end"}));
}

TEST(ForEach, VisitsInOrderAwaitsTheBodyAndRethrows) {
  const auto results = runMain([]() -> Async<std::pair<std::vector<int>, std::string>> {
    std::vector<int> seen;
    auto record = [&seen](int value) -> Async<void> {
      seen.push_back(value);
      co_return;
    };
    auto numbers = asAsync(std::vector<int>{1, 2, 3});
    co_await forEach(numbers, record);
    std::string error;
    try {
      auto plain = [&seen](int value) { seen.push_back(-value); };
      Scripted failing({4, -2});
      co_await forEach(failing, plain);
    } catch (const std::runtime_error& failure) {
      error = failure.what();
    }
    co_return std::pair(seen, error);
  });
  EXPECT_EQ(results.first, (std::vector<int>{1, 2, 3, -4}));
  EXPECT_EQ(results.second, "failure 2");
}

TEST(OnFirst, ActsOnceOnTheFirstElementAndPassesEverythingThrough) {
  auto calls = std::make_shared<std::vector<int>>();
  const auto results = runMain([calls]() -> Async<std::vector<Results>> {
    auto noted = onFirst(Scripted({5, 6}), [calls](const int& value) { calls->push_back(value); });
    std::vector<Results> results;
    results.push_back(co_await play(noted, 3));
    results.push_back(co_await play(noted, 1));  // the flag belongs to the sequence
    co_return results;
  });
  EXPECT_EQ(results[0], (Results{"5", "6", "end"}));
  EXPECT_EQ(results[1], (Results{"5"}));
  EXPECT_EQ(*calls, (std::vector<int>{5}));
}

TEST(PrefixedWithNil, YieldsAbsentThenEveryElementWrapped) {
  const auto seen = runMain([]() -> Async<std::vector<std::string>> {
    auto lifted = prefixedWithNil(asAsync(std::vector<std::string>{"a", "b"}));
    auto iterator = lifted.makeAsyncIterator();
    std::vector<std::string> seen;
    while (auto element = co_await iterator.next()) seen.push_back(element->value_or("nil"));
    seen.push_back("end");
    co_return seen;
  });
  EXPECT_EQ(seen, (std::vector<std::string>{"nil", "a", "b", "end"}));
}

TEST(WithImmediateTick, TheFirstTickIsImmediateAndTheRestComeFromTheStream) {
  const auto start = ContinuousClock::now();
  const auto results = runMain([start]() -> Async<std::vector<ContinuousClock::Duration>> {
    auto ticks = withImmediateTick(tickStream(20ms)).makeAsyncIterator();
    std::vector<ContinuousClock::Duration> at;
    for (int i = 0; i < 2; ++i) {
      co_await ticks.next();
      at.push_back(ContinuousClock::now() - start);
    }
    co_return at;
  });
  EXPECT_LT(results[0], 20ms);
  EXPECT_GE(results[1], 20ms);
}

TEST(Cycle, ReplaysTheSequenceAndStopsItsProducerWithItsConsumer) {
  const auto results = runMain([]() -> Async<std::vector<Results>> {
    auto empty = cycle(std::vector<int>{}, 1ms);
    auto repeating = cycle(std::vector<int>{1, 2}, 1ms, TaskPriority::utility);
    std::vector<Results> results;
    results.push_back(co_await play(empty, 2));
    results.push_back(co_await play(repeating, 5));
    co_return results;
  });
  EXPECT_EQ(results[0], (Results{"end", "end"}));
  EXPECT_EQ(results[1], (Results{"1", "2", "1", "2", "1"}));
  // The repeating stream's consumer is gone: its producer's timer leaves the queue.
  EXPECT_TRUE(testing::eventually([] { return TimerService::shared().pendingCount() == 0; }));
}

TEST(Cycle, CancellingTheProducerEndsTheStreamWithTheCancellation) {
  const auto results = runMain([]() -> Async<Results> {
    auto consumer = Task<Results>::start([]() -> Async<Results> {
      auto slow = cycle(std::vector<int>{1}, std::chrono::hours(1));
      co_return co_await play(slow, 2);
    });
    const auto deadline = ContinuousClock::now() + 10s;
    while (TimerService::shared().pendingCount() == 0 && ContinuousClock::now() < deadline) {
      co_await yieldNow();
    }
    consumer.cancel();  // the consumer reads the end and takes the producer down with it
    co_return co_await consumer.value();
  });
  EXPECT_EQ(results, (Results{"end", "end"}));
  EXPECT_TRUE(testing::eventually([] { return TimerService::shared().pendingCount() == 0; }));
}

}  // namespace
}  // namespace carrow
