#pragma once

// Replaying a fixed list of values on a timer, over and over, for example to rotate through
// status messages.
//
//   auto messages = carrow::cycle(std::vector<std::string>{"Backing up", "Still working"},
//                                 std::chrono::seconds(5));

#include <exception>
#include <optional>
#include <ranges>
#include <utility>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_throwing_stream.h>
#include <carrow/runtime/clock.h>
#include <carrow/runtime/sleep.h>
#include <carrow/runtime/task.h>
#include <carrow/runtime/task_priority.h>

namespace carrow {
namespace detail {

template <class Sequence>
Async<void> runCycle(
    typename AsyncThrowingStream<std::ranges::range_value_t<Sequence>>::Continuation continuation,
    Sequence sequence, ContinuousClock::Duration every) {
  for (;;) {
    bool yielded = false;
    for (auto&& element : sequence) {
      yielded = true;
      try {
        co_await sleepUntil(ContinuousClock::now() + every);
      } catch (...) {
        continuation.finish(std::current_exception());
        co_return;
      }
      continuation.yield(element);  // a consumer that has gone away only makes this a no-op
    }
    if (!yielded) {
      // Nothing to replay: restarting would spin without ever suspending.
      continuation.finish();
      co_return;
    }
  }
}

}  // namespace detail

/// A stream that yields the elements of `sequence` (an ordinary range, copied) one per `every`,
/// starting again from the beginning after the last one, for ever. A task started at once (with
/// `priority`, or the caller's) produces them into the stream's unbounded buffer.
///
/// The stream ends only by an error: when the producer's task is cancelled, the stream throws
/// CancellationError after the elements already buffered. Dropping the stream's consumer, or
/// cancelling its task while it reads, cancels the producer, so no timer outlives its consumer.
/// An empty `sequence` gives a stream that ends at once.
template <std::ranges::input_range Sequence>
AsyncThrowingStream<std::ranges::range_value_t<Sequence>> cycle(
    Sequence sequence, ContinuousClock::Duration every,
    std::optional<TaskPriority> priority = std::nullopt) {
  using Stream = AsyncThrowingStream<std::ranges::range_value_t<Sequence>>;
  auto pair = Stream::makeStream();
  auto body = [continuation = pair.continuation, sequence = std::move(sequence), every]() mutable {
    return detail::runCycle(std::move(continuation), std::move(sequence), every);
  };
  Task<void> producer =
      priority ? Task<void>::start(*priority, std::move(body)) : Task<void>::start(std::move(body));
  pair.continuation.setOnTermination([producer](StreamTermination) { producer.cancel(); });
  return std::move(pair.stream);
}

}  // namespace carrow
