#include <chrono>
#include <string>
#include <unordered_set>
#include <variant>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/cancellation_error.h>
#include <carrow/runtime/clock.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/task.h>
#include <carrow/runtime/timer_service.h>
#include <carrow/sequences/poll_stream.h>

#include "sequence_probes.h"

namespace carrow {
namespace {

using namespace std::chrono_literals;

static_assert(AsyncSequenceOf<AsyncStream<PollResult>, PollResult>);
static_assert(AsyncSequenceOf<AsyncThrowingStream<std::monostate>, std::monostate>);

TEST(PollStream, TicksAfterTheIntervalAndHashes) {
  const auto start = ContinuousClock::now();
  const auto results = runMain([]() -> Async<std::vector<PollResult>> {
    auto polls = pollStream(5ms).makeAsyncIterator();
    std::vector<PollResult> results;
    results.push_back(*co_await polls.next());
    results.push_back(*co_await polls.next());
    co_return results;
  });
  EXPECT_EQ(results, (std::vector<PollResult>{PollResult::poll, PollResult::poll}));
  EXPECT_GE(ContinuousClock::now() - start, 10ms);
  std::unordered_set<PollResult> seen{PollResult::poll, PollResult::cancelled, PollResult::poll};
  EXPECT_EQ(seen.size(), 2u);
}

// Waits (inside a task, so the main thread keeps driving the main actor) until some sleep is on
// the timer queue, then cancels `task` and awaits it.
template <class T>
Async<T> cancelOnceAsleep(Task<T> task) {
  const auto deadline = ContinuousClock::now() + 10s;
  while (TimerService::shared().pendingCount() == 0 && ContinuousClock::now() < deadline) {
    co_await yieldNow();
  }
  task.cancel();
  co_return co_await task.value();
}

TEST(PollStream, CancellationWhileSleepingIsTheValueCancelledForEver) {
  const auto results = runMain([]() -> Async<std::vector<PollResult>> {
    auto consumer = Task<std::vector<PollResult>>::start([]() -> Async<std::vector<PollResult>> {
      auto polls = pollStream(std::chrono::hours(1)).makeAsyncIterator();
      std::vector<PollResult> results;
      for (int i = 0; i < 3; ++i) results.push_back(*co_await polls.next());
      co_return results;
    });
    co_return co_await cancelOnceAsleep(consumer);
  });
  EXPECT_EQ(results, (std::vector<PollResult>(3, PollResult::cancelled)));
}

TEST(TickStream, TicksAndThrowsTheCancellationOnce) {
  const auto log = runMain([]() -> Async<std::string> {
    auto ticks = tickStream(1ms).makeAsyncIterator();
    std::string log = (co_await ticks.next()).has_value() ? "tick" : "end";
    auto consumer = Task<std::string>::start([]() -> Async<std::string> {
      auto ticks = tickStream(std::chrono::hours(1)).makeAsyncIterator();
      std::string log;
      try {
        co_await ticks.next();
        log += " tick";
      } catch (const CancellationError&) {
        log += " cancelled";
      }
      log += (co_await ticks.next()).has_value() ? " tick" : " end";
      co_return log;
    });
    log += co_await cancelOnceAsleep(consumer);
    co_return log;
  });
  EXPECT_EQ(log, "tick cancelled end");
}

}  // namespace
}  // namespace carrow
