#pragma once

#include <cerrno>
#include <chrono>
#include <cmath>
#include <exception>
#include <system_error>
#include <utility>

#include <carrow/runtime/clock.h>

namespace carrow {

/// How long a caller waits for shared work before giving up, and what it throws then.
///
/// - `throwAfter(seconds, error)`: wait at most `seconds`, then throw `error`.
/// - `indefinite()`: no practical limit. Where a limit is still needed it is 2147483647 seconds
///   (about 68 years), and the error at expiry is a POSIX-domain `std::system_error` with code
///   `ETIMEDOUT` in `std::generic_category()`. The platform this library first ran on used its own
///   code 85 here; on Linux 85 is `ERESTART` (an interrupted system call to restart), which
///   callers would misread, so the library uses the code that says what happened: the wait timed
///   out.
///
/// A regular value type; copies share the error object. Negative or NaN seconds mean "no wait"
/// (the limit has passed at once); limits beyond the clock's range are clamped to it.
class LockWait {
 public:
  enum class Kind { throwAfter, indefinite };

  /// The limit of `indefinite()`, in seconds.
  static constexpr double kIndefiniteSeconds = 2147483647.0;

  /// Wait at most `seconds`, then throw `error` (which must not be null).
  static LockWait throwAfter(double seconds, std::exception_ptr error) {
    return LockWait(Kind::throwAfter, seconds, std::move(error));
  }
  /// Wait at most `seconds`, then throw a copy of `error`.
  template <class Error>
  static LockWait throwAfter(double seconds, Error error) {
    return throwAfter(seconds, std::make_exception_ptr(std::move(error)));
  }
  /// No practical limit (see the class comment).
  static LockWait indefinite() noexcept {
    return LockWait(Kind::indefinite, kIndefiniteSeconds, {});
  }

  Kind kind() const noexcept { return kind_; }

  /// The limit in seconds (`kIndefiniteSeconds` for `indefinite`).
  double seconds() const noexcept { return seconds_; }

  /// The limit as a duration of the continuous clock.
  ContinuousClock::Duration duration() const noexcept { return durationOf(seconds_); }

  /// The error to throw when the limit has passed.
  std::exception_ptr error() const noexcept {
    return kind_ == Kind::indefinite ? indefiniteExpiry() : error_;
  }

  /// `seconds` as a duration: NaN and negative values give zero, huge ones the clock's maximum.
  static ContinuousClock::Duration durationOf(double seconds) noexcept {
    using Duration = ContinuousClock::Duration;
    if (!(seconds > 0)) return Duration::zero();
    const double nanoseconds = seconds * 1e9;
    if (nanoseconds >= static_cast<double>(Duration::max().count())) return Duration::max();
    return Duration(static_cast<Duration::rep>(nanoseconds));
  }

 private:
  // One error object for every indefinite wait, made on first use: rethrowing it never changes
  // it, and waits that never expire (nearly all of them) do not touch its shared count.
  static std::exception_ptr indefiniteExpiry() noexcept {
    static const std::exception_ptr expired =
        std::make_exception_ptr(std::system_error(ETIMEDOUT, std::generic_category()));
    return expired;
  }

  LockWait(Kind kind, double seconds, std::exception_ptr error)
      : kind_(kind), seconds_(seconds), error_(std::move(error)) {}

  Kind kind_;
  double seconds_;
  std::exception_ptr error_;
};

}  // namespace carrow
