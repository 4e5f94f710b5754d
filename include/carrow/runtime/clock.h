#pragma once

// The runtime's two clocks. Both are std::chrono clocks with nanosecond resolution, so their time
// points and durations work with <chrono>; their epochs are unspecified (boot), so only differences
// and comparisons are meaningful.

#include <chrono>

namespace carrow {

/// A clock that keeps counting while the machine sleeps (CLOCK_BOOTTIME on Linux). Timers and
/// waits that mean "this much real time" use it: a deadline that passes during a sleep of the
/// machine is due as soon as the machine wakes.
struct ContinuousClock {
  using rep = std::chrono::nanoseconds::rep;
  using period = std::chrono::nanoseconds::period;
  using duration = std::chrono::nanoseconds;
  using time_point = std::chrono::time_point<ContinuousClock>;
  using Duration = duration;
  using Instant = time_point;
  static constexpr bool is_steady = true;

  /// The current instant.
  static time_point now() noexcept;
};

/// A monotonic clock that stops while the machine sleeps (CLOCK_MONOTONIC on Linux): it measures
/// time the machine was awake, as std::chrono::steady_clock does on Linux.
struct SuspendingClock {
  using rep = std::chrono::nanoseconds::rep;
  using period = std::chrono::nanoseconds::period;
  using duration = std::chrono::nanoseconds;
  using time_point = std::chrono::time_point<SuspendingClock>;
  using Duration = duration;
  using Instant = time_point;
  static constexpr bool is_steady = true;

  /// The current instant.
  static time_point now() noexcept;
};

}  // namespace carrow
