#pragma once

// A piece of state that can only be reached with its lock held. The state and its lock word live in
// one allocation (together with the reference count), so a locked change costs one pointer hop and
// no allocation.

#include <memory>
#include <type_traits>
#include <utility>

#include <carrow/sequences/lock.h>

namespace carrow {

/// Shared, lock-guarded state. Copies share the one state; it is destroyed with the last copy.
template <class State>
class ManagedCriticalState {
 public:
  /// Stores `initial` next to a fresh, unlocked lock word.
  explicit ManagedCriticalState(State initial)
      : buffer_(std::make_shared<LockedBuffer>(std::move(initial))) {}

  /// Calls `body(State&)` with the lock held and returns its result. The lock is released on every
  /// exit and an error from `body` passes through unchanged. `body` must be short, must not
  /// suspend and must not touch this state again (the lock is not recursive).
  template <class Body>
  decltype(auto) withLockedState(Body&& body) const {
    LockedBuffer& buffer = *buffer_;
    return Lock::withLocked(
        &buffer.lock, [&]() -> decltype(auto) { return std::forward<Body>(body)(buffer.state); });
  }

 private:
  struct LockedBuffer {
    explicit LockedBuffer(State initial) : state(std::move(initial)) { Lock::initialize(&lock); }
    LockedBuffer(const LockedBuffer&) = delete;
    LockedBuffer& operator=(const LockedBuffer&) = delete;
    ~LockedBuffer() { Lock::deinitialize(&lock); }

    State state;
    Lock::Primitive lock;
  };

  std::shared_ptr<LockedBuffer> buffer_;
};

}  // namespace carrow
