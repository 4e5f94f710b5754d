#pragma once

// The lock of the sequence combinators: a copyable handle to one `CRUnfairLock` on the heap.
//
// Why not a `CRUnfairLock` member: a combinator's storage and the continuations it hands out share
// the lock through copies of the handle, and the merge combinator takes the lock in one function
// and releases it inside a continuation's body, which a scoped guard cannot express. The handle
// has no destructor, so the storage that creates the lock decides when it goes.

#include <memory>
#include <mutex>
#include <utility>

#include <carrow/concurrency/unfair_lock.h>

namespace carrow {

/// A handle to one heap-held `CRUnfairLock`. Copies share the lock. The handle has no destructor:
/// whoever calls `create()` calls `destroy()` exactly once, after the last use. Not recursive;
/// any thread may take it, and only the thread that took it may release it.
class Lock {
 public:
  using Primitive = CRUnfairLock;

  /// Allocates an unlocked lock.
  static Lock create() { return Lock(new Primitive()); }

  /// Frees the word; this handle and all its copies are unusable afterwards.
  void destroy() noexcept {
    deinitialize(platformLock_);
    delete platformLock_;
    platformLock_ = nullptr;
  }

  /// Blocks until the calling thread owns the lock. Not recursive.
  void lock() noexcept { lock(platformLock_); }

  /// Releases the lock; only the thread that locked it may call this.
  void unlock() noexcept { unlock(platformLock_); }

  /// Runs `body` with the lock held and returns its result; the lock is released on every exit,
  /// and an error from `body` passes through unchanged.
  template <class Body>
  decltype(auto) locked(Body&& body) {
    return withLocked(platformLock_, std::forward<Body>(body));
  }

  /// The same operations on a lock that its owner keeps inside its own storage.
  /// Puts `word` in the unlocked state.
  static void initialize(Primitive* word) noexcept { std::construct_at(word); }
  /// Nothing to tear down for an unfair lock; kept so that another mutex could be swapped in.
  static void deinitialize(Primitive*) noexcept {}
  static void lock(Primitive* word) noexcept { word->lock(); }
  static void unlock(Primitive* word) noexcept { word->unlock(); }

  /// Runs `body` with `word` locked; see `locked`.
  template <class Body>
  static decltype(auto) withLocked(Primitive* word, Body&& body) {
    std::lock_guard guard(*word);
    return std::forward<Body>(body)();
  }

  /// The word this handle refers to (null after `destroy()` on this handle).
  Primitive* platformLock() const noexcept { return platformLock_; }

 private:
  explicit Lock(Primitive* word) noexcept : platformLock_(word) {}

  Primitive* platformLock_;
};

}  // namespace carrow
