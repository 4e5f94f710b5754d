#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/platform/dispatch_semaphore.h>

namespace carrow::platform {
namespace {

TEST(DispatchSemaphore, InitialUnitsAreTakenWithoutBlockingAndCannotBeNegative) {
  DispatchSemaphore semaphore(2);
  semaphore.wait();
  semaphore.wait();
  EXPECT_FALSE(semaphore.signal());  // nobody waits
  semaphore.wait();
  EXPECT_THROW(DispatchSemaphore(-1), std::invalid_argument);
}

TEST(DispatchSemaphore, WaitBlocksUntilSignalAndSeesTheSignallersWrites) {
  DispatchSemaphore semaphore(0);
  int payload = 0;  // plain data: ThreadSanitizer checks the hand-off orders it
  std::atomic<bool> returned{false};
  std::thread waiter([&] {
    semaphore.wait();
    returned = true;
    EXPECT_EQ(payload, 99);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(returned);
  payload = 99;
  semaphore.signal();
  waiter.join();
  EXPECT_TRUE(returned);
}

TEST(DispatchSemaphore, EverySignalReleasesExactlyOneWaitUnderStress) {
  // More threads than cores, so waiters really sleep; a lost wake-up hangs, an extra one makes
  // the final count wrong.
  DispatchSemaphore semaphore(0);
  constexpr int kThreads = 8;
  constexpr int kRounds = 5000;
  std::atomic<long> taken{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        semaphore.wait();
        taken.fetch_add(1, std::memory_order_relaxed);
      }
    });
  }
  std::vector<std::thread> signallers;
  for (int s = 0; s < 2; ++s) {
    signallers.emplace_back([&] {
      for (int i = 0; i < kThreads * kRounds / 2; ++i) semaphore.signal();
    });
  }
  for (auto& thread : signallers) thread.join();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(taken, long{kThreads} * kRounds);
  EXPECT_FALSE(semaphore.signal());  // no units were left over or owed
  semaphore.wait();
}

}  // namespace
}  // namespace carrow::platform
