#include <optional>

#include <carrow/runtime/actor.h>
#include <carrow/runtime/sleep.h>
#include <carrow/sequences/poll_stream.h>

namespace carrow {
namespace {

// The interval counts from the call of `next()`, not from the moment the main actor gets to the
// step: with many timers started together, a backlog on the main actor then delays a tick by the
// time it takes to drain, instead of adding that time to every interval behind it.
ContinuousClock::time_point deadlineAfter(ContinuousClock::Duration every) {
  const auto now = ContinuousClock::now();
  if (every >= ContinuousClock::time_point::max() - now) return ContinuousClock::time_point::max();
  return now + every;
}

Async<std::optional<PollResult>> pollStep(ContinuousClock::Duration every) {
  const auto deadline = deadlineAfter(every);
  co_await MainActor::shared().enter();
  // A cancelled task ends the sleep early; the poll stream reports that as a value. Every race
  // that a poll stream times ends by cancelling it, so the sleep reports it without a throw.
  bool elapsed = false;
  try {
    elapsed = co_await sleepUntilOrCancelled(deadline);
  } catch (...) {
    // A timer that cannot be armed ends the wait the same way.
  }
  co_return elapsed ? PollResult::poll : PollResult::cancelled;
}

Async<std::optional<std::monostate>> tickStep(ContinuousClock::Duration every) {
  const auto deadline = deadlineAfter(every);
  co_await MainActor::shared().enter();
  co_await sleepUntil(deadline);  // a cancellation error ends the stream with it
  co_return std::monostate{};
}

}  // namespace

AsyncStream<PollResult> pollStream(ContinuousClock::Duration every) {
  return AsyncStream<PollResult>::unfolding([every] { return pollStep(every); });
}

AsyncThrowingStream<std::monostate> tickStream(ContinuousClock::Duration every) {
  return AsyncThrowingStream<std::monostate>::unfolding([every] { return tickStep(every); });
}

}  // namespace carrow
