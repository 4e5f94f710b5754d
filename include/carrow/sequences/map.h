#pragma once

#include <optional>
#include <type_traits>
#include <utility>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_sequence.h>

namespace carrow {

/// The elements of `Base` passed through a synchronous transform.
template <AsyncSequence Base, class Transform>
class AsyncMapSequence {
 public:
  using Element = std::remove_cvref_t<std::invoke_result_t<Transform&, AsyncSequenceElement<Base>>>;

  class Iterator {
   public:
    Iterator(AsyncSequenceIterator<Base> base, Transform transform)
        : base_(std::move(base)), transform_(std::move(transform)) {}

    Async<std::optional<Element>> next() {
      auto element = co_await base_.next();
      if (!element) co_return std::nullopt;
      co_return std::optional<Element>(transform_(std::move(*element)));
    }

   private:
    AsyncSequenceIterator<Base> base_;
    Transform transform_;
  };

  AsyncMapSequence(Base base, Transform transform)
      : base_(std::move(base)), transform_(std::move(transform)) {}

  Iterator makeAsyncIterator() const {
    Base copy = base_;
    return Iterator(copy.makeAsyncIterator(), transform_);
  }

 private:
  Base base_;
  Transform transform_;
};

/// `base` with every element passed through `transform`; rethrows the base's errors.
template <AsyncSequence Base, class Transform>
auto map(Base base, Transform transform) {
  return AsyncMapSequence<Base, Transform>(std::move(base), std::move(transform));
}

}  // namespace carrow
