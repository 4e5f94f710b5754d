#pragma once

#include <exception>
#include <string_view>
#include <type_traits>
#include <utility>

#include <carrow/platform/dispatch_queue.h>
#include <carrow/runtime/async.h>
#include <carrow/runtime/continuation.h>

namespace carrow {

/// Runs the synchronous `closure` on `queue` and suspends the calling task until it has run;
/// returns its value or rethrows its error unchanged.
///
/// This is the way to call blocking code (file I/O, a blocking library call) from a task without
/// stalling the runtime's threads: the closure always runs on the queue's own thread, never on the
/// caller's executor, and the caller resumes on its own executor through a checked continuation
/// named "awaitAsync(_:)". A `noexcept` closure gives the non-throwing form. The closure is moved
/// to the queue; it may be move-only, and its result must be movable. `queue` must outlive the
/// call.
template <class Closure>
Async<std::invoke_result_t<Closure&>> awaitAsync(platform::DispatchQueue& queue, Closure closure) {
  using T = std::invoke_result_t<Closure&>;
  static constexpr std::string_view kName = "awaitAsync(_:)";
  auto submit = [&queue, &closure](auto continuation) {
    queue.async([closure = std::move(closure), continuation = std::move(continuation)]() mutable {
      if constexpr (std::is_nothrow_invocable_v<Closure&>) {
        if constexpr (std::is_void_v<T>) {
          closure();
          continuation.resume();
        } else {
          continuation.resume(closure());
        }
      } else {
        try {
          if constexpr (std::is_void_v<T>) {
            closure();
            continuation.resume();
          } else {
            continuation.resume(closure());
          }
        } catch (...) {
          continuation.resumeThrowing(std::current_exception());
        }
      }
    });
  };
  if constexpr (std::is_nothrow_invocable_v<Closure&>) {
    co_return co_await withCheckedContinuation<T>(kName, submit);
  } else {
    co_return co_await withCheckedThrowingContinuation<T>(kName, submit);
  }
}

}  // namespace carrow
