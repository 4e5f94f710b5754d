#pragma once

#include <carrow/runtime/detail/basic_stream.h>
#include <carrow/runtime/stream_termination.h>

namespace carrow {

/// An asynchronous sequence of `T` that may end with an error, in one of two forms.
///
/// Unfolding: `AsyncThrowingStream<T>::unfolding(produce)` runs the step `produce()` once per
/// `next` (nothing is produced ahead); a step that yields std::nullopt ends the stream, and one
/// that throws ends it with that error, which `next` throws once before reading the end.
///
/// Continuation-fed: `auto [stream, continuation] = AsyncThrowingStream<T>::makeStream();` (or
/// the constructor taking a `build(continuation)` callable). Producers on any thread call
/// `continuation.yield(value)`, then `finish()` or `finish(error)`; elements are buffered without
/// bound until the consumer reads them. The handler set with `setOnTermination` runs exactly once:
/// when the stream is finished, or when the consumer goes away (its iterator, or every copy of the
/// stream when no iterator is alive, is dropped; or its task is cancelled while it reads).
///
/// A stream has a single consumer: its iterators are read, and dropped, by one task at a time
/// (awaiting `next` from two tasks at once stops the process). A consumer whose task is cancelled
/// reads the end (not an error) and ends the stream, dropping any buffered elements. The consumer
/// takes buffered elements over in batches, so a busy producer rarely meets it on the lock.
///
///   auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
///   continuation.setOnTermination([](auto termination) { /* stop producing */ });
///   auto iterator = stream.makeAsyncIterator();
///   while (auto value = co_await iterator.next()) use(*value);
template <class T>
using AsyncThrowingStream = detail::BasicStream<T, true>;

}  // namespace carrow
