#pragma once

#include <memory>
#include <type_traits>
#include <utility>

#include <carrow/platform/unfair_lock.h>

namespace carrow {

/// A non-recursive, unfair mutual-exclusion lock for short critical sections that never suspend.
///
/// The lock word lives in a heap cell of its own so that its address never moves while the lock
/// lives; the object itself is shared by reference (hold it by value in one place, or through a
/// `std::shared_ptr`) and is never copied. It satisfies BasicLockable, so `std::lock_guard` and
/// `std::scoped_lock` work with it. Taking and releasing a free lock allocates nothing and makes no
/// system call.
class CRUnfairLock {
 public:
  CRUnfairLock() : innerLock_(std::make_unique<platform::os_unfair_lock>()) {}
  CRUnfairLock(const CRUnfairLock&) = delete;
  CRUnfairLock& operator=(const CRUnfairLock&) = delete;

  /// Blocks until the calling thread owns the lock. Taking a lock one already holds deadlocks.
  void lock() noexcept { platform::os_unfair_lock_lock(innerLock_.get()); }

  /// Releases the lock; only the owning thread may call it.
  void unlock() noexcept { platform::os_unfair_lock_unlock(innerLock_.get()); }

  /// Runs `body` with the lock held and returns its result. If `body` throws, the lock is released
  /// first and the same exception propagates unchanged.
  template <class Body>
  decltype(auto) withLock(Body&& body) {
    lock();
    struct Unlock {
      CRUnfairLock* self;
      ~Unlock() { self->unlock(); }
    } guard{this};
    return std::forward<Body>(body)();
  }

 private:
  std::unique_ptr<platform::os_unfair_lock> innerLock_;
};

}  // namespace carrow
