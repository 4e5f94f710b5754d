#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/concurrency/unfair_lock.h>

namespace carrow {
namespace {

TEST(CRUnfairLock, ThrowingBodyReleasesTheLockAndPassesTheSameError) {
  CRUnfairLock lock;
  const std::runtime_error original("boom");
  try {
    lock.withLock([&]() -> int { throw original; });
    FAIL() << "expected the body's error";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "boom");
  }
  // Would deadlock if the error path had left the lock held.
  EXPECT_EQ(lock.withLock([] { return 1; }), 1);
}

TEST(CRUnfairLock, ExcludesConcurrentBodies) {
  CRUnfairLock lock;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50000; ++i) {
        lock.withLock([&] {
          if (inside.fetch_add(1, std::memory_order_relaxed) != 0) overlapped = true;
          ++counter;
          inside.fetch_sub(1, std::memory_order_relaxed);
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(overlapped);
  EXPECT_EQ(counter, 4 * 50000);
}

}  // namespace
}  // namespace carrow
