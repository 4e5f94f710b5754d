#pragma once

// A Linux stand-in for the platform's dispatch semaphore: a counting semaphore whose uncontended
// wait and signal are one atomic read-modify-write each; only a thread that has to wait sleeps in
// the kernel (on a futex). A macOS build maps this class to dispatch_semaphore_t.

#include <atomic>
#include <cstdint>

namespace carrow::platform {

/// A counting semaphore. `wait()` takes one unit, sleeping until one is available; `signal()`
/// returns one unit, waking one sleeper if any. Waiters are not woken in any particular order.
class DispatchSemaphore {
 public:
  /// Creates a semaphore holding `value` units; `value` must not be negative (a negative count
  /// means waiters, which a new semaphore cannot have), else std::invalid_argument is thrown.
  explicit DispatchSemaphore(long value = 0);
  DispatchSemaphore(const DispatchSemaphore&) = delete;
  DispatchSemaphore& operator=(const DispatchSemaphore&) = delete;

  /// Takes one unit, blocking the calling thread without time limit until one is available.
  void wait() noexcept;

  /// Returns one unit. Returns true if a waiting thread was handed the unit (and woken).
  bool signal() noexcept;

 private:
  void waitForWakeup() noexcept;

  // Units available when positive; minus the number of waiting threads when negative.
  std::atomic<std::int64_t> value_;
  // Units handed to waiting threads that they have not yet collected; the futex word.
  std::atomic<std::uint32_t> wakeups_{0};
};

}  // namespace carrow::platform
