#pragma once

// Timer streams: a sequence that ticks once per interval, for code that races some work against a
// time limit (merge the work's outcome with a poll stream and take the first event).
//
//   auto polls = carrow::pollStream(std::chrono::milliseconds(50)).makeAsyncIterator();
//   while (auto event = co_await polls.next()) {
//     if (*event == carrow::PollResult::cancelled) break;
//     checkSomething();
//   }
//
// Both streams are unfolding streams: each `next()` runs one step, and nothing ticks while nobody
// reads. A step hops to the main actor and sleeps there on the continuous clock (a timer entry,
// not a thread), so a consumer elsewhere hops there and back at every tick. Like every stream,
// each has one consumer; make one stream per consumer.

#include <variant>

#include <carrow/runtime/async_stream.h>
#include <carrow/runtime/async_throwing_stream.h>
#include <carrow/runtime/clock.h>

namespace carrow {

/// What one step of a poll stream reports. Equality and `std::hash` work as for any enumeration.
enum class PollResult {
  poll,       ///< an interval has elapsed
  cancelled,  ///< the consuming task is cancelled
};

/// An endless stream that yields `poll` each time `every` has elapsed since its `next()` was
/// awaited. Cancellation of the consuming task is reported as the value `cancelled` (never as an
/// error or the end); once cancelled, every later `next()` yields `cancelled` at once.
AsyncStream<PollResult> pollStream(ContinuousClock::Duration every);

/// The same timer as a throwing stream of empty values: each `next()` yields `std::monostate{}`
/// once `every` has elapsed. Cancellation of the consuming task throws CancellationError from
/// `next()` (once; then the stream reads as ended).
AsyncThrowingStream<std::monostate> tickStream(ContinuousClock::Duration every);

}  // namespace carrow
