#pragma once

#include <coroutine>
#include <exception>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>

#include <carrow/concurrency/unfair_lock.h>
#include <carrow/runtime/async.h>
#include <carrow/runtime/detail/task_state.h>
#include <carrow/runtime/task_priority.h>

namespace carrow {

namespace detail {

/// The value-type-independent part of a task group: the children still running, the finished
/// ones not yet taken by `next()`, the parent's waiting `next()`, and the registration that
/// forwards the parent's cancellation to the children.
class GroupCore {
 public:
  explicit GroupCore(TaskContext& parent) noexcept;
  ~GroupCore();
  GroupCore(const GroupCore&) = delete;
  GroupCore& operator=(const GroupCore&) = delete;

  TaskContext& parent() const noexcept { return parent_; }
  bool isCancelled() const noexcept;
  bool isEmpty() const noexcept;

  /// Takes ownership of the started child's reference; cancels it at once if the group is
  /// cancelled.
  void adopt(TaskStateCore& child) noexcept;
  /// Called by a child once its outcome is stored.
  void childFinished(TaskStateCore& child) noexcept;
  void cancelAll() noexcept;

  /// Takes a finished child (the caller then owns its reference), or null. Sets `noneRunning` when
  /// the group has no child at all.
  TaskStateCore* takeFinished(bool& noneRunning) noexcept;
  /// Registers the parent's coroutine to be scheduled when a child finishes; returns a finished
  /// child instead (without registering) if one arrived meanwhile, or null after registering.
  TaskStateCore* waitForChild(std::coroutine_handle<> handle) noexcept;

 private:
  static void onParentCancelled(CancellationRecord& record) noexcept;
  /// Unlinks the oldest finished child and returns it, or null; the caller holds `lock_`.
  TaskStateCore* popFinishedLocked() noexcept;

  TaskContext& parent_;
  mutable CRUnfairLock lock_;
  std::atomic<bool> cancelled_{false};
  TaskStateCore* running_ = nullptr;  // doubly linked
  TaskStateCore* finishedHead_ = nullptr;
  TaskStateCore* finishedTail_ = nullptr;
  std::coroutine_handle<> waiter_;
  struct ParentRecord : CancellationRecord {
    explicit ParentRecord(GroupCore& owner) noexcept
        : CancellationRecord(&onParentCancelled), group(owner) {}
    GroupCore& group;
  } parentRecord_{*this};
};

// Releases a child reference when the awaiter is done with it.
struct ChildReference {
  TaskStateCore* child = nullptr;
  ChildReference() noexcept = default;
  ChildReference(const ChildReference&) = delete;
  ChildReference& operator=(const ChildReference&) = delete;
  ~ChildReference() {
    if (child) child->release();
  }
};

template <class ChildResult>
class GroupNextAwaiter {
 public:
  using Output = std::conditional_t<std::is_void_v<ChildResult>, bool, std::optional<ChildResult>>;

  explicit GroupNextAwaiter(GroupCore& core) noexcept : core_(core) {}

  bool await_ready() noexcept {
    taken_.child = core_.takeFinished(noneRunning_);
    return taken_.child != nullptr || noneRunning_;
  }
  template <RuntimePromise Promise>
  void await_suspend(std::coroutine_handle<Promise> handle) noexcept {
    TaskContext* context = handle.promise().context;
    // Once registered, a finishing child may resume us on another thread at any moment, so the
    // frame is written only on the path that did not register.
    TaskStateCore* child = core_.waitForChild(handle);
    if (child != nullptr) {
      // A child finished between await_ready and here: go round the executor rather than
      // continue inline.
      taken_.child = child;
      context->schedule(handle);
    }
  }
  Output await_resume() {
    if (taken_.child == nullptr) {
      // Woken by a finished child, or nothing was running.
      if (!noneRunning_) taken_.child = core_.takeFinished(noneRunning_);
      if (taken_.child == nullptr) return Output{};
    }
    auto& result = static_cast<TaskStateBase<ChildResult>*>(taken_.child)->result();
    if constexpr (std::is_void_v<ChildResult>) {
      result.get();
      return true;
    } else {
      return Output(std::move(result).get());
    }
  }

 private:
  GroupCore& core_;
  ChildReference taken_;
  bool noneRunning_ = false;
};

}  // namespace detail

namespace detail {
struct TaskGroupAccess;
}  // namespace detail

/// A set of child tasks owned by the task that runs `withThrowingTaskGroup`. Children return
/// `ChildResult` (or nothing) and may throw. Every operation is called from the owning task only.
///
/// Children inherit the owner's priority and task-local values. Cancelling the owning task (or
/// calling `cancelAll()`) cancels every child, present and future; a child's cancellation or
/// failure never cancels the owner or its siblings.
template <class ChildResult>
class ThrowingTaskGroup {
 public:
  ThrowingTaskGroup(const ThrowingTaskGroup&) = delete;
  ThrowingTaskGroup& operator=(const ThrowingTaskGroup&) = delete;

