#pragma once

// Type-erased asynchronous sequences: they let code pass a sequence around by its element type
// alone. `AnyAsyncSequence` never throws (an error of the hidden sequence reads as its end);
// `AnyAsyncThrowingSequence` passes errors on unchanged.

#include <concepts>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_sequence.h>

namespace carrow {
namespace detail {

/// An asynchronous iterator of hidden type behind a virtual `next`.
template <class Element>
class ErasedAsyncIterator {
 public:
  virtual ~ErasedAsyncIterator() = default;
  /// The wrapped iterator's next element; `swallowErrors` turns its errors into the end.
  virtual Async<std::optional<Element>> next(bool swallowErrors) = 0;
};

template <class Element, class Iterator>
class ErasedAsyncIteratorBox final : public ErasedAsyncIterator<Element> {
 public:
  explicit ErasedAsyncIteratorBox(Iterator iterator) : iterator_(std::move(iterator)) {}

  Async<std::optional<Element>> next(bool swallowErrors) override {
    // The wrapped iterator is kept after an error: a later call asks it again.
    std::optional<AsyncIteratorElement<Iterator>> element;
    if (swallowErrors) {
      try {
        element = co_await iterator_.next();
      } catch (...) {
        co_return std::nullopt;
      }
    } else {
      element = co_await iterator_.next();
    }
    if (!element) co_return std::nullopt;
    co_return std::optional<Element>(std::in_place, std::move(*element));
  }

 private:
  Iterator iterator_;
};

template <class Element, class Iterator>
std::unique_ptr<ErasedAsyncIterator<Element>> boxIterator(Iterator iterator) {
  return std::make_unique<ErasedAsyncIteratorBox<Element, Iterator>>(std::move(iterator));
}

/// Makes an iterator of `sequence` without changing it, so one builder may be called from
/// several tasks at once. A sequence whose `makeAsyncIterator` is not const is copied first.
template <class Sequence>
auto makeIteratorOf(const Sequence& sequence) {
  if constexpr (requires { sequence.makeAsyncIterator(); }) {
    return sequence.makeAsyncIterator();
  } else {
    Sequence copy = sequence;
    return copy.makeAsyncIterator();
  }
}

template <class Element>
Async<std::optional<Element>> endOfSequence() {
  co_return std::nullopt;
}

}  // namespace detail

/// An asynchronous iterator that can be moved into a box.
template <class I>
concept MovableAsyncIterator = AsyncIterator<I> && std::move_constructible<I>;

/// A movable asynchronous iterator whose elements convert to `Element`.
template <class I, class Element>
concept AsyncIteratorConvertibleTo =
    MovableAsyncIterator<I> && std::constructible_from<Element, AsyncIteratorElement<I>>;

/// A copyable asynchronous sequence.
template <class S>
concept CopyableAsyncSequence = AsyncSequence<S> && std::copy_constructible<S>;

/// A copyable asynchronous sequence whose elements convert to `Element`.
template <class S, class Element>
concept AsyncSequenceConvertibleTo =
    CopyableAsyncSequence<S> && AsyncIteratorConvertibleTo<AsyncSequenceIterator<S>, Element>;

namespace detail {

// What an erased type can wrap: anything fitting except itself, which it copies instead. The
// exclusion comes first so that checking a copy never recurses into these constraints.
template <class I, class Element, class Self>
concept ErasableIterator =
    !std::same_as<std::remove_cvref_t<I>, Self> && AsyncIteratorConvertibleTo<I, Element>;
template <class S, class Element, class Self>
concept ErasableSequence =
    !std::same_as<std::remove_cvref_t<S>, Self> && AsyncSequenceConvertibleTo<S, Element>;

}  // namespace detail

/// A sequence of `Element` of hidden type that never throws: an error of the wrapped sequence ends
/// the iteration instead. Copies share the wrapped sequence.
template <class Element>
class AnyAsyncSequence {
 public:
  /// An iterator of hidden type; it belongs to the one task that iterates it.
  class Iterator {
   public:
    /// Boxes any asynchronous iterator whose elements convert to `Element`.
    template <detail::ErasableIterator<Element, Iterator> I>
    explicit Iterator(I iterator) : iterator_(detail::boxIterator<Element>(std::move(iterator))) {}

    /// The next element, or the end, which also stands for an error of the wrapped iterator (the
    /// error is dropped; the wrapped iterator is kept and asked again by the next call).
    /// Never throws.
    Async<std::optional<Element>> next() {
      if (!iterator_) return detail::endOfSequence<Element>();
      return iterator_->next(true);
    }

   private:
    std::unique_ptr<detail::ErasedAsyncIterator<Element>> iterator_;
  };

  /// Wraps `sequence` (a copy of an erased sequence of the same type is a copy, not a wrapper);
  /// each `makeAsyncIterator()` starts a new iteration of it.
  template <detail::ErasableSequence<Element, AnyAsyncSequence> S>
  explicit AnyAsyncSequence(S sequence) {
    auto base = std::make_shared<const S>(std::move(sequence));
    base_ = base;
    iteratorBuilder_ = [captured = *base] { return Iterator(detail::makeIteratorOf(captured)); };
  }

  /// A new, independent iteration of the wrapped sequence.
  Iterator makeAsyncIterator() const { return iteratorBuilder_(); }

 private:
  std::shared_ptr<const void> base_;  // the wrapped sequence, kept for the life of the value
  std::function<Iterator()> iteratorBuilder_;
};

/// A sequence of `Element` of hidden type whose errors pass through unchanged.
template <class Element>
class AnyAsyncThrowingSequence {
 public:
  /// An iterator of hidden type; it belongs to the one task that iterates it.
  class Iterator {
   public:
    /// Boxes any asynchronous iterator whose elements convert to `Element`.
    template <detail::ErasableIterator<Element, Iterator> I>
    explicit Iterator(I iterator) : iterator_(detail::boxIterator<Element>(std::move(iterator))) {}

    /// The next element or the end; an error of the wrapped iterator is thrown on unchanged (the
    /// wrapped iterator is kept and asked again by the next call).
    Async<std::optional<Element>> next() {
      if (!iterator_) return detail::endOfSequence<Element>();
      return iterator_->next(false);
    }

   private:
    std::unique_ptr<detail::ErasedAsyncIterator<Element>> iterator_;
  };

  /// Wraps `sequence` (a copy of an erased sequence of the same type is a copy, not a wrapper);
  /// each `makeAsyncIterator()` starts a new iteration of it.
  template <detail::ErasableSequence<Element, AnyAsyncThrowingSequence> S>
  explicit AnyAsyncThrowingSequence(S sequence)
      : iteratorBuilder_([captured = std::move(sequence)] {
          return Iterator(detail::makeIteratorOf(captured));
        }) {}

  /// A new, independent iteration of the wrapped sequence.
  Iterator makeAsyncIterator() const { return iteratorBuilder_(); }

 private:
  std::function<Iterator()> iteratorBuilder_;
};

}  // namespace carrow
