#pragma once

// Combining the latest elements of two or three asynchronous sequences.
//
//   auto both = carrow::combineLatest(sizes, names);   // elements: std::tuple<Size, Name>
//   auto iterator = both.makeAsyncIterator();
//   while (auto pair = co_await iterator.next()) show(std::get<0>(*pair), std::get<1>(*pair));
//
// No tuple is produced until every upstream has produced an element; after that, each new
// element of any upstream yields a tuple of it and the latest elements of the others. Reading is
// demand-driven: while the consumer is busy, an upstream has at most one element in flight, and
// elements that arrive meanwhile are combined at once and buffered. The combination ends when
// every upstream has ended (after the buffered tuples), or at once when an upstream ends without
// ever producing; it throws the first error an upstream throws (buffered tuples are dropped).

#include <memory>
#include <optional>
#include <tuple>
#include <utility>

#include <carrow/runtime/async_sequence.h>
#include <carrow/sequences/detail/combine_latest_storage.h>
#include <carrow/sequences/detail/mapped_awaitable.h>

namespace carrow {
namespace detail {

/// The iterator of both arities: one iteration of a `CombineLatestStorage`, whose `next()`
/// converts the machine's triple with `Convert`.
template <class Base1, class Base2, class Base3, class Convert>
class CombineLatestIterator {
 public:
  using Storage = CombineLatestStorage<Base1, Base2, Base3>;

  /// The next tuple, std::nullopt at the end, or the error an upstream threw; see combineLatest.
  auto next() {
    auto make = [this] { return internalClass_->storage->next(); };
    return MappedAwaitable<CombineLatestNextAwaiter<Base1, Base2, Base3>, Convert>(make, Convert{});
  }

  explicit CombineLatestIterator(std::shared_ptr<Storage> storage)
      : internalClass_(std::make_shared<InternalClass>(std::move(storage))) {}

 private:
  // The storage is also held by the reading task; this owner's end is the consumer's end.
  struct InternalClass {
    explicit InternalClass(std::shared_ptr<Storage> owned) noexcept : storage(std::move(owned)) {}
    InternalClass(const InternalClass&) = delete;
    InternalClass& operator=(const InternalClass&) = delete;
    ~InternalClass() { storage->iteratorDeinitialized(); }
    std::shared_ptr<Storage> storage;
  };

  std::shared_ptr<InternalClass> internalClass_;
};

template <class E1, class E2, class E3>
struct TripleToPair {
  std::optional<std::tuple<E1, E2>> operator()(
      std::optional<std::tuple<E1, E2, std::optional<E3>>> triple) const {
    if (!triple) return std::nullopt;
    return std::tuple<E1, E2>(std::move(std::get<0>(*triple)), std::move(std::get<1>(*triple)));
  }
};

template <class E1, class E2, class E3>
struct TripleToTriple {
  std::optional<std::tuple<E1, E2, E3>> operator()(
      std::optional<std::tuple<E1, E2, std::optional<E3>>> triple) const {
    if (!triple) return std::nullopt;
    return std::tuple<E1, E2, E3>(std::move(std::get<0>(*triple)), std::move(std::get<1>(*triple)),
                                  std::move(*std::get<2>(*triple)));
  }
};

}  // namespace detail

/// The combination of the latest elements of two sequences, as `std::tuple<E1, E2>`. A value that
/// stores both upstreams (copyable) and reads nothing; each `makeAsyncIterator()` starts an
/// independent combination with copies of them.
///
/// Its iterator: `co_await next()` returns the next tuple, std::nullopt at the end, or throws an
/// upstream's error; after the end or the error it returns std::nullopt. Cancelling the consumer's
/// task while it waits makes that `next()` return std::nullopt and stops all reading. Nothing runs
/// before the first `next()`; dropping the iterator's last copy cancels the reading task and every
/// upstream read in flight. Copies of an iterator share one iteration and one consumer at a time:
/// a second `next()` while one waits stops the process with a message.
template <AsyncSequence Base1, AsyncSequence Base2>
class AsyncCombineLatest2Sequence {
 public:
  using E1 = AsyncSequenceElement<Base1>;
  using E2 = AsyncSequenceElement<Base2>;
  using Element = std::tuple<E1, E2>;
  using AsyncIterator =
      detail::CombineLatestIterator<Base1, Base2, Base2, detail::TripleToPair<E1, E2, E2>>;

  AsyncCombineLatest2Sequence(Base1 base1, Base2 base2)
      : base1_(std::move(base1)), base2_(std::move(base2)) {}

  AsyncIterator makeAsyncIterator() const {
    return AsyncIterator(
        std::make_shared<typename AsyncIterator::Storage>(base1_, base2_, std::nullopt));
  }

 private:
  Base1 base1_;
  Base2 base2_;
};

/// The combination of the latest elements of three sequences, as `std::tuple<E1, E2, E3>`; no
/// tuple is produced before all three have produced. Otherwise as AsyncCombineLatest2Sequence.
template <AsyncSequence Base1, AsyncSequence Base2, AsyncSequence Base3>
class AsyncCombineLatest3Sequence {
 public:
  using E1 = AsyncSequenceElement<Base1>;
  using E2 = AsyncSequenceElement<Base2>;
  using E3 = AsyncSequenceElement<Base3>;
  using Element = std::tuple<E1, E2, E3>;
  using AsyncIterator =
      detail::CombineLatestIterator<Base1, Base2, Base3, detail::TripleToTriple<E1, E2, E3>>;

  AsyncCombineLatest3Sequence(Base1 base1, Base2 base2, Base3 base3)
      : base1_(std::move(base1)), base2_(std::move(base2)), base3_(std::move(base3)) {}

  AsyncIterator makeAsyncIterator() const {
    return AsyncIterator(std::make_shared<typename AsyncIterator::Storage>(base1_, base2_, base3_));
  }

 private:
  Base1 base1_;
  Base2 base2_;
  Base3 base3_;
};

/// The latest elements of `base1` and `base2`, combined.
template <AsyncSequence Base1, AsyncSequence Base2>
AsyncCombineLatest2Sequence<Base1, Base2> combineLatest(Base1 base1, Base2 base2) {
  return AsyncCombineLatest2Sequence<Base1, Base2>(std::move(base1), std::move(base2));
}

/// The latest elements of `base1`, `base2` and `base3`, combined.
template <AsyncSequence Base1, AsyncSequence Base2, AsyncSequence Base3>
AsyncCombineLatest3Sequence<Base1, Base2, Base3> combineLatest(Base1 base1, Base2 base2,
                                                               Base3 base3) {
  return AsyncCombineLatest3Sequence<Base1, Base2, Base3>(std::move(base1), std::move(base2),
                                                          std::move(base3));
}

}  // namespace carrow
