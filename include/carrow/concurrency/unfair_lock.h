#pragma once

#include <mutex>
#include <utility>

#include <carrow/platform/unfair_lock.h>

namespace carrow {

/// A non-recursive, unfair mutual-exclusion lock for short critical sections that never suspend.
/// It is the library's one lock: everything that guards state with a lock word (the cells, the
/// keyed lock's table, the executors' queues, the streams, the task groups) holds one of these and
/// takes it with `std::lock_guard`, or with `withLock`.
///
/// The lock is one 32-bit word kept inside the object: the object can neither be copied nor
/// moved, so the word's address never changes while the lock lives, and making a lock allocates
/// nothing. Share it by reference (hold it by value in one place, or through a `std::shared_ptr`).
/// It satisfies BasicLockable, so `std::lock_guard` and `std::scoped_lock` work with it. Taking
/// and releasing a free lock makes no system call. There is no try-lock and no owner check.
class CRUnfairLock {
 public:
  constexpr CRUnfairLock() noexcept = default;
  CRUnfairLock(const CRUnfairLock&) = delete;
  CRUnfairLock& operator=(const CRUnfairLock&) = delete;

  /// Blocks until the calling thread owns the lock. Taking a lock one already holds deadlocks.
  void lock() noexcept { platform::os_unfair_lock_lock(&innerLock_); }

  /// Releases the lock; only the owning thread may call it.
  void unlock() noexcept { platform::os_unfair_lock_unlock(&innerLock_); }

  /// Runs `body` with the lock held and returns its result. If `body` throws, the lock is released
  /// first and the same exception propagates unchanged.
  template <class Body>
  decltype(auto) withLock(Body&& body) {
    std::lock_guard guard(*this);
    return std::forward<Body>(body)();
  }

 private:
  platform::os_unfair_lock innerLock_{};
};

}  // namespace carrow
