#pragma once

#include <coroutine>
#include <type_traits>
#include <utility>

#include <carrow/runtime/async.h>
#include <carrow/runtime/cancellable_task.h>
#include <carrow/runtime/detail/task_state.h>
#include <carrow/runtime/result.h>
#include <carrow/runtime/task_priority.h>

namespace carrow {

namespace detail {

template <class T>
struct TaskAccess;

// Awaits a task's outcome without cancelling it. Holds a reference, so awaiting a temporary
// handle is safe.
template <class T, bool Throwing>
class TaskOutcomeAwaiter : TaskWaiter {
 public:
  explicit TaskOutcomeAwaiter(TaskStateBase<T>* state) noexcept
      : TaskWaiter(&wakeUp), state_(state) {
    state_->retain();
  }
  TaskOutcomeAwaiter(const TaskOutcomeAwaiter&) = delete;
  TaskOutcomeAwaiter& operator=(const TaskOutcomeAwaiter&) = delete;
  ~TaskOutcomeAwaiter() { state_->release(); }

  bool await_ready() const noexcept { return state_->isFinished(); }

  template <RuntimePromise Promise>
  void await_suspend(std::coroutine_handle<Promise> handle) noexcept {
    waiterContext_ = handle.promise().context;
    waiterHandle_ = handle;
    // Finished in the meantime: continue through the executor, since we may not resume inline.
    if (!state_->addWaiter(*this)) waiterContext_->schedule(handle);
  }

  auto await_resume() const {
    if constexpr (Throwing) {
      return state_->result().get();
    } else {
      return state_->result();
    }
  }

 private:
  static void wakeUp(TaskWaiter& waiter) noexcept {
    auto& self = static_cast<TaskOutcomeAwaiter&>(waiter);
    self.waiterContext_->schedule(self.waiterHandle_);
  }

  TaskStateBase<T>* state_;
  TaskContext* waiterContext_ = nullptr;
  std::coroutine_handle<> waiterHandle_;
};

}  // namespace detail

/// An unstructured task: work that starts at once on the global executor and runs on its own,
/// producing a `T` (or nothing, for `Task<void>`) or an error.
///
/// ```
/// auto task = Task<int>::start([]() -> Async<int> { co_return co_await compute(); });
/// int value = co_await task.value();
/// ```
///
/// A task inherits the priority and the task-local values of the task that starts it, but not its
/// cancellation: cancelling the starter does not cancel it. `Task` is a copyable handle to shared
/// state; dropping every handle neither cancels nor stops the task. Any number of awaiters may
/// await `value()` or `result()`, before or after the task finished; awaiting never cancels it.
///
/// Every awaiter receives its own copy of the outcome, so awaiting needs a copyable `T` (hand
/// move-only values through a `std::shared_ptr`, or through a task group, whose `next()` moves).
///
/// The callable passed to `start` is kept alive until the task has finished, so a capturing
/// lambda coroutine is safe there (unlike most places). A default-constructed `Task` refers to
/// no task; only assignment and destruction are allowed on it.
template <class T>
class Task final : public CancellableTask {
 public:
  Task() noexcept = default;
  Task(const Task& other) noexcept : CancellableTask(other), state_(other.state_) {
    if (state_) state_->retain();
  }
  Task(Task&& other) noexcept : state_(std::exchange(other.state_, nullptr)) {}
  Task& operator=(Task other) noexcept {
    std::swap(state_, other.state_);
    return *this;
  }
  ~Task() override {
    if (state_) state_->release();
  }

  /// Starts `fn()` (a callable returning `Async<T>`) as a new task with the priority of the task
  /// running the caller (medium outside a task). Never runs any of the body inline.
  template <class Fn>
  static Task start(Fn fn) {
    return start(detail::inheritedPriority(), std::move(fn));
  }

  /// Starts `fn()` as a new task with `priority`.
  template <class Fn>
  static Task start(TaskPriority priority, Fn fn) {
    static_assert(std::is_same_v<std::invoke_result_t<Fn&>, Async<T>>,
                  "Task<T>::start needs a callable returning Async<T>");
    auto* state = new detail::TaskState<T, Fn>(priority, detail::inheritedLocals(), std::move(fn));
    Task task(
        state);  // the handle's reference; the state's initial one belongs to the running body
    try {
      state->start();
    } catch (...) {
      state->release();
      throw;
    }
    return task;
  }

  /// Asks the task to stop: sets its cancellation flag and runs its cancellation handlers (and
  /// those of its task groups' children) on the calling thread.
  void cancel() const noexcept override { state_->cancel(); }

  bool isCancelled() const noexcept { return state_->isCancelled(); }

  /// True once the task has produced its outcome.
  bool isFinished() const noexcept { return state_->isFinished(); }

  TaskPriority priority() const noexcept { return state_->priority; }

  /// `co_await task.value()`: the task's value, or rethrows its error.
  [[nodiscard]] detail::TaskOutcomeAwaiter<T, true> value() const noexcept {
    return detail::TaskOutcomeAwaiter<T, true>(state_);
  }

  /// `co_await task.result()`: the task's outcome as a `Result<T>`; never throws.
  [[nodiscard]] detail::TaskOutcomeAwaiter<T, false> result() const noexcept {
    return detail::TaskOutcomeAwaiter<T, false>(state_);
  }

  friend bool operator==(const Task& lhs, const Task& rhs) noexcept {
    return lhs.state_ == rhs.state_;
  }

 private:
  template <class>
  friend struct detail::TaskAccess;

  explicit Task(detail::TaskStateBase<T>* state) noexcept : state_(state) { state_->retain(); }

  detail::TaskStateBase<T>* state_ = nullptr;
};

}  // namespace carrow
