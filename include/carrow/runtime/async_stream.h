#pragma once

#include <carrow/runtime/detail/basic_stream.h>
#include <carrow/runtime/stream_termination.h>

namespace carrow {

/// An asynchronous sequence of `T` that never throws, in the same two forms as
/// AsyncThrowingStream (see async_throwing_stream.h):
///
/// - `AsyncStream<T>::unfolding(produce)`: `produce()` runs once per `next`, nothing is produced
///   ahead, and a step that yields std::nullopt ends the stream. A step must not throw; if it does,
///   the stream ends (its `next` cannot report errors).
/// - `AsyncStream<T>::makeStream()` or the `build(continuation)` constructor: the continuation's
///   `yield` and `finish()` feed an unbounded buffer; `setOnTermination` as for the throwing form.
template <class T>
using AsyncStream = detail::BasicStream<T, false>;

}  // namespace carrow
