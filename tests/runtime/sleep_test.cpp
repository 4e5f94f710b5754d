#include <atomic>
#include <chrono>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/actor.h>
#include <carrow/runtime/async.h>
#include <carrow/runtime/cancellation.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/sleep.h>
#include <carrow/runtime/task.h>
#include <carrow/runtime/timer_service.h>

namespace carrow {
namespace {

using namespace std::chrono_literals;

// Spins (yielding to the executor) until `task` has been cancelled, so the test controls when a
// task sees itself cancelled without relying on timing.
Async<void> waitUntilCancelled() {
  while (!isCancelled()) co_await yieldNow();
}

TEST(Sleep, LastsAtLeastItsDurationOnBothClocks) {
  const auto elapsed = runMain([]() -> Async<std::chrono::nanoseconds> {
    const auto start = ContinuousClock::now();
    co_await sleep(20ms);
    co_await sleepUntil(SuspendingClock::now() + 5ms);
    co_return ContinuousClock::now() - start;
  });
  EXPECT_GE(elapsed, 25ms);
  EXPECT_LT(elapsed, 2s);
}

TEST(Sleep, PastOrZeroDeadlineReturnsWithoutWaiting) {
  const auto elapsed = runMain([]() -> Async<std::chrono::nanoseconds> {
    const auto start = ContinuousClock::now();
    co_await sleep(0ns);
    co_await sleep(-5s);
    co_await sleepUntil(ContinuousClock::time_point{});
    co_return ContinuousClock::now() - start;
  });
  EXPECT_LT(elapsed, 100ms);
}

TEST(Sleep, InACancelledTaskThrowsAtOnce) {
  const auto outcome = runMain([]() -> Async<std::chrono::nanoseconds> {
    auto sleeper = Task<std::chrono::nanoseconds>::start([]() -> Async<std::chrono::nanoseconds> {
      co_await waitUntilCancelled();
      const auto start = SuspendingClock::now();
      try {
        co_await sleep(10s);
      } catch (const CancellationError&) {
        co_return SuspendingClock::now() - start;
      }
      co_return std::chrono::nanoseconds::max();
    });
    sleeper.cancel();
    co_return co_await sleeper.value();
  });
  EXPECT_LT(outcome, 50ms);
}

// The quiet form reports each way a sleep ends as a value: elapsed, cancelled while sleeping,
// and cancelled before it began (without suspending), and it never throws.
TEST(Sleep, QuietFormReportsCancellationAsFalse) {
  struct Outcomes {
    bool elapsed = false;
    bool cancelledWhileSleeping = true;
    bool cancelledBefore = true;
  };
  const Outcomes outcomes = runMain([]() -> Async<Outcomes> {
    Outcomes result;
    result.elapsed = co_await sleepUntilOrCancelled(ContinuousClock::now() + 5ms);
    auto sleeper = Task<std::pair<bool, bool>>::start([]() -> Async<std::pair<bool, bool>> {
      const bool during = co_await sleepUntilOrCancelled(ContinuousClock::now() + 10s);
      const bool before = co_await sleepUntilOrCancelled(ContinuousClock::now() + 10s);
      co_return std::pair<bool, bool>(during, before);
    });
    co_await sleep(20ms);  // let it reach its first sleep
    sleeper.cancel();
    const auto [during, before] = co_await sleeper.value();
    result.cancelledWhileSleeping = during;
    result.cancelledBefore = before;
    co_return result;
  });
  EXPECT_TRUE(outcomes.elapsed);
  EXPECT_FALSE(outcomes.cancelledWhileSleeping);
  EXPECT_FALSE(outcomes.cancelledBefore);
}

// The longest duration is clamped (not overflowed into the past) and still cancellable.
TEST(Sleep, CancellationWakesASleepingTaskPromptlyEvenFromTheLongestSleep) {
  struct Timing {
    bool threw = false;
    std::chrono::nanoseconds wakeLatency{};
  };
  const Timing timing = runMain([]() -> Async<Timing> {
    auto cancelledAt = std::make_shared<std::atomic<std::int64_t>>(0);
    auto sleeper = Task<Timing>::start([cancelledAt]() -> Async<Timing> {
      Timing result;
      try {
        co_await sleep(ContinuousClock::duration::max());
      } catch (const CancellationError&) {
        result.threw = true;
      }
      result.wakeLatency =
          SuspendingClock::now().time_since_epoch() - std::chrono::nanoseconds(cancelledAt->load());
      co_return result;
    });
    co_await sleep(20ms);  // let it reach its sleep
    cancelledAt->store(SuspendingClock::now().time_since_epoch().count());
    sleeper.cancel();
    co_return co_await sleeper.value();
  });
  EXPECT_TRUE(timing.threw);
  EXPECT_LT(timing.wakeLatency, 200ms);
}

TEST(Sleep, ThousandSleepersAreTimerEntriesNotThreads) {
  constexpr int kSleepers = 1000;
  const int woke = runMain([]() -> Async<int> {
    auto started = std::make_shared<std::atomic<int>>(0);
    std::vector<Task<void>> sleepers;
    for (int i = 0; i < kSleepers; ++i) {
      sleepers.push_back(Task<void>::start([started]() -> Async<void> {
        auto sleeping = sleep(300ms);
        started->fetch_add(1);
        co_await sleeping;
      }));
    }
    while (started->load() < kSleepers) co_await sleep(1ms);
    co_await sleep(5ms);
    // A few may still be on their way into the queue on a slow (sanitised) run.
    EXPECT_GE(TimerService::shared().pendingCount(), std::size_t{kSleepers * 9 / 10});
    int done = 0;
    for (auto& sleeper : sleepers) {
      co_await sleeper.value();
      ++done;
    }
    co_return done;
  });
  EXPECT_EQ(woke, kSleepers);
}

TEST(Sleep, CancellationRacingTheDeadlineEndsEachSleepExactlyOnce) {
  // Deadlines and cancellations land close together, so every interleaving of timer, canceller and
  // set-up happens; a double resume crashes, a lost one hangs.
  constexpr int kSleepers = 400;
  const auto counts = runMain([]() -> Async<std::pair<int, int>> {
    auto completed = std::make_shared<std::atomic<int>>(0);
    auto cancelled = std::make_shared<std::atomic<int>>(0);
    std::vector<Task<void>> sleepers;
    for (int i = 0; i < kSleepers; ++i) {
      const auto duration = std::chrono::microseconds(i % 7 * 150);
      sleepers.push_back(Task<void>::start([completed, cancelled, duration]() -> Async<void> {
        try {
          co_await sleep(duration);
          completed->fetch_add(1);
        } catch (const CancellationError&) {
          cancelled->fetch_add(1);
        }
      }));
      if (i % 3 != 0) sleepers.back().cancel();
      if (i % 50 == 0) co_await sleep(200us);
    }
    for (auto& sleeper : sleepers) co_await sleeper.value();
    co_return std::pair<int, int>(completed->load(), cancelled->load());
  });
  EXPECT_EQ(counts.first + counts.second, kSleepers);
  EXPECT_GE(counts.first, kSleepers / 3 - 1);
}

class Sleeper : public Actor {
 public:
  // Sleeps on the actor and reports whether the code after the sleep ran on it again.
  Async<bool> napAndCheck() {
    co_await enter();
    co_await sleep(2ms);
    const bool back = isIsolated();
    co_await sleepUntil(SuspendingClock::now() + 1ms);
    co_return back&& isIsolated();
  }
};

TEST(Sleep, ResumesOnTheActorItSleptOn) {
  Sleeper sleeper;
  const bool onActor =
      runMain([&sleeper]() -> Async<bool> { co_return co_await sleeper.napAndCheck(); });
  EXPECT_TRUE(onActor);
}

}  // namespace
}  // namespace carrow
