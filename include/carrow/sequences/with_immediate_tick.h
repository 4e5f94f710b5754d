#pragma once

// A timer that fires at once and then at its own pace: for loops that should do their first round
// now rather than after the first interval.
//
//   auto ticks = carrow::withImmediateTick(carrow::tickStream(std::chrono::seconds(30)));

#include <variant>

#include <carrow/runtime/async_sequence.h>
#include <carrow/sequences/any_async_sequence.h>
#include <carrow/sequences/prepend.h>

namespace carrow {

/// `ticks` (a sequence of empty values, such as a tick stream) with one empty value in front,
/// type-erased. The first `next()` returns at once; later ones come from `ticks`, whose errors
/// (a tick stream's cancellation) pass through.
template <AsyncSequenceOf<std::monostate> Ticks>
AnyAsyncThrowingSequence<std::monostate> withImmediateTick(Ticks ticks) {
  return AnyAsyncThrowingSequence<std::monostate>(prepend(std::move(ticks), std::monostate{}));
}

}  // namespace carrow
