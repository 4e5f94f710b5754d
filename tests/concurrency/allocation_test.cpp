// Counts every allocation of the process, to show that taking locks and using cells allocates
// nothing once they are built. A program of its own: it replaces the global operator new.

#include <gtest/gtest.h>

#include <carrow/concurrency/atomic.h>
#include <carrow/concurrency/keyed_unfair_lock.h>
#include <carrow/concurrency/unfair_lock.h>

#include "support/allocation_counter.h"

namespace carrow {
namespace {

TEST(Allocation, LockAndUnlockAllocateNothing) {
  CRUnfairLock lock;
  EXPECT_EQ(allocationsDuring([&] {
              for (int i = 0; i < 1000; ++i) lock.withLock([] {});
            }),
            0);
}

TEST(Allocation, AtomicReadsWritesAndIncrementsAllocateNothing) {
  Atomic<long> cell(0);
  EXPECT_EQ(allocationsDuring([&] {
              for (int i = 0; i < 1000; ++i) {
                cell.increment(1);
                cell.setWrappedValue(cell.wrappedValue() + 1);
                cell.modify([](long& value) { ++value; });
              }
            }),
            0);
  EXPECT_EQ(cell.wrappedValue(), 3000);
}

TEST(Allocation, AKeyedLockAllocatesOnlyForANewKey) {
  CRKeyedUnfairLock<int, int> keyed;
  keyed.withLock(1, [](std::int64_t) {});
  EXPECT_EQ(allocationsDuring([&] {
              for (int i = 0; i < 1000; ++i) keyed.withLock(1, [](std::int64_t) {});
            }),
            0);
}

}  // namespace
}  // namespace carrow
