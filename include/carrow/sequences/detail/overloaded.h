#pragma once

// `std::visit(Overloaded{[](A&) {...}, [](B&) {...}}, action)`: one lambda per case of an action.

#include <exception>

#include <carrow/runtime/cancellation_error.h>

namespace carrow::detail {

template <class... Cases>
struct Overloaded : Cases... {
  using Cases::operator()...;
};
template <class... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>;

/// Resumes each continuation of `list` (an InlineList) with a new CancellationError, in order:
/// how the combinators stop children that wait for demand.
template <class List>
void cancelUpstreamContinuations(List& list) {
  list.forEach([](auto& continuation) {
    continuation.resumeThrowing(std::make_exception_ptr(CancellationError()));
  });
}

}  // namespace carrow::detail
