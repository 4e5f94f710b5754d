#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/sequences/lock.h>
#include <carrow/sequences/managed_critical_state.h>

namespace carrow {
namespace {

TEST(Lock, FreshLockCanBeTakenAtOnceAndCopiesShareTheLock) {
  Lock lock = Lock::create();
  Lock copy = lock;
  EXPECT_EQ(copy.platformLock(), lock.platformLock());
  lock.lock();
  copy.unlock();  // released through the copy
  EXPECT_EQ(lock.locked([] { return 7; }), 7);
  int value = 1;
  int& same = lock.locked([&]() -> int& { return value; });  // references are not copied
  EXPECT_EQ(&same, &value);
  lock.destroy();
}

TEST(Lock, ThrowingBodyLeavesTheLockUnlockedAndPassesTheErrorUnchanged) {
  Lock lock = Lock::create();
  const std::runtime_error original("locked body failed");
  try {
    lock.locked([&]() -> int { throw original; });
    FAIL() << "expected the body's error";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "locked body failed");
  }
  EXPECT_EQ(lock.locked([] { return 1; }), 1);  // would hang had the error kept the lock
  lock.destroy();
}

TEST(Lock, RawPrimitivesOnAnEmbeddedWord) {
  Lock::Primitive word;
  word.lock();
  Lock::initialize(&word);  // back to unlocked, whatever state it was in
  Lock::lock(&word);
  Lock::unlock(&word);
  EXPECT_EQ(Lock::withLocked(&word, [] { return std::string("ok"); }), "ok");
  Lock::deinitialize(&word);
}

TEST(Lock, ExcludesConcurrentHoldersOfCopies) {
  Lock lock = Lock::create();
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&counter, copy = lock] {
      for (int i = 0; i < 20000; ++i) {
        Lock mine = copy;
        mine.lock();
        ++counter;
        mine.unlock();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, 4 * 20000);
  lock.destroy();
}

// Counts how many values are alive and how many were destroyed.
struct Tracked {
  static inline std::atomic<int> alive{0};
  static inline std::atomic<int> destroyed{0};
  int value = 0;
  explicit Tracked(int v) : value(v) { ++alive; }
  Tracked(const Tracked& other) : value(other.value) { ++alive; }
  Tracked(Tracked&& other) noexcept : value(other.value) { ++alive; }
  ~Tracked() {
    --alive;
    ++destroyed;
  }
};

TEST(ManagedCriticalState, LastCopyDestroysTheStateExactlyOnce) {
  const int destroyedBefore = Tracked::destroyed;
  {
    ManagedCriticalState<Tracked> state{Tracked(5)};
    // The temporaries of construction are gone; exactly one stored value remains.
    EXPECT_EQ(Tracked::alive, 1);
    const int destroyedAfterConstruction = Tracked::destroyed;
    {
      auto copy = state;
      auto another = copy;
      EXPECT_EQ(another.withLockedState([](Tracked& t) { return t.value; }), 5);
    }
    EXPECT_EQ(Tracked::alive, 1);
    EXPECT_EQ(Tracked::destroyed, destroyedAfterConstruction);
  }
  EXPECT_EQ(Tracked::alive, 0);
  EXPECT_GT(Tracked::destroyed, destroyedBefore);
}

TEST(ManagedCriticalState, ThrowingBodyUnlocksAndKeepsItsChanges) {
  ManagedCriticalState<std::vector<int>> state(std::vector<int>{});
  EXPECT_THROW(state.withLockedState([](std::vector<int>& values) -> int {
    values.push_back(1);
    throw std::logic_error("after the change");
  }),
               std::logic_error);
  // Would deadlock if the lock had stayed held.
  EXPECT_EQ(state.withLockedState([](std::vector<int>& values) { return values.size(); }), 1u);
}

// Copies share one state: updates through any of them are seen, and none are lost.
TEST(ManagedCriticalState, ConcurrentUpdatesThroughCopiesAreNotLost) {
  ManagedCriticalState<long> state(0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([copy = state] {
      for (int i = 0; i < 20000; ++i) copy.withLockedState([](long& value) { ++value; });
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(state.withLockedState([](long& value) { return value; }), 4 * 20000);
}

}  // namespace
}  // namespace carrow
