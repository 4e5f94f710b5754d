#pragma once

// The per-task state that every coroutine of a task reaches through its promise: cancellation,
// priority, task-local values, the executor the task currently runs on, and the job that schedules
// its resumption. Internal to the runtime.

#include <atomic>
#include <concepts>
#include <coroutine>
#include <cstdint>
#include <memory>
#include <mutex>

#include <carrow/concurrency/unfair_lock.h>
#include <carrow/runtime/executor.h>
#include <carrow/runtime/task_priority.h>

namespace carrow::detail {

class TaskContext;

/// One binding of a task-local value. Bindings form an immutable list shared by a task, the
/// tasks it starts and the children of its groups, so inheriting costs one reference count.
struct LocalBinding {
  const void* key;
  std::shared_ptr<const void> value;
  std::shared_ptr<const LocalBinding> next;
};

/// A registered cancellation handler, embedded in the frame of the code that installed it.
/// `cancel()` claims every registered record under the task's record lock, then runs the
/// callbacks with no lock held; removal waits for a callback that has already been claimed.
struct CancellationRecord {
  explicit CancellationRecord(void (*onCancelFunction)(CancellationRecord&) noexcept) noexcept
      : onCancel(onCancelFunction) {}
  CancellationRecord(const CancellationRecord&) = delete;
  CancellationRecord& operator=(const CancellationRecord&) = delete;

  void (*onCancel)(CancellationRecord&) noexcept;
  CancellationRecord* prev = nullptr;
  CancellationRecord* next = nullptr;
  // kIdle, kRegistered, kRunning, kDone.
  std::atomic<std::uint32_t> state{0};
};

/// Resumes the task's suspended coroutine on the executor it was queued on.
class ResumeJob final : public Job {
 public:
  explicit ResumeJob(TaskContext& context) noexcept : context_(context) {}
  void run() noexcept override;

  std::coroutine_handle<> handle;

 private:
  TaskContext& context_;
};

/// Shared state of one task. Reference counted: held by `Task` handles, by a task group for its
/// children, and by the task itself until its body has finished.
class TaskContext {
 public:
  TaskContext(TaskPriority priority, std::shared_ptr<const LocalBinding> locals) noexcept;
  TaskContext(const TaskContext&) = delete;
  TaskContext& operator=(const TaskContext&) = delete;

  void retain() noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
  void release() noexcept {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy();
  }

  bool isCancelled() const noexcept {
    return (flags_.load(std::memory_order_acquire) & kCancelled) != 0;
  }

  /// Sets the cancellation flag and runs every registered handler once, on the calling thread,
  /// with no runtime lock held. Later calls do nothing.
  void cancel() noexcept;

  /// Registers `record` unless the task is already cancelled; returns false in that case (the
  /// caller then runs its handler itself, synchronously).
  bool addCancellationRecord(CancellationRecord& record) noexcept;

  /// Unregisters `record`. If `cancel()` has already claimed it, waits until its handler has
  /// returned, so no handler runs after the code that installed it has moved on.
  void removeCancellationRecord(CancellationRecord& record) noexcept;

  /// Queues the suspended coroutine `handle` of this task on the task's current executor.
  void schedule(std::coroutine_handle<> handle) noexcept {
    job_.handle = handle;
    executor->enqueue(job_);
  }

  /// Queues `handle` on `target`, which becomes the task's executor.
  void scheduleOn(Executor& target, std::coroutine_handle<> handle) noexcept {
    executor = &target;
    schedule(handle);
  }

  /// Called by the task's body coroutine once it has finished (see AsyncPromiseBase::finish).
  virtual void bodyFinished() noexcept {}

  /// The executor the task's code currently runs on. Written only by the task's own code.
  Executor* executor;
  TaskPriority priority;
  /// The task-local values in force. Read and written only by the task's own code.
  std::shared_ptr<const LocalBinding> locals;

 protected:
  virtual ~TaskContext() = default;
  /// Frees the task's state once the last reference is gone.
  virtual void destroy() noexcept { delete this; }

 private:
  static constexpr std::uint32_t kCancelled = 1;

  std::atomic<std::uint32_t> references_{1};
  std::atomic<std::uint32_t> flags_{0};
  CRUnfairLock recordsLock_;
  CancellationRecord* records_ = nullptr;
  ResumeJob job_{*this};
};

/// The task whose job the calling thread is running, or null on a thread outside the runtime.
/// Defined out of line on purpose: the thread-local is read fresh on every call.
TaskContext* currentTaskContext() noexcept;

/// Makes `context` the current task of this thread for the lifetime of the guard.
class CurrentTaskScope {
 public:
  explicit CurrentTaskScope(TaskContext* context) noexcept;
  ~CurrentTaskScope();
  CurrentTaskScope(const CurrentTaskScope&) = delete;
  CurrentTaskScope& operator=(const CurrentTaskScope&) = delete;

 private:
  TaskContext* previous_;
};

/// Makes the executor known by `executorIdentity` the one this thread runs jobs of, for the
/// lifetime of the guard.
class CurrentExecutorScope {
 public:
  explicit CurrentExecutorScope(const void* executorIdentity) noexcept;
  ~CurrentExecutorScope();
  CurrentExecutorScope(const CurrentExecutorScope&) = delete;
  CurrentExecutorScope& operator=(const CurrentExecutorScope&) = delete;

 private:
  const void* previous_;
};

/// Base of the promises of the runtime's coroutines: the awaiters find the task through it.
struct PromiseBase {
  TaskContext* context = nullptr;
};

template <class Promise>
concept RuntimePromise = std::derived_from<Promise, PromiseBase>;

/// `co_await ContextAwaiter{}` yields the awaiting task's context without suspending.
struct ContextAwaiter {
  bool await_ready() const noexcept { return false; }
  template <RuntimePromise Promise>
  bool await_suspend(std::coroutine_handle<Promise> handle) noexcept {
    context_ = handle.promise().context;
    return false;
  }
  TaskContext& await_resume() const noexcept { return *context_; }

  TaskContext* context_ = nullptr;
};

/// The identity of the executor whose job the calling thread runs, or null.
const void* currentExecutorIdentity() noexcept;

/// Stops the process with a runtime message (used for misuse the runtime cannot recover from).
[[noreturn]] void runtimeFatal(std::uint64_t line, const char* message) noexcept;

}  // namespace carrow::detail
