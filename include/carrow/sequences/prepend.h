#pragma once

// Putting one element in front of an asynchronous sequence.
//
//   auto withCurrent = carrow::prepend(updates, currentValue);
//   auto withLoaded = carrow::prependProducing(updates, []() -> carrow::Async<Value> {
//     co_return co_await load();
//   });
//
// The producing form has its own name rather than a `prepend` overload, so that prepending an
// element that happens to be callable is never mistaken for a producer.

#include <exception>
#include <optional>
#include <type_traits>
#include <utility>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_sequence.h>

namespace carrow {
namespace detail {

/// The first element of `prepend`, awaitable like the result of a producer.
template <class Element>
struct PrependedElement {
  Element element;
  ReadyAwaitable<Element> operator()() const { return ReadyAwaitable<Element>(element); }
};

}  // namespace detail

/// `base` with one element in front, produced by `First` (a callable whose result is awaited to
/// give the element). Each `makeAsyncIterator()` produces the first element again and starts a
/// new iteration of `base`.
template <AsyncSequence Base, class First>
class AsyncPrependSequence {
 public:
  using Element = AsyncSequenceElement<Base>;

  /// One iteration, in the consuming task. Its first `next()` yields the first element; the
  /// following ones the base's elements. An error (of the producer or of the base) is thrown
  /// once and ends the iteration: every later `next()` returns std::nullopt.
  class AsyncIterator {
   public:
    Async<std::optional<Element>> next() {
      if (finished_) co_return std::nullopt;
      try {
        if (first_) {
          First first = std::move(*first_);  // kept in this frame while its result is awaited
          first_.reset();
          Element element = co_await first();
          co_return element;
        }
        auto element = co_await base_.next();
        if (!element) finished_ = true;
        co_return element;
      } catch (...) {
        finished_ = true;
        throw;
      }
    }

   private:
    friend class AsyncPrependSequence;
    AsyncIterator(First first, AsyncSequenceIterator<Base> base)
        : first_(std::in_place, std::move(first)), base_(std::move(base)) {}

    std::optional<First> first_;
    AsyncSequenceIterator<Base> base_;
    bool finished_ = false;
  };

  AsyncPrependSequence(Base base, First first) : base_(std::move(base)), first_(std::move(first)) {}

  AsyncIterator makeAsyncIterator() const {
    Base base = base_;
    return AsyncIterator(first_, base.makeAsyncIterator());
  }

 private:
  Base base_;
  First first_;
};

/// `element`, then the elements of `base`.
template <AsyncSequence Base, class Element>
requires std::constructible_from<AsyncSequenceElement<Base>, Element>
auto prepend(Base base, Element element) {
  using First = detail::PrependedElement<AsyncSequenceElement<Base>>;
  return AsyncPrependSequence<Base, First>(std::move(base),
                                           First{AsyncSequenceElement<Base>(std::move(element))});
}

/// The result of awaiting `producer()` (a callable returning `Async<Element>`), then the elements
/// of `base`. The producer runs in the consuming task at the first `next()` of each iteration.
template <AsyncSequence Base, class Producer>
requires std::same_as<std::invoke_result_t<Producer&>, Async<AsyncSequenceElement<Base>>>
auto prependProducing(Base base, Producer producer) {
  return AsyncPrependSequence<Base, Producer>(std::move(base), std::move(producer));
}

}  // namespace carrow
