#pragma once

// An awaitable that awaits another one and passes its result through a synchronous function. The
// adaptors built on it (map, onFirst) add no coroutine frame, so they allocate nothing per element
// and suspend exactly when the wrapped awaitable does.

#include <coroutine>
#include <type_traits>
#include <utility>

#include <carrow/runtime/async_sequence.h>

namespace carrow::detail {

/// Keeps an awaitable and the awaiter it gives (for an `Async`, its `operator co_await`), so both
/// live as long as the await does.
template <class Awaitable>
class AwaiterHolder {
  static constexpr bool kHasOperator = HasMemberCoAwait<Awaitable> || HasFreeCoAwait<Awaitable>;

 public:
  template <class Make>
  explicit AwaiterHolder(Make&& make) : awaitable_(std::forward<Make>(make)()) {
    if constexpr (kHasOperator) awaiter_.emplace(getAwaiter(std::move(awaitable_)));
  }

  auto& awaiter() noexcept {
    if constexpr (kHasOperator) {
      return *awaiter_;
    } else {
      return awaitable_;
    }
  }

 private:
  using Awaiter = std::remove_cvref_t<decltype(getAwaiter(std::declval<Awaitable>()))>;
  struct NoAwaiter {};

  Awaitable awaitable_;
  [[no_unique_address]] std::conditional_t<kHasOperator, std::optional<Awaiter>, NoAwaiter>
      awaiter_;
};

/// `co_await MappedAwaitable(make, function)` is `function(co_await make())`.
template <class Awaitable, class Function>
class MappedAwaitable {
 public:
  template <class Make>
  MappedAwaitable(Make&& make, Function function)
      : holder_(std::forward<Make>(make)), function_(std::move(function)) {}
  MappedAwaitable(const MappedAwaitable&) = delete;
  MappedAwaitable& operator=(const MappedAwaitable&) = delete;

  bool await_ready() { return holder_.awaiter().await_ready(); }

  template <class Promise>
  decltype(auto) await_suspend(std::coroutine_handle<Promise> handle) {
    return holder_.awaiter().await_suspend(handle);
  }

  decltype(auto) await_resume() { return function_(holder_.awaiter().await_resume()); }

 private:
  AwaiterHolder<Awaitable> holder_;
  Function function_;
};

}  // namespace carrow::detail
