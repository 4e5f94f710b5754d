#pragma once

// The bare lock of the sequence combinators. It is deliberately lower-level than CRUnfairLock: no
// logging, no recursion check, no object identity. The merge combinator needs to take the lock in
// one function and release it inside a continuation's body, which a scoped lock cannot express.

#include <utility>

#include <carrow/platform/unfair_lock.h>

namespace carrow {

/// A handle to one heap-held unfair lock word. Copies share the word. The handle has no
/// destructor: whoever calls `create()` calls `destroy()` exactly once, after the last use.
class Lock {
 public:
  using Primitive = platform::os_unfair_lock;

  /// Allocates an unlocked lock word.
  static Lock create() { return Lock(new Primitive(platform::OS_UNFAIR_LOCK_INIT)); }

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

  /// The same primitives on a raw word, for owners that keep the word inside their own storage.
  static void initialize(Primitive* word) noexcept { *word = platform::OS_UNFAIR_LOCK_INIT; }
  /// Nothing to tear down for an unfair lock word; kept so that another mutex could be swapped in.
  static void deinitialize(Primitive*) noexcept {}
  static void lock(Primitive* word) noexcept { platform::os_unfair_lock_lock(word); }
  static void unlock(Primitive* word) noexcept { platform::os_unfair_lock_unlock(word); }

  /// Runs `body` with `word` locked; see `locked`.
  template <class Body>
  static decltype(auto) withLocked(Primitive* word, Body&& body) {
    lock(word);
    struct Unlocker {
      Primitive* word;
      ~Unlocker() { unlock(word); }
    } unlocker{word};
    return std::forward<Body>(body)();
  }

  /// The word this handle refers to (null after `destroy()` on this handle).
  Primitive* platformLock() const noexcept { return platformLock_; }

 private:
  explicit Lock(Primitive* word) noexcept : platformLock_(word) {}

  Primitive* platformLock_;
};

}  // namespace carrow
