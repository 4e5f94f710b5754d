#pragma once

#include <optional>

#include <carrow/runtime/actor.h>
#include <carrow/runtime/async.h>
#include <carrow/runtime/async_stream.h>
#include <carrow/runtime/clock.h>
#include <carrow/runtime/sleep.h>

namespace carrow {

/// What one step of the poll stream saw.
enum class PollResult { poll, cancelled };

namespace detail {

inline Async<std::optional<PollResult>> pollStep(ContinuousClock::Duration every) {
  co_await MainActor::shared().enter();
  try {
    co_await sleep(every);
  } catch (...) {
    co_return PollResult::cancelled;
  }
  co_return PollResult::poll;
}

}  // namespace detail

/// An endless stream that ticks `poll` once per `every` (sleeping on the main actor) and reports
/// the consuming task's cancellation as `cancelled`.
inline AsyncStream<PollResult> pollStream(ContinuousClock::Duration every) {
  return AsyncStream<PollResult>::unfolding([every] { return detail::pollStep(every); });
}

}  // namespace carrow
