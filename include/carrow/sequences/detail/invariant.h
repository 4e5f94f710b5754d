#pragma once

// How the combinators' state machines stop the process. A transition that meets a state its
// callers can never produce is a bug in the library, not in the caller, so it stops at once and
// without a message (the core dump and the stack say where). The one stop a caller can provoke
// (two consumers on one iterator) goes through `fatalError` with a message instead.

#include <cstdlib>
#include <string_view>

#include <carrow/platform/fatal_error.h>

namespace carrow::detail {

/// Stops the process: a combinator's internal invariant is broken.
[[noreturn]] inline void sequenceInvariantBroken() noexcept {
  std::abort();
}

/// Stops the process because `next()` was awaited on an iterator whose previous `next()` is
/// still waiting, which only copies of one iterator used from two tasks can do.
[[noreturn]] inline void concurrentNext(std::string_view combinator) noexcept {
  std::string_view message = "next() awaited while another next() on the same iterator is waiting";
  fatalError(combinator, __LINE__, message);
}

}  // namespace carrow::detail
