#pragma once

// The race behind every bounded wait on a task: the task's outcome against a deadline watch.

#include <coroutine>
#include <optional>
#include <utility>

#include <carrow/concurrency/lock_wait.h>
#include <carrow/concurrency/task_waiter_event.h>
#include <carrow/runtime/actor.h>
#include <carrow/runtime/async.h>
#include <carrow/runtime/cancellation_error.h>
#include <carrow/runtime/executor.h>
#include <carrow/runtime/task.h>
#include <carrow/sequences/any_async_sequence.h>
#include <carrow/sequences/map.h>
#include <carrow/sequences/merge.h>
#include <carrow/sequences/poll_stream.h>

namespace carrow::detail {

/// One element, the task's outcome as `taskCompleted`, awaited without cancelling the task; then
/// the end. Each iterator awaits the task on its own.
template <class T>
class TaskOutcomeSequence {
 public:
  using Element = TaskWaiterEvent<T>;

  /// `co_await next()`: the task's outcome as `taskCompleted` the first time, then the end. An
  /// awaiter rather than an async function, so that every waiter's race has one frame fewer.
  class NextAwaiter {
   public:
    // `task` is null once the outcome has been delivered.
    explicit NextAwaiter(const Task<T>* task) noexcept {
      if (task != nullptr) outcome_.emplace(OutcomeOf{task});
    }
    NextAwaiter(const NextAwaiter&) = delete;
    NextAwaiter& operator=(const NextAwaiter&) = delete;

    bool await_ready() const noexcept { return !outcome_ || outcome_->await_ready(); }

    template <class Promise>
    void await_suspend(std::coroutine_handle<Promise> handle) noexcept {
      outcome_->await_suspend(handle);
    }

    std::optional<TaskWaiterEvent<T>> await_resume() {
      if (!outcome_) return std::nullopt;
      return TaskWaiterEvent<T>::taskCompleted(outcome_->await_resume());
    }

   private:
    using OutcomeAwaiter = decltype(std::declval<const Task<T>&>().result());
    // Builds the (immovable) outcome awaiter in place inside the optional.
    struct OutcomeOf {
      const Task<T>* task;
      operator OutcomeAwaiter() const noexcept { return task->result(); }
    };

    std::optional<OutcomeAwaiter> outcome_;
  };

  class Iterator {
   public:
    explicit Iterator(Task<T> task) noexcept : task_(std::move(task)) {}

    NextAwaiter next() noexcept {
      if (delivered_) return NextAwaiter(nullptr);
      delivered_ = true;
      return NextAwaiter(&task_);
    }

   private:
    Task<T> task_;
    bool delivered_ = false;
  };

  explicit TaskOutcomeSequence(Task<T> task) noexcept : task_(std::move(task)) {}

  Iterator makeAsyncIterator() const { return Iterator(task_); }

 private:
  Task<T> task_;
};

template <class T>
TaskWaiterEvent<T> pollEvent(PollResult poll) {
  return poll == PollResult::poll ? TaskWaiterEvent<T>::timedOut()
                                  : TaskWaiterEvent<T>::cancelled();
}

/// The events that can end a wait of at most `seconds` for `task`: `taskCompleted` once the task
/// has finished, `timedOut` once per elapsed interval, `cancelled` once the iterating task is
/// cancelled. The consumer takes the first event and drops the sequence, which stops everything
/// still running inside it; the awaited task itself is never cancelled by the race. Its failure
/// arrives as `taskCompleted` with the error inside, never as a thrown error.
template <class T>
AnyAsyncThrowingSequence<TaskWaiterEvent<T>> waitEvents(Task<T> task,
                                                        ContinuousClock::Duration seconds) {
  TaskOutcomeSequence<T> outcome(std::move(task));
  auto deadline = map(pollStream(seconds), &pollEvent<T>);
  return AnyAsyncThrowingSequence<TaskWaiterEvent<T>>(
      merge(std::move(outcome), std::move(deadline)));
}

/// The first event of `waitEvents(task, limit)`, or std::nullopt if the events ended without one
/// (which happens when the waiting task is cancelled). A task that has already finished answers
/// at once: the race could only report its outcome, so it is not built at all.
template <class T>
Async<std::optional<TaskWaiterEvent<T>>> firstWaitEvent(Task<T> task,
                                                        ContinuousClock::Duration limit) {
  if (task.isFinished()) {
    Result<T> outcome = co_await task.result();
    co_return TaskWaiterEvent<T>::taskCompleted(std::move(outcome));
  }
  // Build, run and tear down the race off the caller's executor: for a bank that is its actor,
  // which then only keeps the books while thousands of waiters race in parallel.
  co_await hopTo(globalExecutor());
  auto events = waitEvents(std::move(task), limit);
  auto iterator = events.makeAsyncIterator();
  std::optional<TaskWaiterEvent<T>> first;
  try {
    first = co_await iterator.next();
  } catch (const CancellationError&) {
    // A merge may report the waiter's own cancellation as an error; it means the same as an end.
  }
  co_return first;
}

}  // namespace carrow::detail
