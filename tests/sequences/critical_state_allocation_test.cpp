// Counts every allocation of the process, to show that a critical state is one allocation and
// that locking it allocates nothing. A program of its own: it replaces the global operator new.

#include <string>

#include <gtest/gtest.h>

#include <carrow/sequences/lock.h>
#include <carrow/sequences/managed_critical_state.h>

#include "support/allocation_counter.h"

namespace carrow {
namespace {

struct State {
  long counter = 0;
  char text[64] = {};
};

TEST(CriticalStateAllocation, StateLockAndCountLiveInOneAllocation) {
  EXPECT_EQ(allocationsDuring([] {
              ManagedCriticalState<State> state(State{});
              auto copy = state;  // copies share; they allocate nothing
            }),
            1);
}

TEST(CriticalStateAllocation, LockedRegionsAllocateNothing) {
  ManagedCriticalState<State> state(State{});
  Lock lock = Lock::create();
  EXPECT_EQ(allocationsDuring([&] {
              for (int i = 0; i < 1000; ++i) {
                state.withLockedState([](State& value) { ++value.counter; });
                lock.locked([] {});
                lock.lock();
                lock.unlock();
              }
            }),
            0);
  lock.destroy();
}

}  // namespace
}  // namespace carrow
