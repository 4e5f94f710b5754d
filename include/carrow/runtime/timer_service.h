#pragma once

// The runtime's one timer thread. Every sleep of every task is an entry here, ordered by deadline,
// so a thousand sleeping tasks cost a thousand small entries, not a thousand threads. The thread
// starts on first use and lives until the process ends.

#include <chrono>
#include <cstdint>
#include <functional>

#include <carrow/runtime/clock.h>

namespace carrow {

/// A process-wide deadline queue served by a single thread.
///
/// Callbacks run on the timer thread, one after another, so they must be short and must not
/// block: the runtime's callbacks only schedule a coroutine on its executor.
class TimerService {
 public:
  /// Identifies a scheduled entry for `cancel`.
  struct Entry {
    int clock = 0;
    std::int64_t deadline = 0;
    std::uint64_t sequence = 0;
  };

  /// The shared service; starts the timer thread on first use (std::system_error if it cannot).
  static TimerService& shared();

  /// Runs `callback` on the timer thread once `deadline` of the continuous clock has passed (at
  /// once if it already has). Entries with equal deadlines run in the order they were scheduled.
  Entry schedule(ContinuousClock::time_point deadline, std::function<void()> callback);
  /// The same on the suspending clock.
  Entry schedule(SuspendingClock::time_point deadline, std::function<void()> callback);

  /// Removes an entry. Returns true if it was still waiting (its callback will never run, and is
  /// destroyed before this returns); false if its callback has already run or is running now.
  bool cancel(const Entry& entry);

  /// How many entries are waiting (for tests and diagnostics).
  std::size_t pendingCount() const;

  TimerService(const TimerService&) = delete;
  TimerService& operator=(const TimerService&) = delete;

 private:
  struct Impl;
  TimerService();
  ~TimerService() = default;
  Entry add(int clock, std::int64_t deadline, std::function<void()> callback);

  Impl* impl_;
};

}  // namespace carrow
