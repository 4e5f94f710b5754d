#pragma once

// Acting on the first element of an asynchronous sequence, for example to note when a stream of
// updates has started delivering.

#include <memory>
#include <utility>

#include <carrow/concurrency/atomic.h>
#include <carrow/runtime/async_sequence.h>
#include <carrow/sequences/map.h>

namespace carrow {
namespace detail {

template <class Action>
struct OnFirstTransform {
  std::shared_ptr<AtomicBox<bool>> isFirst;
  Action action;

  template <class Element>
  Element operator()(Element element) {
    // Read, act, then clear: two iterations that reach their first element at the same moment
    // may both act, which is the price of not holding a lock around the caller's action.
    if (isFirst->value()) {
      action(static_cast<const Element&>(element));
      isFirst->setValue(false);
    }
    return element;
  }
};

}  // namespace detail

/// `base` unchanged, except that `action` (a synchronous callable taking `const Element&`) is
/// called with the first element before it is passed on. The first-element flag belongs to the
/// returned sequence and is shared by its copies and iterations: the action runs for the first
/// element of whichever iteration reads one first, not once per iteration.
template <AsyncSequence Base, class Action>
auto onFirst(Base base, Action action) {
  detail::OnFirstTransform<Action> transform{std::make_shared<AtomicBox<bool>>(true),
                                             std::move(action)};
  return map(std::move(base), std::move(transform));
}

}  // namespace carrow
