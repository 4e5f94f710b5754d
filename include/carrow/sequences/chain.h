#pragma once

// Chaining two asynchronous sequences: every element of the first, then every element of the
// second.
//
//   auto all = carrow::chain(cached, fetched);   // cached elements first, then fetched ones
//
// The second sequence is not read before the first has ended. An error of either is thrown once,
// and the chain then reads as ended for good, without touching the second sequence again.

#include <optional>
#include <type_traits>
#include <utility>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_sequence.h>

namespace carrow {

/// The concatenation of two asynchronous sequences with the same element type. A value that
/// stores both and reads nothing; each `makeAsyncIterator()` starts a new iteration.
template <AsyncSequence Base1, AsyncSequence Base2>
class AsyncChain2Sequence {
  static_assert(std::is_same_v<AsyncSequenceElement<Base1>, AsyncSequenceElement<Base2>>,
                "chain needs two sequences of the same element type");

 public:
  using Element = AsyncSequenceElement<Base1>;

  /// One iteration; it runs entirely in the consuming task, which it belongs to.
  class AsyncIterator {
   public:
    /// The next element of the first base, or once that has ended, of the second; std::nullopt
    /// when the second has ended (asking it again each time); rethrows an error of either base
    /// once, after which every call returns std::nullopt.
    Async<std::optional<Element>> next() {
      if (base1_) {
        std::optional<Element> element;
        try {
          element = co_await base1_->next();
        } catch (...) {
          base1_.reset();
          base2_.reset();
          throw;
        }
        if (element) co_return element;
        base1_.reset();
      }
      if (!base2_) co_return std::nullopt;
      try {
        co_return co_await base2_->next();
      } catch (...) {
        base2_.reset();
        throw;
      }
    }

   private:
    friend class AsyncChain2Sequence;
    AsyncIterator(AsyncSequenceIterator<Base1> base1, AsyncSequenceIterator<Base2> base2)
        : base1_(std::in_place, std::move(base1)), base2_(std::in_place, std::move(base2)) {}

    std::optional<AsyncSequenceIterator<Base1>> base1_;
    std::optional<AsyncSequenceIterator<Base2>> base2_;
  };

  AsyncChain2Sequence(Base1 base1, Base2 base2)
      : base1_(std::move(base1)), base2_(std::move(base2)) {}

  /// Makes iterators of both bases at once (making an iterator reads nothing).
  AsyncIterator makeAsyncIterator() const {
    Base1 base1 = base1_;
    Base2 base2 = base2_;
    return AsyncIterator(base1.makeAsyncIterator(), base2.makeAsyncIterator());
  }

 private:
  Base1 base1_;
  Base2 base2_;
};

/// `first`'s elements, then `second`'s. Both must have the same element type.
template <AsyncSequence Base1, AsyncSequence Base2>
AsyncChain2Sequence<Base1, Base2> chain(Base1 first, Base2 second) {
  return AsyncChain2Sequence<Base1, Base2>(std::move(first), std::move(second));
}

}  // namespace carrow
