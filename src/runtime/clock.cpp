#include <time.h>

#include <carrow/runtime/clock.h>

namespace carrow {
namespace {

std::chrono::nanoseconds readClock(clockid_t clock) noexcept {
  timespec now{};
  clock_gettime(clock, &now);  // Cannot fail for these clocks on Linux.
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

}  // namespace

ContinuousClock::time_point ContinuousClock::now() noexcept {
  return time_point(readClock(CLOCK_BOOTTIME));
}

SuspendingClock::time_point SuspendingClock::now() noexcept {
  return time_point(readClock(CLOCK_MONOTONIC));
}

}  // namespace carrow
