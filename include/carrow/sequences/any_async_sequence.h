#pragma once

// Type-erased asynchronous sequences: they let code pass a sequence around by its element type
// alone. `AnyAsyncSequence` never throws (an error of the hidden sequence reads as its end);
// `AnyAsyncThrowingSequence` passes errors on unchanged.

#include <concepts>
#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_sequence.h>

namespace carrow {
namespace detail {

/// What an erased iterator does with an error of the iterator it wraps.
enum class OnError {
  end,     // drops the error and reads it as the end
  rethrow  // throws it on unchanged
};

/// An asynchronous iterator of hidden type behind a virtual `next`.
template <class Element>
class ErasedAsyncIterator {
 public:
  virtual ~ErasedAsyncIterator() = default;
  /// The wrapped iterator's next element; its errors are handled as `onError` says.
  virtual Async<std::optional<Element>> next(OnError onError) = 0;
};

template <class Element, class Iterator>
class ErasedAsyncIteratorBox final : public ErasedAsyncIterator<Element> {
 public:
  explicit ErasedAsyncIteratorBox(Iterator iterator) : iterator_(std::move(iterator)) {}

  Async<std::optional<Element>> next(OnError onError) override {
    // The wrapped iterator is kept after an error: a later call asks it again. One await site
    // only: each site keeps its own awaiter in this frame, and an iterator's awaiter may be large.
    std::optional<AsyncIteratorElement<Iterator>> element;
    try {
      element = co_await iterator_.next();
    } catch (...) {
      if (onError != OnError::end) throw;
      co_return std::nullopt;
    }
    if constexpr (std::is_same_v<AsyncIteratorElement<Iterator>, Element>) {
      co_return std::move(element);
    } else {
      if (!element) co_return std::nullopt;
      co_return std::optional<Element>(std::in_place, std::move(*element));
    }
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

/// The iterator of both erased sequences: it owns one boxed iterator of hidden type and belongs
/// to the one task that iterates it. The wrapped iterator is kept after an error, so the next call
/// asks it again.
template <class Element, OnError onError>
class AnyAsyncIterator {
 public:
  /// Boxes any asynchronous iterator whose elements convert to `Element`.
  template <ErasableIterator<Element, AnyAsyncIterator> I>
  explicit AnyAsyncIterator(I iterator) : iterator_(boxIterator<Element>(std::move(iterator))) {}

  /// The next element or the end; an error of the wrapped iterator is handled as `onError` says.
  Async<std::optional<Element>> next() {
    if (!iterator_) return endOfSequence<Element>();
    return iterator_->next(onError);
  }

 private:
  std::unique_ptr<ErasedAsyncIterator<Element>> iterator_;
};

/// A sequence of hidden type behind a virtual iterator maker. Held by `std::shared_ptr<const>`,
/// so copies of an erased sequence share one wrapped sequence.
template <class Element, OnError onError>
class ErasedAsyncSequence {
 public:
  virtual ~ErasedAsyncSequence() = default;
  virtual AnyAsyncIterator<Element, onError> makeIterator() const = 0;
};

template <class Element, OnError onError, class Sequence>
class ErasedAsyncSequenceBox final : public ErasedAsyncSequence<Element, onError> {
 public:
  explicit ErasedAsyncSequenceBox(Sequence sequence) : sequence_(std::move(sequence)) {}

  AnyAsyncIterator<Element, onError> makeIterator() const override {
    return AnyAsyncIterator<Element, onError>(makeIteratorOf(sequence_));
  }

 private:
  Sequence sequence_;
};

template <class Element, OnError onError, class Sequence>
std::shared_ptr<const ErasedAsyncSequence<Element, onError>> boxSequence(Sequence sequence) {
  return std::make_shared<const ErasedAsyncSequenceBox<Element, onError, Sequence>>(
      std::move(sequence));
}

}  // namespace detail

/// A sequence of `Element` of hidden type that never throws: an error of the wrapped sequence ends
/// the iteration instead.
///
/// The value is one shared pointer: wrapping allocates once, and copies share the wrapped
/// sequence, which is never changed (each iteration works on an iterator of its own, made from a
/// copy of the sequence when the sequence's `makeAsyncIterator` is not const). Copies may be used
/// from several tasks at once; a moved-from value may only be assigned to or destroyed.
template <class Element>
class AnyAsyncSequence {
 public:
  /// An iterator of hidden type; it belongs to the one task that iterates it. Its `next()` never
  /// throws: an error of the wrapped iterator is dropped and reads as the end.
  using Iterator = detail::AnyAsyncIterator<Element, detail::OnError::end>;

  /// Wraps `sequence` (a copy of an erased sequence of the same type is a copy, not a wrapper);
  /// each `makeAsyncIterator()` starts a new iteration of it.
  template <detail::ErasableSequence<Element, AnyAsyncSequence> S>
  explicit AnyAsyncSequence(S sequence)
      : sequence_(detail::boxSequence<Element, detail::OnError::end>(std::move(sequence))) {}

  /// A new, independent iteration of the wrapped sequence.
  Iterator makeAsyncIterator() const { return sequence_->makeIterator(); }

 private:
  std::shared_ptr<const detail::ErasedAsyncSequence<Element, detail::OnError::end>> sequence_;
};

/// A sequence of `Element` of hidden type whose errors pass through unchanged. Copies share the
/// wrapped sequence, as those of `AnyAsyncSequence` do.
template <class Element>
class AnyAsyncThrowingSequence {
 public:
  /// An iterator of hidden type; it belongs to the one task that iterates it. Its `next()` throws
  /// an error of the wrapped iterator on unchanged.
  using Iterator = detail::AnyAsyncIterator<Element, detail::OnError::rethrow>;

  /// Wraps `sequence` (a copy of an erased sequence of the same type is a copy, not a wrapper);
  /// each `makeAsyncIterator()` starts a new iteration of it.
  template <detail::ErasableSequence<Element, AnyAsyncThrowingSequence> S>
  explicit AnyAsyncThrowingSequence(S sequence)
      : sequence_(detail::boxSequence<Element, detail::OnError::rethrow>(std::move(sequence))) {}

  /// A new, independent iteration of the wrapped sequence.
  Iterator makeAsyncIterator() const { return sequence_->makeIterator(); }

 private:
  std::shared_ptr<const detail::ErasedAsyncSequence<Element, detail::OnError::rethrow>> sequence_;
};

}  // namespace carrow
