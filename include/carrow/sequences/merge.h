#pragma once

// Merging two asynchronous sequences into one.
//
//   auto merged = carrow::merge(stream, carrow::asAsync(std::vector{1, 2, 3}));
//   auto iterator = merged.makeAsyncIterator();
//   while (auto element = co_await iterator.next()) use(*element);
//
// The merge yields every element of both upstreams in the order they are produced, ends when both
// have ended, and throws the first error either throws (after the elements already buffered).
// Each iteration reads its upstreams from a task of its own, one child task per upstream, and
// only on demand: an upstream is asked for its next element only when the consumer wants one, so
// each has at most one element in flight and at most one element waits in the merge's buffer.

#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include <carrow/runtime/async_sequence.h>
#include <carrow/sequences/detail/merge_storage.h>

namespace carrow {

/// The merge of two asynchronous sequences with the same element type. A value that stores the
/// two upstreams and reads nothing; every `makeAsyncIterator()` starts an independent merge (the
/// upstreams must be copyable, and each iteration copies them).
template <AsyncSequence Base1, AsyncSequence Base2>
class AsyncMerge2Sequence {
  static_assert(std::is_same_v<AsyncSequenceElement<Base1>, AsyncSequenceElement<Base2>>,
                "merge needs two sequences of the same element type");

 public:
  using Element = AsyncSequenceElement<Base1>;

  /// An iteration of the merge.
  ///
  /// `co_await next()` returns the next element, std::nullopt at the end, or throws the error an
  /// upstream threw; after the end or the error, every `next()` returns std::nullopt at once. If
  /// the consumer's task is cancelled while it waits, that `next()` returns std::nullopt and all
  /// reading stops.
  ///
  /// Nothing runs until the first `next()`, which starts the reading task. Dropping the iterator
  /// (its last copy) cancels everything still running inside it: children waiting for demand are
  /// stopped and the reading task is cancelled, which cancels the upstream reads in flight.
  ///
  /// Copies share one iteration. One consumer at a time: awaiting `next()` through a copy while
  /// another `next()` of the same iteration waits stops the process with a message.
  class AsyncIterator {
   public:
    detail::MergeNextAwaiter<Base1, Base2, Base1> next() noexcept {
      return internalClass_->storage->next();
    }

   private:
    friend class AsyncMerge2Sequence;
    using Storage = detail::MergeStorage<Base1, Base2, Base1>;

    // The storage is also held by the reading task, so the storage's lifetime cannot tell that
    // the consumer went away; this owner's can.
    struct InternalClass {
      explicit InternalClass(std::shared_ptr<Storage> owned) noexcept : storage(std::move(owned)) {}
      InternalClass(const InternalClass&) = delete;
      InternalClass& operator=(const InternalClass&) = delete;
      ~InternalClass() { storage->iteratorDeinitialized(); }
      std::shared_ptr<Storage> storage;
    };

    explicit AsyncIterator(std::shared_ptr<InternalClass> internalClass) noexcept
        : internalClass_(std::move(internalClass)) {}

    std::shared_ptr<InternalClass> internalClass_;
  };

  AsyncMerge2Sequence(Base1 base1, Base2 base2)
      : base1_(std::move(base1)), base2_(std::move(base2)) {}

  /// A new, independent merge of copies of the two upstreams. Starts nothing.
  AsyncIterator makeAsyncIterator() const {
    using Storage = typename AsyncIterator::Storage;
    auto storage = std::make_shared<Storage>(base1_, base2_, std::nullopt);
    return AsyncIterator(
        std::make_shared<typename AsyncIterator::InternalClass>(std::move(storage)));
  }

  const Base1& base1() const noexcept { return base1_; }
  const Base2& base2() const noexcept { return base2_; }

 private:
  Base1 base1_;
  Base2 base2_;
};

/// The merge of `base1` and `base2`, which must have the same element type. Any asynchronous
/// sequence of the library fits, including the streams and the erased sequences.
template <AsyncSequence Base1, AsyncSequence Base2>
AsyncMerge2Sequence<Base1, Base2> merge(Base1 base1, Base2 base2) {
  return AsyncMerge2Sequence<Base1, Base2>(std::move(base1), std::move(base2));
}

}  // namespace carrow
