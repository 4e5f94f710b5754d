#include <optional>

#include <carrow/runtime/actor.h>
#include <carrow/runtime/sleep.h>
#include <carrow/sequences/poll_stream.h>

namespace carrow {
namespace {

Async<std::optional<PollResult>> pollStep(ContinuousClock::Duration every) {
  co_await MainActor::shared().enter();
  try {
    co_await sleep(every);
  } catch (...) {
    // Only a cancelled task makes the sleep throw; the poll stream reports that as a value.
    co_return PollResult::cancelled;
  }
  co_return PollResult::poll;
}

Async<std::optional<std::monostate>> tickStep(ContinuousClock::Duration every) {
  co_await MainActor::shared().enter();
  co_await sleep(every);  // a cancellation error ends the stream with it
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
