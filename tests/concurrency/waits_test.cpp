#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>

#include <gtest/gtest.h>

#include <carrow/concurrency/bell.h>
#include <carrow/concurrency/detail/wait_events.h>
#include <carrow/concurrency/lock_wait.h>
#include <carrow/concurrency/task_waiter_event.h>
#include <carrow/runtime/cancellation.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/sleep.h>
#include <carrow/runtime/task.h>

namespace carrow {
namespace {

using namespace std::chrono_literals;
using Event = TaskWaiterEvent<int>;

struct Expired : std::runtime_error {
  Expired() : std::runtime_error("expired") {}
};

TEST(Bell2, RingsOnceAndCanBeReArmed) {
  Bell2 bell;
  EXPECT_FALSE(bell.hasRung());
  bell.ring();
  bell.ring();
  EXPECT_TRUE(bell.hasRung());
  bell.setHasRung(false);
  EXPECT_FALSE(bell.hasRung());
}

TEST(LockWait, IndefiniteIsTheLongestLimitWithATimeoutError) {
  const LockWait wait = LockWait::indefinite();
  EXPECT_EQ(wait.kind(), LockWait::Kind::indefinite);
  EXPECT_EQ(wait.seconds(), 2147483647.0);
  EXPECT_EQ(wait.duration(), std::chrono::seconds(2147483647));
  try {
    std::rethrow_exception(wait.error());
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::error_code(ETIMEDOUT, std::generic_category()));
  }
}

TEST(LockWait, ThrowAfterKeepsItsErrorAndClampsOddLimits) {
  const LockWait wait = LockWait::throwAfter(0.25, Expired());
  EXPECT_EQ(wait.kind(), LockWait::Kind::throwAfter);
  EXPECT_EQ(wait.duration(), 250ms);
  EXPECT_THROW(std::rethrow_exception(wait.error()), Expired);
  EXPECT_EQ(LockWait::durationOf(-1), 0ns);
  EXPECT_EQ(LockWait::durationOf(std::nan("")), 0ns);
  EXPECT_EQ(LockWait::durationOf(std::numeric_limits<double>::infinity()),
            ContinuousClock::Duration::max());
}

TEST(TaskWaiterEvent, OnlyACompletedTaskCarriesAResult) {
  const Event done = Event::taskCompleted(Result<int>::success(7));
  EXPECT_EQ(done.kind(), Event::Kind::taskCompleted);
  EXPECT_EQ(done.result().get(), 7);
  EXPECT_THROW((void)Event::timedOut().result(), std::logic_error);
  EXPECT_EQ(Event::cancelled().kind(), Event::Kind::cancelled);
}

// A task that runs until it is cancelled (then returns -1), standing for slow work.
Task<int> slowTask() {
  return Task<int>::start([]() -> Async<int> {
    try {
      co_await sleep(30s);
    } catch (const CancellationError&) {
      co_return -1;
    }
    co_return 1;
  });
}

Async<std::optional<Event>> firstEventOfRace(Task<int> task, ContinuousClock::Duration limit) {
  auto events = detail::waitEvents(std::move(task), limit);
  auto iterator = events.makeAsyncIterator();
  co_return co_await iterator.next();
}

TEST(WaitEvents, ASlowTaskLosesToTheDeadlineAndKeepsRunning) {
  runMain([]() -> Async<void> {
    Task<int> task = slowTask();
    std::optional<Event> first = co_await firstEventOfRace(task, 50ms);
    EXPECT_TRUE(first && first->kind() == Event::Kind::timedOut);
    EXPECT_FALSE(task.isCancelled());
    task.cancel();
  });
}

TEST(WaitEvents, AFinishedTaskWinsWithItsValueOrItsError) {
  runMain([]() -> Async<void> {
    auto value = Task<int>::start([]() -> Async<int> { co_return 42; });
    auto failure = Task<int>::start([]() -> Async<int> {
      co_await yieldNow();
      throw Expired();
    });
    co_await value.result();
    co_await failure.result();
    std::optional<Event> first = co_await firstEventOfRace(value, 5s);
    EXPECT_TRUE(first && first->kind() == Event::Kind::taskCompleted);
    if (first) {
      EXPECT_EQ(first->result().get(), 42);
    }
    first = co_await firstEventOfRace(failure, 5s);
    EXPECT_TRUE(first && first->kind() == Event::Kind::taskCompleted);
    if (first) {
      EXPECT_THROW(first->result().get(), Expired);
    }
  });
}

TEST(WaitEvents, CancellingTheWaiterEndsTheWaitButNotTheTask) {
  runMain([]() -> Async<void> {
    Task<int> task = slowTask();
    auto waiter = Task<std::optional<Event>>::start([task]() -> Async<std::optional<Event>> {
      co_return co_await firstEventOfRace(task, 30s);
    });
    co_await sleep(20ms);
    waiter.cancel();
    std::optional<Event> first = co_await waiter.value();
    EXPECT_TRUE(!first || first->kind() == Event::Kind::cancelled);
    EXPECT_FALSE(task.isCancelled());
    EXPECT_FALSE(task.isFinished());
    task.cancel();
    EXPECT_EQ(co_await task.value(), -1);
  });
}

TEST(WaitEvents, FirstWaitEventAnswersAFinishedTaskAtOnce) {
  runMain([]() -> Async<void> {
    auto done = Task<int>::start([]() -> Async<int> { co_return 3; });
    co_await done.result();
    std::optional<Event> first = co_await detail::firstWaitEvent(done, 0ns);
    EXPECT_TRUE(first && first->kind() == Event::Kind::taskCompleted);
  });
}

}  // namespace
}  // namespace carrow
