#pragma once

// The shape every asynchronous sequence of the library has. A sequence makes iterators with
// `makeAsyncIterator()`; an iterator's `next()` returns an awaitable whose result is
// `std::optional<Element>`: an element, or std::nullopt at the end. `next()` may also throw. The
// consumer drives iteration: nothing is read until it awaits `next()`.
//
//   auto iterator = sequence.makeAsyncIterator();
//   while (auto element = co_await iterator.next()) use(*element);

#include <concepts>
#include <coroutine>
#include <optional>
#include <type_traits>
#include <utility>

namespace carrow {
namespace detail {

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

template <class A>
concept HasMemberCoAwait = requires(A&& a) {
  std::forward<A>(a).operator co_await();
};
template <class A>
concept HasFreeCoAwait = requires(A&& a) {
  operator co_await(std::forward<A>(a));
};

template <class A>
decltype(auto) getAwaiter(A&& awaitable) {
  if constexpr (HasMemberCoAwait<A>) {
    return std::forward<A>(awaitable).operator co_await();
  } else if constexpr (HasFreeCoAwait<A>) {
    return operator co_await(std::forward<A>(awaitable));
  } else {
    return std::forward<A>(awaitable);
  }
}

}  // namespace detail

/// An awaitable that is ready at once with a value; awaiting it never suspends.
template <class T>
class ReadyAwaitable {
 public:
  explicit ReadyAwaitable(T value) : value_(std::move(value)) {}
  bool await_ready() const noexcept { return true; }
  void await_suspend(std::coroutine_handle<>) const noexcept {}
  T await_resume() { return std::move(value_); }

 private:
  T value_;
};

/// The type that `co_await` of an `A` produces (ignoring any await_transform of the promise).
template <class A>
using AwaitResult = decltype(detail::getAwaiter(std::declval<A>()).await_resume());

/// An iterator whose `next()` is awaitable and yields `std::optional` of the element type.
template <class I>
concept AsyncIterator = requires(I& iterator) {
  iterator.next();
  requires detail::IsOptional<std::remove_cvref_t<AwaitResult<decltype(iterator.next())>>>::value;
};

/// The element type of an asynchronous iterator.
template <AsyncIterator I>
using AsyncIteratorElement =
    typename std::remove_cvref_t<AwaitResult<decltype(std::declval<I&>().next())>>::value_type;

/// A sequence that makes asynchronous iterators.
template <class S>
concept AsyncSequence = requires(S& sequence) {
  { sequence.makeAsyncIterator() } -> AsyncIterator;
};

/// The iterator type of an asynchronous sequence.
template <AsyncSequence S>
using AsyncSequenceIterator = decltype(std::declval<S&>().makeAsyncIterator());

/// The element type of an asynchronous sequence.
template <AsyncSequence S>
using AsyncSequenceElement = AsyncIteratorElement<AsyncSequenceIterator<S>>;

/// An asynchronous sequence of `Element`s.
template <class S, class Element>
concept AsyncSequenceOf = AsyncSequence<S> && std::same_as<AsyncSequenceElement<S>, Element>;

}  // namespace carrow
