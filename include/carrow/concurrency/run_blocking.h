#pragma once

#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include <carrow/concurrency/atomic.h>
#include <carrow/platform/dispatch_semaphore.h>
#include <carrow/platform/fatal_error.h>
#include <carrow/runtime/async.h>
#include <carrow/runtime/detail/runtime_threads.h>
#include <carrow/runtime/result.h>
#include <carrow/runtime/task.h>
#include <carrow/runtime/task_priority.h>

namespace carrow {

/// Runs the async `body()` (a callable returning `Async<T>`) as a new task and blocks the calling
/// thread until it has finished; returns its value or rethrows its error unchanged. The task has
/// `priority`, or without one the caller's (medium on a plain thread), and inherits the caller's
/// task-local values.
///
/// For plain threads only (a thread of a callback library, a test's thread): blocking a thread
/// that `body` may need hangs for ever, so calling it from a thread of the global executor, from
/// the main actor's thread while the main actor is bound to it, or from an actor's operation
/// stops the process with a message naming the mistake. `T` must be copyable (the outcome passes
/// through a locked cell). The task is not cancelled if the blocked thread is interrupted; it
/// always runs to its end.
template <class Body>
AsyncResultOf<Body> runBlocking(std::optional<TaskPriority> priority, Body body) {
  using T = AsyncResultOf<Body>;
  if (detail::isRuntimeThread()) {
    fatalError("CarrowPrivate/Locks", __LINE__,
               "runBlocking called from a thread that its body may need (a thread of the global "
               "executor, the main actor's thread or an actor's executor); it would never return");
  }
  // Shared with the task: it still touches both after the blocked thread has been released.
  auto done = std::make_shared<platform::DispatchSemaphore>(0);
  auto outcome = std::make_shared<AtomicBox<std::optional<Result<T>>>>(std::nullopt);
  auto run = [body = std::move(body), outcome, done]() mutable -> Async<void> {
    std::optional<Result<T>> result;
    try {
      auto work = body();
      if constexpr (std::is_void_v<T>) {
        co_await std::move(work);
        result.emplace(Result<T>::success());
      } else {
        T value = co_await std::move(work);
        result.emplace(Result<T>::success(std::move(value)));
      }
    } catch (...) {
      result.emplace(Result<T>::failure(std::current_exception()));
    }
    outcome->setValue(std::move(result));
    done->signal();
  };
  if (priority) {
    Task<void>::start(*priority, std::move(run));
  } else {
    Task<void>::start(std::move(run));
  }
  done->wait();
  std::optional<Result<T>> result = outcome->value();
  return std::move(*result).get();
}

/// `runBlocking(std::nullopt, body)`: the task gets the caller's priority.
template <class Body>
AsyncResultOf<Body> runBlocking(Body body) {
  return runBlocking(std::nullopt, std::move(body));
}

}  // namespace carrow
