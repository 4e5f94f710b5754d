#pragma once

// The state behind a Task handle or a task-group child: the task context, the body coroutine,
// the outcome once finished, and the awaiters waiting for it.

#include <atomic>
#include <coroutine>
#include <cstdint>
#include <exception>
#include <optional>
#include <utility>

#include <carrow/runtime/async.h>
#include <carrow/runtime/detail/task_context.h>
#include <carrow/runtime/result.h>

namespace carrow::detail {

/// Someone waiting for a task to finish; linked into the task's waiter stack.
struct TaskWaiter {
  explicit TaskWaiter(void (*wakeFunction)(TaskWaiter&) noexcept) noexcept : wake(wakeFunction) {}
  void (*wake)(TaskWaiter&) noexcept;
  TaskWaiter* next = nullptr;
};

class GroupCore;

/// The part of a task's state that does not depend on its value type.
class TaskStateCore : public TaskContext {
 public:
  using TaskContext::TaskContext;

  bool isFinished() const noexcept {
    return waiters_.load(std::memory_order_acquire) == finishedMark();
  }

  /// Adds `waiter` to be woken when the task finishes; false if it has already finished (the
  /// waiter is then not added).
  bool addWaiter(TaskWaiter& waiter) noexcept;

  /// Makes the task runnable: its body starts on the global executor, or on the target of the
  /// calling thread's `LaunchTargetScope` (see start_on.h).
  void launch(std::coroutine_handle<> body) noexcept;

  /// The group this task is a child of, if any; set before launch.
  GroupCore* group = nullptr;
  /// Links of the group's lists; guarded by the group's lock.
  TaskStateCore* groupPrev = nullptr;
  TaskStateCore* groupNext = nullptr;

 protected:
  /// Publishes the outcome (already stored) to waiters or to the group, then drops the task's
  /// reference to itself.
  void publishFinished() noexcept;

 private:
  static TaskWaiter* finishedMark() noexcept {
    return reinterpret_cast<TaskWaiter*>(static_cast<std::uintptr_t>(1));
  }
  std::atomic<TaskWaiter*> waiters_{nullptr};
};

template <class T>
class TaskStateBase : public TaskStateCore {
 public:
  using TaskStateCore::TaskStateCore;

  /// The outcome; valid once `isFinished()` (or, for group children, once handed over).
  Result<T>& result() noexcept { return *result_; }

  /// Creates the body from `makeBody` and starts it. Must be called exactly once.
  template <class MakeBody>
  void start(MakeBody& makeBody) {
    Async<T> body = makeBody();
    std::coroutine_handle<> handle = body.release();
    body_ = std::coroutine_handle<AsyncPromise<T>>::from_address(handle.address());
    body_.promise().isTaskBody = true;
    body_.promise().context = this;
    launch(handle);
  }

 protected:
  void bodyFinished() noexcept override {
    std::coroutine_handle<AsyncPromise<T>> body = std::exchange(body_, {});
    try {
      if constexpr (std::is_void_v<T>) {
        body.promise().takeResult();
        result_.emplace(Result<T>::success());
      } else {
        result_.emplace(Result<T>::success(body.promise().takeResult()));
      }
    } catch (...) {
      result_.emplace(Result<T>::failure(std::current_exception()));
    }
    body.destroy();
    publishFinished();
  }

  ~TaskStateBase() override {
    if (body_) body_.destroy();
  }

 private:
  std::coroutine_handle<AsyncPromise<T>> body_;
  std::optional<Result<T>> result_;
};

/// A task state that also keeps the callable that made its body, so the body (often a capturing
/// lambda coroutine) may refer to the callable's captures for as long as it runs.
template <class T, class Fn>
class TaskState final : public TaskStateBase<T> {
 public:
  TaskState(TaskPriority priority, std::shared_ptr<const LocalBinding> locals, Fn fn)
      : TaskStateBase<T>(priority, std::move(locals)), fn_(std::move(fn)) {}

  void start() { TaskStateBase<T>::start(fn_); }

 private:
  Fn fn_;
};

/// Priority and task-local values a new task inherits from the task running the caller.
TaskPriority inheritedPriority() noexcept;
std::shared_ptr<const LocalBinding> inheritedLocals() noexcept;

}  // namespace carrow::detail
