#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/platform/dispatch_semaphore.h>
#include <carrow/runtime/clock.h>
#include <carrow/runtime/timer_service.h>

namespace carrow {
namespace {

using namespace std::chrono_literals;

TEST(Clocks, AreMonotonicAndContinuousIsNeverBehindSuspending) {
  const auto continuous1 = ContinuousClock::now();
  const auto suspending1 = SuspendingClock::now();
  std::this_thread::sleep_for(2ms);
  const auto continuous2 = ContinuousClock::now();
  const auto suspending2 = SuspendingClock::now();
  EXPECT_GE(continuous2 - continuous1, 2ms);
  EXPECT_GE(suspending2 - suspending1, 2ms);
  // Boot time includes every suspended interval that the monotonic clock skips.
  EXPECT_GE(continuous1.time_since_epoch(), suspending1.time_since_epoch() - 1ms);
}

TEST(TimerService, EntriesRunInDeadlineOrderThenSchedulingOrder) {
  auto& timers = TimerService::shared();
  platform::DispatchSemaphore done(0);
  std::mutex mutex;
  std::vector<int> order;
  const auto base = ContinuousClock::now() + 30ms;
  const int deadlines[] = {3, 1, 2, 1, 0};
  for (int i = 0; i < 5; ++i) {
    timers.schedule(base + std::chrono::milliseconds(deadlines[i]), [&, i] {
      {
        std::lock_guard guard(mutex);
        order.push_back(i);
      }
      done.signal();  // last: the test may end as soon as the fifth signal lands
    });
  }
  for (int i = 0; i < 5; ++i) done.wait();
  EXPECT_EQ(order, (std::vector<int>{4, 1, 3, 2, 0}));
}

TEST(TimerService, PastDeadlineFiresPromptlyAndCannotBeCancelledAfterwards) {
  platform::DispatchSemaphore done(0);
  const auto start = SuspendingClock::now();
  const auto entry =
      TimerService::shared().schedule(ContinuousClock::time_point{}, [&] { done.signal(); });
  done.wait();
  EXPECT_LT(SuspendingClock::now() - start, 200ms);
  EXPECT_FALSE(TimerService::shared().cancel(entry));
}

TEST(TimerService, CancelledEntryNeverRunsAndItsCallbackIsReleased) {
  auto& timers = TimerService::shared();
  auto captured = std::make_shared<int>(0);
  std::atomic<bool> ran{false};
  const auto entry =
      timers.schedule(ContinuousClock::now() + 20ms, [&ran, captured] { ran = true; });
  EXPECT_EQ(captured.use_count(), 2);
  EXPECT_TRUE(timers.cancel(entry));
  EXPECT_EQ(captured.use_count(), 1);
  EXPECT_FALSE(timers.cancel(entry));  // already gone
  // A later entry proves the timer thread went past the cancelled deadline.
  platform::DispatchSemaphore done(0);
  timers.schedule(ContinuousClock::now() + 40ms, [&] { done.signal(); });
  done.wait();
  EXPECT_FALSE(ran);
}

TEST(TimerService, ScheduleAndCancelRaceFromManyThreads) {
  // Every entry either runs exactly once or is cancelled; never both, never neither.
  auto& timers = TimerService::shared();
  constexpr int kThreads = 4;
  constexpr int kPerThread = 500;
  std::atomic<int> ran{0};
  std::atomic<int> cancelled{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        const auto deadline =
            ContinuousClock::now() + std::chrono::microseconds((i * 37 + t) % 300);
        const auto entry = timers.schedule(deadline, [&] { ran.fetch_add(1); });
        if (i % 2 == 0 && timers.cancel(entry)) cancelled.fetch_add(1);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  while (ran.load() + cancelled.load() < kThreads * kPerThread) std::this_thread::sleep_for(1ms);
  std::this_thread::sleep_for(5ms);
  EXPECT_EQ(ran.load() + cancelled.load(), kThreads * kPerThread);
}

}  // namespace
}  // namespace carrow
