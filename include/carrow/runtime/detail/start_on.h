#pragma once

// Starting a task directly on the executor it would hop to first thing. A task normally starts on
// the global executor; one whose first act is `co_await hopTo(serial)` then costs two queueings
// (and, from a thread outside the pool, two wake-ups) before any of its work runs.

#include <utility>

#include <carrow/runtime/executor.h>
#include <carrow/runtime/task.h>

namespace carrow::detail {

/// While alive, the tasks that the calling thread starts begin on `target` instead of the global
/// executor. Scopes nest; the previous target comes back when one ends. Not movable: it lives on
/// the stack of the thread that starts the tasks.
class LaunchTargetScope {
 public:
  explicit LaunchTargetScope(Executor& target) noexcept;
  ~LaunchTargetScope();
  LaunchTargetScope(const LaunchTargetScope&) = delete;
  LaunchTargetScope& operator=(const LaunchTargetScope&) = delete;

 private:
  Executor* previous_;
};

/// The executor a task started now on this thread begins on.
Executor& launchTarget() noexcept;

/// Starts `fn()` (a callable returning `Async<T>`) as a new task, like `Task<T>::start`, except
/// that its body begins on `target`, which must outlive the task's first run. The task keeps
/// `target` as its executor until it hops elsewhere. Never runs any of the body inline.
template <class T, class Fn>
Task<T> startTaskOn(Executor& target, Fn fn) {
  LaunchTargetScope scope(target);
  return Task<T>::start(std::move(fn));
}

}  // namespace carrow::detail
