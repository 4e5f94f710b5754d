#pragma once

// Iterating an asynchronous sequence with a body.
//
//   co_await carrow::forEach(events, [](Event event) -> carrow::Async<void> {
//     co_await record(event);
//   });

#include <type_traits>
#include <utility>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_sequence.h>

namespace carrow {

/// Calls `body` with each element of a new iteration of `sequence`, in order, and returns when
/// the sequence ends. `body` may return `Async<void>` (awaited before the next element is read)
/// or nothing. An error of the sequence or of the body ends the loop and is rethrown. `body` is
/// kept alive for the whole call, so a capturing coroutine lambda is safe here.
template <AsyncSequence Sequence, class Body>
Async<void> forEach(Sequence sequence, Body body) {
  auto iterator = sequence.makeAsyncIterator();
  while (auto element = co_await iterator.next()) {
    if constexpr (std::is_void_v<std::invoke_result_t<Body&, AsyncSequenceElement<Sequence>&&>>) {
      body(std::move(*element));
    } else {
      co_await body(std::move(*element));
    }
  }
}

}  // namespace carrow
