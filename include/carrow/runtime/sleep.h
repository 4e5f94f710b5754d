#pragma once

// Sleeping inside a task. A sleeping task holds no thread: it is one entry in the runtime's timer
// queue (see timer_service.h) and is resumed on its own executor when the deadline passes. A
// sleep has no tolerance: it ends as soon after its deadline as the timer thread can schedule it.
//
//   co_await carrow::sleep(std::chrono::milliseconds(50));          // on the continuous clock
//   co_await carrow::sleepUntil(carrow::SuspendingClock::now() + 1s);
//
// Cancellation: in a task that is already cancelled, `sleep` throws CancellationError at once,
// without suspending. If the task is cancelled while it sleeps, the sleep ends promptly (the
// canceller removes the timer entry and schedules the task) and throws CancellationError.

#include <atomic>
#include <chrono>
#include <coroutine>
#include <cstdint>

#include <carrow/runtime/clock.h>
#include <carrow/runtime/detail/task_context.h>
#include <carrow/runtime/timer_service.h>

namespace carrow {

/// The awaitable of one sleep; `co_await` it at once (it cannot be awaited twice or moved).
/// Only coroutines of the runtime (Async, Task and their kin) can await it.
class [[nodiscard]] SleepAwaiter {
 public:
  SleepAwaiter(const SleepAwaiter&) = delete;
  SleepAwaiter& operator=(const SleepAwaiter&) = delete;

  bool await_ready() const noexcept { return ready_; }

  template <detail::RuntimePromise Promise>
  void await_suspend(std::coroutine_handle<Promise> handle) {
    start(*handle.promise().context, handle);
  }

  /// Returns true when the deadline has passed. If the task was cancelled first, throws
  /// CancellationError, or returns false for a sleep made by `sleepUntilOrCancelled`.
  bool await_resume();

 private:
  friend SleepAwaiter sleepUntil(ContinuousClock::time_point deadline);
  friend SleepAwaiter sleepUntil(SuspendingClock::time_point deadline);
  friend SleepAwaiter sleepUntilOrCancelled(ContinuousClock::time_point deadline);

  enum class ClockKind : std::uint8_t { continuous, suspending };

  struct Record : detail::CancellationRecord {
    explicit Record(SleepAwaiter& owner) noexcept
        : detail::CancellationRecord(&SleepAwaiter::onCancel), owner(owner) {}
    SleepAwaiter& owner;
  };

  SleepAwaiter(ClockKind clock, std::int64_t deadline, bool throwsOnCancel = true);
  void start(detail::TaskContext& context, std::coroutine_handle<> handle);
  void fired() noexcept;
  static void onCancel(detail::CancellationRecord& record) noexcept;
  void resume() noexcept;

  ClockKind clock_;
  bool ready_ = false;
  bool registered_ = false;
  bool throwsOnCancel_;
  bool cancelledAtCreation_ = false;
  std::int64_t deadline_;
  // Bits of who has done what; the party that completes "armed" and "decided" resumes the task.
  std::atomic<std::uint32_t> state_{0};
  detail::TaskContext* context_ = nullptr;
  std::coroutine_handle<> handle_;
  TimerService::Entry entry_{};
  Record record_{*this};
};

/// Sleeps until `deadline` of the continuous clock has passed.
SleepAwaiter sleepUntil(ContinuousClock::time_point deadline);
/// Sleeps until `deadline` of the suspending clock has passed.
SleepAwaiter sleepUntil(SuspendingClock::time_point deadline);

/// As `sleepUntil` on the continuous clock, for code to which cancellation is an ordinary outcome:
/// `co_await` returns false instead of throwing CancellationError (also in a task that is already
/// cancelled), so nothing is thrown on a path that every cancelled timer takes.
SleepAwaiter sleepUntilOrCancelled(ContinuousClock::time_point deadline);

/// Sleeps for `duration` on the continuous clock (zero or negative: no suspension, but a cancelled
/// task still throws). Very long durations are clamped to the clock's range.
SleepAwaiter sleep(ContinuousClock::duration duration);

}  // namespace carrow
