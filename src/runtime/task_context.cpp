#include <mutex>
#include <string>
#include <thread>

#include <carrow/platform/fatal_error.h>
#include <carrow/runtime/actor.h>
#include <carrow/runtime/async.h>
#include <carrow/runtime/cancellation.h>
#include <carrow/runtime/cancellation_error.h>
#include <carrow/runtime/detail/task_context.h>
#include <carrow/runtime/detail/task_state.h>

namespace carrow {

namespace {

// Only ever read through the out-of-line accessors below, so no coroutine can keep a stale
// thread-local address across a suspension. Every job reads and writes them, so they use the
// initial-exec model: a fixed offset from the thread pointer, instead of a call into the dynamic
// loader that a shared library's thread-locals cost by default. They take a few words of the
// static TLS surplus the loader keeps for libraries, which is there even when loaded with dlopen.
[[gnu::tls_model("initial-exec")]] thread_local detail::TaskContext* currentTask = nullptr;
[[gnu::tls_model("initial-exec")]] thread_local const void* currentExecutor = nullptr;
// The Async child that its parent is resuming inline on this thread, if any.
[[gnu::tls_model("initial-exec")]] thread_local void* inlineChild = nullptr;

constexpr std::uint32_t kRecordIdle = 0;
constexpr std::uint32_t kRecordRegistered = 1;
constexpr std::uint32_t kRecordRunning = 2;
constexpr std::uint32_t kRecordDone = 3;

}  // namespace

const char* CancellationError::what() const noexcept {
  return "CancellationError";
}

bool Executor::isCurrent() const noexcept {
  return currentExecutor == identity_;
}

bool isCancelled() noexcept {
  const detail::TaskContext* context = currentTask;
  return context != nullptr && context->isCancelled();
}

void checkCancellation() {
  if (isCancelled()) throw CancellationError();
}

namespace detail {

TaskContext* currentTaskContext() noexcept {
  return currentTask;
}
const void* currentExecutorIdentity() noexcept {
  return currentExecutor;
}

CurrentTaskScope::CurrentTaskScope(TaskContext* context) noexcept : previous_(currentTask) {
  currentTask = context;
}
CurrentTaskScope::~CurrentTaskScope() {
  currentTask = previous_;
}

CurrentExecutorScope::CurrentExecutorScope(const void* executorIdentity) noexcept
    : previous_(currentExecutor) {
  currentExecutor = executorIdentity;
}
CurrentExecutorScope::~CurrentExecutorScope() {
  currentExecutor = previous_;
}

void runtimeFatal(std::uint64_t line, const char* message) noexcept {
  fatalError("CarrowPrivate/Runtime", line, message);
}

TaskPriority inheritedPriority() noexcept {
  const TaskContext* context = currentTask;
  return context != nullptr ? context->priority : TaskPriority::medium;
}

std::shared_ptr<const LocalBinding> inheritedLocals() noexcept {
  const TaskContext* context = currentTask;
  return context != nullptr ? context->locals : nullptr;
}

void ResumeJob::run() noexcept {
  // The job lives in the task's context, which may be gone once the coroutine suspends or ends.
  CurrentTaskScope scope(&context_);
  std::coroutine_handle<> resumed = handle;
  resumed.resume();
}

TaskContext::TaskContext(TaskPriority taskPriority,
                         std::shared_ptr<const LocalBinding> taskLocals) noexcept
    : executor(&globalExecutor()), priority(taskPriority), locals(std::move(taskLocals)) {}

void TaskContext::cancel() noexcept {
  if ((flags_.fetch_or(kCancelled, std::memory_order_acq_rel) & kCancelled) != 0) return;
  // Every record registered before the flag was set is claimed here; any registered later sees
  // the flag under the lock and runs its handler itself.
  CancellationRecord* claimed = nullptr;
  {
    std::lock_guard guard(recordsLock_);
    claimed = std::exchange(records_, nullptr);
    for (CancellationRecord* record = claimed; record != nullptr; record = record->next) {
      record->state.store(kRecordRunning, std::memory_order_relaxed);
    }
  }
  while (claimed != nullptr) {
    CancellationRecord* next = claimed->next;
    claimed->onCancel(*claimed);
    // After this store the record's owner may return and free it.
    claimed->state.store(kRecordDone, std::memory_order_release);
    claimed = next;
  }
}

bool TaskContext::addCancellationRecord(CancellationRecord& record) noexcept {
  std::lock_guard guard(recordsLock_);
  if (isCancelled()) return false;
  record.state.store(kRecordRegistered, std::memory_order_relaxed);
  record.prev = nullptr;
  record.next = records_;
  if (records_ != nullptr) records_->prev = &record;
  records_ = &record;
  return true;
}

void TaskContext::removeCancellationRecord(CancellationRecord& record) noexcept {
  {
    std::lock_guard guard(recordsLock_);
    std::uint32_t state = record.state.load(std::memory_order_relaxed);
    if (state == kRecordIdle) return;
    if (state == kRecordRegistered) {
      if (record.prev != nullptr) {
        record.prev->next = record.next;
      } else {
        records_ = record.next;
      }
      if (record.next != nullptr) record.next->prev = record.prev;
      record.state.store(kRecordIdle, std::memory_order_relaxed);
      return;
    }
  }
  // Claimed by a cancellation: its handler is running (or about to) on another thread.
  while (record.state.load(std::memory_order_acquire) != kRecordDone) std::this_thread::yield();
}

void AsyncPromiseBase::finish() noexcept {
  if (isTaskBody) {
    context->bodyFinished();
    return;
  }
  TaskContext* task = context;
  Executor* caller = callerExecutor;
  std::coroutine_handle<> parent = continuation;
  // The caller always continues on its own executor, whatever this function moved to.
  task->executor = caller;
  if (inlineChild == this) {
    completedInline = true;  // the parent, on this thread, continues once resume() returns
    return;
  }
  if (handshake.exchange(kChildCompleted, std::memory_order_acq_rel) == kChildRunning) {
    return;  // The parent is still inside its await_suspend and continues from there.
  }
  if (caller->isCurrent()) {
    parent.resume();
  } else {
    task->schedule(parent);
  }
}

void* beginInlineResume(AsyncPromiseBase* child) noexcept {
  return std::exchange(inlineChild, child);
}

void endInlineResume(void* previous) noexcept {
  inlineChild = previous;
}

bool tryHopInline(Executor& target) noexcept {
  if (!target.isCurrent()) return false;
  TaskContext* context = currentTask;
  if (context != nullptr) context->executor = &target;
  return true;
}

}  // namespace detail

}  // namespace carrow
