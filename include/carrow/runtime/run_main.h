#pragma once

#include <type_traits>
#include <utility>

#include <carrow/runtime/async.h>
#include <carrow/runtime/detail/task_state.h>
#include <carrow/runtime/task.h>

namespace carrow {

namespace detail {

/// Blocks the calling thread until `task` has finished. If the calling thread may drive the main
/// actor, it runs the main actor's work meanwhile.
void blockUntilFinished(TaskStateCore& task) noexcept;

template <class T>
struct TaskAccess {
  static TaskStateBase<T>* state(const Task<T>& task) noexcept { return task.state_; }
};

}  // namespace detail

/// Runs `fn()` (a callable returning an `Async`) as a task and blocks the calling thread until it
/// ends; returns its value or rethrows its error. Meant for `main()`:
///
/// ```
/// int main() { return carrow::runMain([]() -> carrow::Async<int> { co_return co_await run(); }); }
/// ```
///
/// Called from a thread that may drive the main actor (the first thread to do so, normally the
/// main thread), that thread runs the main actor's work while it waits. Never call it from a
/// thread the task needs in order to finish (a thread of the global executor, or the main actor's
/// own thread).
template <class Fn>
AsyncResultOf<Fn> runMain(Fn fn) {
  using R = AsyncResultOf<Fn>;
  Task<R> task = Task<R>::start(std::move(fn));
  detail::TaskStateBase<R>* state = detail::TaskAccess<R>::state(task);
  detail::blockUntilFinished(*state);
  return std::move(state->result()).get();  // the only handle: nobody else reads it
}

}  // namespace carrow
