#pragma once

// A Linux stand-in for the platform's unfair lock word. The lock is one 32-bit word that is 0 when
// unlocked; taking a free lock costs one atomic compare-and-swap in user space, and only waiters
// that find the lock held sleep in the kernel (on a futex). The lock is unfair on purpose: a thread
// that releases it may take it again at once, ahead of sleeping waiters, which keeps short critical
// sections fast. A macOS build maps these functions to <os/lock.h>.

#include <atomic>
#include <cstdint>

namespace carrow::platform {

/// The lock word. Zero-initialised means unlocked.
struct os_unfair_lock {
  std::uint32_t opaque = 0;
};
using os_unfair_lock_t = os_unfair_lock*;

/// The initial (unlocked) value of a lock word.
inline constexpr os_unfair_lock OS_UNFAIR_LOCK_INIT{};

namespace detail {
// Word states: unlocked, locked without waiters, locked with (possibly) sleeping waiters.
inline constexpr std::uint32_t kUnlocked = 0;
inline constexpr std::uint32_t kLocked = 1;
inline constexpr std::uint32_t kContended = 2;

void lockSlow(std::uint32_t* word) noexcept;
void wakeOne(std::uint32_t* word) noexcept;
}  // namespace detail

/// Blocks until the calling thread owns the lock. Not recursive.
inline void os_unfair_lock_lock(os_unfair_lock_t lock) noexcept {
  std::atomic_ref<std::uint32_t> word(lock->opaque);
  std::uint32_t expected = detail::kUnlocked;
  if (word.compare_exchange_strong(expected, detail::kLocked, std::memory_order_acquire,
                                   std::memory_order_relaxed)) [[likely]] {
    return;
  }
  detail::lockSlow(&lock->opaque);
}

/// Releases the lock; only the owning thread may call it. Wakes one sleeper if any may exist.
inline void os_unfair_lock_unlock(os_unfair_lock_t lock) noexcept {
  std::atomic_ref<std::uint32_t> word(lock->opaque);
  if (word.exchange(detail::kUnlocked, std::memory_order_release) == detail::kContended)
      [[unlikely]] {
    detail::wakeOne(&lock->opaque);
  }
}

}  // namespace carrow::platform
