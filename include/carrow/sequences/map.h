#pragma once

// Transforming the elements of an asynchronous sequence.
//
//   auto lengths = carrow::map(names, [](const std::string& name) { return name.size(); });
//
// The transform is synchronous and runs in the consuming task, once per element, in order. The
// mapped sequence ends when the base ends and rethrows the base's errors unchanged (an error the
// transform throws reaches the consumer the same way).

#include <functional>
#include <optional>
#include <type_traits>
#include <utility>

#include <carrow/runtime/async_sequence.h>
#include <carrow/sequences/detail/mapped_awaitable.h>

namespace carrow {

/// `base` with `transform` applied to each element. A value: copies share nothing but the
/// (copied) base and transform; each `makeAsyncIterator()` makes a new iterator of the base.
template <AsyncSequence Base, class Transform>
class AsyncMapSequence {
 public:
  using BaseElement = AsyncSequenceElement<Base>;
  using Element = std::remove_cvref_t<std::invoke_result_t<Transform&, BaseElement&&>>;

  /// An iteration: each `next()` awaits the base iterator's `next()` and transforms what it
  /// yields. It adds no allocation and no suspension of its own. Belongs to one task at a time.
  class AsyncIterator {
   public:
    auto next() {
      using BaseAwaitable = decltype(std::declval<BaseIterator&>().next());
      auto apply = [transform = &transform_](std::optional<BaseElement> element) {
        return element ? std::optional<Element>(std::invoke(*transform, std::move(*element)))
                       : std::optional<Element>();
      };
      auto make = [this]() -> BaseAwaitable { return base_.next(); };
      return detail::MappedAwaitable<BaseAwaitable, decltype(apply)>(make, apply);
    }

   private:
    friend class AsyncMapSequence;
    using BaseIterator = AsyncSequenceIterator<Base>;
    AsyncIterator(BaseIterator base, Transform transform)
        : base_(std::move(base)), transform_(std::move(transform)) {}

    BaseIterator base_;
    Transform transform_;
  };

  AsyncMapSequence(Base base, Transform transform)
      : base_(std::move(base)), transform_(std::move(transform)) {}

  /// A new iteration of the base.
  AsyncIterator makeAsyncIterator() const {
    Base base = base_;
    return AsyncIterator(base.makeAsyncIterator(), transform_);
  }

 private:
  Base base_;
  Transform transform_;
};

/// `base` with each element passed through `transform`, a synchronous callable from the base's
/// element to the new element. Rethrows the base's errors.
template <AsyncSequence Base, class Transform>
auto map(Base base, Transform transform) {
  return AsyncMapSequence<Base, Transform>(std::move(base), std::move(transform));
}

}  // namespace carrow
