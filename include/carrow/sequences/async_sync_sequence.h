#pragma once

// An ordinary range seen as an asynchronous sequence. Reading it never suspends; it exists so that
// code written against asynchronous sequences (the combinators, the erased sequences) can take a
// fixed list of elements. It stops early when the consuming task is cancelled, because a consumer
// that loops over it would otherwise never reach a suspension point that notices.

#include <memory>
#include <optional>
#include <ranges>
#include <type_traits>
#include <utility>

#include <carrow/runtime/async_sequence.h>
#include <carrow/runtime/cancellation.h>

namespace carrow {

/// The asynchronous view of a range (`asAsync(range)`). It keeps its own copy of the range, which
/// its iterators share, so an iterator may outlive the sequence it came from. It never throws.
template <std::ranges::input_range Base>
class AsyncSyncSequence {
 public:
  using Element = std::ranges::range_value_t<Base>;

  /// Reads `base` one element per `next()`.
  class Iterator {
   public:
    /// The next element, or the end. The end is final: once the range is exhausted, or the
    /// current task was found cancelled, every later call yields the end too.
    ReadyAwaitable<std::optional<Element>> next() {
      if (isCancelled()) iterator_.reset();
      if (!iterator_) return ReadyAwaitable<std::optional<Element>>(std::nullopt);
      if (iterator_->current == iterator_->end) {
        iterator_.reset();
        return ReadyAwaitable<std::optional<Element>>(std::nullopt);
      }
      std::optional<Element> element(*iterator_->current);
      ++iterator_->current;
      return ReadyAwaitable<std::optional<Element>>(std::move(element));
    }

   private:
    friend class AsyncSyncSequence;
    struct Position {
      std::shared_ptr<Base> base;  // keeps the range alive under its iterators
      std::ranges::iterator_t<Base> current;
      std::ranges::sentinel_t<Base> end;
    };
    explicit Iterator(std::shared_ptr<Base> base) {
      Base& range = *base;
      iterator_.emplace(
          Position{std::move(base), std::ranges::begin(range), std::ranges::end(range)});
    }

    std::optional<Position> iterator_;
  };

  explicit AsyncSyncSequence(Base base) : base_(std::make_shared<Base>(std::move(base))) {}

  /// A new iteration from the start of the range.
  Iterator makeAsyncIterator() const { return Iterator(base_); }

  /// The wrapped range.
  const Base& base() const noexcept { return *base_; }

 private:
  std::shared_ptr<Base> base_;
};

/// The asynchronous view of `range`, which is copied (or moved) into the sequence. Named `asAsync`
/// rather than `async` so that an unqualified call on a standard container cannot pick up
/// `std::async` by argument-dependent lookup.
template <std::ranges::input_range Range>
AsyncSyncSequence<std::remove_cvref_t<Range>> asAsync(Range&& range) {
  return AsyncSyncSequence<std::remove_cvref_t<Range>>(std::forward<Range>(range));
}

}  // namespace carrow
