#pragma once

#include <coroutine>
#include <cstddef>

#include <carrow/runtime/detail/task_context.h>
#include <carrow/runtime/executor.h>

namespace carrow {

namespace detail {

/// Returns true (and makes `target` the task's executor) when the calling task's code may simply
/// go on running on `target`: it is already running there.
bool tryHopInline(Executor& target) noexcept;

/// Moves the awaiting task to an executor: costs nothing if it is already running there, one
/// queueing otherwise. Cannot fail and does not observe cancellation.
class ExecutorHop {
 public:
  explicit ExecutorHop(Executor& target) noexcept : target_(&target) {}
  bool await_ready() const noexcept { return tryHopInline(*target_); }
  template <RuntimePromise Promise>
  void await_suspend(std::coroutine_handle<Promise> handle) const noexcept {
    handle.promise().context->scheduleOn(*target_, handle);
  }
  void await_resume() const noexcept {}

 private:
  Executor* target_;
};

}  // namespace detail

/// `co_await hopTo(executor)`: the rest of the current async function runs on `executor` (for
/// example `globalExecutor()` to leave an actor for heavy work). When the function returns, its
/// caller is back on the caller's own executor.
inline detail::ExecutorHop hopTo(Executor& executor) noexcept {
  return detail::ExecutorHop(executor);
}

/// An object whose async operations run one at a time on its own serial executor.
///
/// An operation isolates itself by starting with `co_await enter();`:
///
/// ```
/// class Counter : public Actor {
///  public:
///   Async<int> increment() {
///     co_await enter();  // from here to the end of this function: on the actor
///     co_return ++value_;
///   }
///  private:
///   int value_ = 0;  // touched only on the actor
/// };
/// ```
///
/// From `enter()` to the end of that async function, the code runs on the actor's executor and,
/// after every suspension (awaiting a task, a continuation resumed on a timer thread, a sleep),
/// comes back to it before it continues; that way back cannot fail and is not cancelled. While an
/// operation is suspended, other operations of the same actor may run (actors are reentrant at
/// suspension points, so re-read state after an await). When the operation returns, its caller
/// continues on the caller's own executor. Async functions the operation awaits run on the actor
/// too unless they enter another actor or hop away. Entering an actor one is already on costs no
/// queueing.
///
/// An actor must outlive its running operations; hold it by `std::shared_ptr` when operations may
/// outlive their caller.
class Actor {
 public:
  Actor();
  virtual ~Actor();
  Actor(const Actor&) = delete;
  Actor& operator=(const Actor&) = delete;

  /// `co_await enter()`: moves the rest of the current async function onto this actor.
  [[nodiscard]] detail::ExecutorHop enter() noexcept { return detail::ExecutorHop(*executor_); }

  /// True while the calling thread runs this actor's code.
  bool isIsolated() const noexcept { return executor_->isCurrent(); }

  /// Stops the process unless the calling thread runs this actor's code.
  void assertIsolated() const noexcept;

  /// The actor's serial executor.
  SerialExecutor& executor() const noexcept { return *executor_; }

 protected:
  /// An actor that runs on `executor` (which it does not own).
  explicit Actor(SerialExecutor& executor) noexcept;

 private:
  SerialExecutor* executor_;
  bool ownsExecutor_;
};

/// The process-wide actor bound to the main thread.
///
/// A program may drive it from its main thread: `runMain` does so while the async main runs, and
/// `MainActor::drain()` runs what is queued. The first thread that drives it becomes its only
/// thread for good. If nothing has driven it by the time work is first queued on it, the runtime
/// gives it a thread of its own instead, and driving it later is an error.
class MainActor final : public Actor {
 public:
  /// The main actor (made on first use).
  static MainActor& shared() noexcept;

  /// Runs the main actor's queued work on the calling thread until none is left; returns whether
  /// anything ran. Binds the main actor to the calling thread (stops the process if it is bound
  /// to another one).
  static bool drain() noexcept;

  /// True while the calling thread runs main-actor code.
  static bool isMainThread() noexcept { return shared().isIsolated(); }

 private:
  MainActor() noexcept;
  ~MainActor() override;
};

}  // namespace carrow