  /// Starts `fn()` (a callable returning `Async<ChildResult>`) as a child; the callable is kept
  /// alive while the child runs. A child added to a cancelled group starts cancelled.
  template <class Fn>
  void addTask(Fn fn) {
    addTask(core_.parent().priority, std::move(fn));
  }
  template <class Fn>
  void addTask(TaskPriority priority, Fn fn) {
    static_assert(std::is_same_v<std::invoke_result_t<Fn&>, Async<ChildResult>>,
                  "a child of ThrowingTaskGroup<R> is a callable returning Async<R>");
    auto* child =
        new detail::TaskState<ChildResult, Fn>(priority, core_.parent().locals, std::move(fn));
    child->group = &core_;
    core_.adopt(*child);
    child->start();
  }

  /// `co_await group.next()`: the outcome of the next child to finish, in finishing order:
  /// its value (`true` for void children), or rethrows its error; empty (`false`) when no child
  /// is left.
  [[nodiscard]] detail::GroupNextAwaiter<ChildResult> next() noexcept {
    return detail::GroupNextAwaiter<ChildResult>(core_);
  }

  /// Awaits every remaining child. Rethrows the first error among them, after all have finished;
  /// an error does not cancel the other children.
  Async<void> waitForAll() {
    std::exception_ptr firstError;
    bool more = true;
    while (more) {
      try {
        more = static_cast<bool>(co_await next());
      } catch (...) {
        if (!firstError) firstError = std::current_exception();
      }
    }
    if (firstError) std::rethrow_exception(firstError);
    co_return;
  }

  /// Cancels every child, running or added later.
  void cancelAll() noexcept { core_.cancelAll(); }

  /// True once the group is cancelled (by `cancelAll()` or because the owning task was).
  bool isCancelled() const noexcept { return core_.isCancelled(); }

  /// True when no child is running and none is waiting to be taken by `next()`.
  bool isEmpty() const noexcept { return core_.isEmpty(); }

 private:
  friend struct detail::TaskGroupAccess;

  // Made by `withThrowingTaskGroup` for the task that owns `parent`.
  explicit ThrowingTaskGroup(detail::TaskContext& parent) noexcept : core_(parent) {}

  // Awaits every remaining child, dropping outcomes and errors (what leaving the group does).
  Async<void> drain() {
    bool more = true;
    while (more) {
      try {
        more = static_cast<bool>(co_await next());
      } catch (...) {
      }
    }
    co_return;
  }

  detail::GroupCore core_;
};

namespace detail {
// What `withThrowingTaskGroup` alone may do with a group: make it and drain it.
struct TaskGroupAccess {
  template <class ChildResult>
  static ThrowingTaskGroup<ChildResult> make(TaskContext& parent) noexcept {
    return ThrowingTaskGroup<ChildResult>(parent);
  }
  template <class ChildResult>
  static Async<void> drain(ThrowingTaskGroup<ChildResult>& group) {
    return group.drain();
  }
};
}  // namespace detail

/// Runs `body(group)` (a callable taking `ThrowingTaskGroup<ChildResult>&` and returning an
/// `Async`) with a new task group and returns what it returns.
///
/// On the way out the group awaits every child that is still running: after a normal return their
/// outcomes are dropped; if `body` threw, the children are cancelled first and the body's error is
/// rethrown once they have all finished.
template <class ChildResult, class Body>
auto withThrowingTaskGroup(Body body)
    -> Async<AsyncResultOf<Body, ThrowingTaskGroup<ChildResult>&>> {
  using R = AsyncResultOf<Body, ThrowingTaskGroup<ChildResult>&>;
  detail::TaskContext& context = co_await detail::ContextAwaiter{};
  ThrowingTaskGroup<ChildResult> group = detail::TaskGroupAccess::make<ChildResult>(context);
  std::exception_ptr error;
  std::optional<std::conditional_t<std::is_void_v<R>, bool, R>> value;
  try {
    auto work = body(group);
    if constexpr (std::is_void_v<R>) {
      co_await std::move(work);
      value.emplace(true);
    } else {
      R produced = co_await std::move(work);
      value.emplace(std::move(produced));
    }
  } catch (...) {
    error = std::current_exception();
  }
  if (error) group.cancelAll();
  auto remaining = detail::TaskGroupAccess::drain(group);
  co_await std::move(remaining);
  if (error) std::rethrow_exception(error);
  if constexpr (!std::is_void_v<R>) co_return std::move(*value);
}

}  // namespace carrow
