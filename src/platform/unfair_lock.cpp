#include <climits>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <carrow/platform/cpu_relax.h>
#include <carrow/platform/unfair_lock.h>

namespace carrow::platform::detail {
namespace {

void futexWait(std::uint32_t* word, std::uint32_t expected) noexcept {
  // Spurious returns (EINTR, EAGAIN when the word already changed) are fine: the caller re-checks.
  syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, expected, nullptr, nullptr, 0);
}

// A brief spin catches a lock that a holder on the other core is about to release. Longer spins
// measured worse: spinning waiters pull the lock's cache line away from the holder, and on a
// machine with few cores they take time from a holder that was descheduled.
constexpr int kSpinLimit = 10;

}  // namespace

void lockSlow(std::uint32_t* address) noexcept {
  std::atomic_ref<std::uint32_t> word(*address);
  for (int spin = 0; spin < kSpinLimit; ++spin) {
    std::uint32_t state = word.load(std::memory_order_relaxed);
    if (state == kUnlocked) {
      if (word.compare_exchange_weak(state, kLocked, std::memory_order_acquire,
                                     std::memory_order_relaxed)) {
        return;
      }
    } else if (state == kContended) {
      break;  // Others already sleep; join them rather than compete for the cache line.
    }
    platform::cpuRelax();
  }
  // From here on the word is marked contended whenever we hold it, so the eventual unlock wakes the
  // next sleeper. A thread that acquires this way cannot tell whether others still sleep, so it
  // keeps the conservative mark.
  while (word.exchange(kContended, std::memory_order_acquire) != kUnlocked) {
    futexWait(address, kContended);
  }
}

void wakeOne(std::uint32_t* word) noexcept {
  syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

}  // namespace carrow::platform::detail
