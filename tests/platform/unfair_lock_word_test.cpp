#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/platform/unfair_lock.h>

namespace carrow::platform {
namespace {

TEST(UnfairLockWord, ZeroInitialisedWordIsUnlockedAndReturnsToZero) {
  os_unfair_lock word = OS_UNFAIR_LOCK_INIT;
  os_unfair_lock_lock(&word);
  EXPECT_NE(word.opaque, 0u);
  os_unfair_lock_unlock(&word);
  EXPECT_EQ(word.opaque, 0u);
}

TEST(UnfairLockWord, SleepingWaitersAreAllWokenEventually) {
  // Many more threads than cores forces the futex path; a lost wake-up would hang here.
  os_unfair_lock word = OS_UNFAIR_LOCK_INIT;
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 16; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        os_unfair_lock_lock(&word);
        ++counter;
        os_unfair_lock_unlock(&word);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, 16 * 20000);
  EXPECT_EQ(word.opaque, 0u);
}

}  // namespace
}  // namespace carrow::platform
