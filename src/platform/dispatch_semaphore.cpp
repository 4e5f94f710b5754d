#include <linux/futex.h>
#include <stdexcept>
#include <sys/syscall.h>
#include <unistd.h>

#include <carrow/platform/dispatch_semaphore.h>

namespace carrow::platform {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t));

DispatchSemaphore::DispatchSemaphore(long value) : value_(value) {
  if (value < 0) throw std::invalid_argument("DispatchSemaphore: negative initial value");
}

void DispatchSemaphore::wait() noexcept {
  // A positive count before the decrement means we took a unit; otherwise we are now counted as a
  // waiter and some signal owes us a wake-up.
  if (value_.fetch_sub(1, std::memory_order_acq_rel) > 0) [[likely]]
    return;
  waitForWakeup();
}

bool DispatchSemaphore::signal() noexcept {
  if (value_.fetch_add(1, std::memory_order_acq_rel) >= 0) [[likely]]
    return false;
  // A waiter exists (or is about to sleep): hand it a unit through the wake-up word. A waiter that
  // has not reached the kernel yet sees the non-zero word and does not sleep.
  wakeups_.fetch_add(1, std::memory_order_release);
  syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&wakeups_), FUTEX_WAKE_PRIVATE, 1, nullptr,
          nullptr, 0);
  return true;
}

void DispatchSemaphore::waitForWakeup() noexcept {
  for (;;) {
    std::uint32_t available = wakeups_.load(std::memory_order_relaxed);
    while (available != 0) {
      if (wakeups_.compare_exchange_weak(available, available - 1, std::memory_order_acquire,
                                         std::memory_order_relaxed)) {
        return;
      }
    }
    // Returns at once if the word is no longer 0; spurious returns just loop.
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&wakeups_), FUTEX_WAIT_PRIVATE, 0, nullptr,
            nullptr, 0);
  }
}

}  // namespace carrow::platform
