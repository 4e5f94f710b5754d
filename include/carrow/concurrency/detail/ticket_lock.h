#pragma once

#include <atomic>
#include <cstdint>

namespace carrow::detail {

/// A first-come, first-served lock whose place in line is drawn separately from the wait.
///
/// `CRKeyedUnfairLock` draws a key's ticket while it holds its table lock and waits for its turn
/// after releasing that lock: callers of one key enter in the order they reached the table, yet
/// nobody waits for a busy key while holding the table, so other keys stay available. Waiters spin
/// briefly, then sleep on the futex behind `std::atomic::wait`.
class TicketLock {
 public:
  /// Draws the next place in line. Callers serialise drawing themselves (the table lock does).
  std::uint64_t draw() noexcept { return nextTicket_++; }

  /// True when a place after `ticket` has been drawn. Callers read it under the lock that
  /// serialises `draw`.
  bool hasDrawnAfter(std::uint64_t ticket) const noexcept { return nextTicket_ != ticket + 1; }

  /// Blocks until `ticket` is served.
  void wait(std::uint64_t ticket) noexcept {
    for (int spin = 0; spin < 64; ++spin) {
      if (nowServing_.load(std::memory_order_acquire) == ticket) return;
    }
    for (std::uint64_t serving = nowServing_.load(std::memory_order_acquire); serving != ticket;
         serving = nowServing_.load(std::memory_order_acquire)) {
      nowServing_.wait(serving, std::memory_order_acquire);
    }
  }

  /// Ends the current holder's turn and admits the next ticket.
  void release() noexcept {
    nowServing_.fetch_add(1, std::memory_order_release);
    nowServing_.notify_all();
  }

 private:
  std::uint64_t nextTicket_ = 0;
  std::atomic<std::uint64_t> nowServing_{0};
};

}  // namespace carrow::detail
