#pragma once

#include <type_traits>
#include <utility>

#include <carrow/runtime/async.h>
#include <carrow/runtime/cancellation_error.h>
#include <carrow/runtime/detail/task_context.h>

namespace carrow {

/// True if the task running the caller has been cancelled; false outside any task.
bool isCancelled() noexcept;

/// Throws `CancellationError` if the task running the caller has been cancelled.
void checkCancellation();

namespace detail {

template <class OnCancel>
struct HandlerRecord : CancellationRecord {
  explicit HandlerRecord(OnCancel& handler) noexcept
      : CancellationRecord(&fire), onCancel(handler) {}
  static void fire(CancellationRecord& record) noexcept {
    static_cast<HandlerRecord&>(record).onCancel();
  }
  OnCancel& onCancel;
};

// Unregisters the record when the operation's scope ends, on success or error alike.
struct RecordRegistration {
  TaskContext& context;
  CancellationRecord& record;
  ~RecordRegistration() { context.removeCancellationRecord(record); }
};

}  // namespace detail

/// Runs `operation()` (an async function) and, if the current task is cancelled while it runs,
/// calls `onCancel()` once.
///
/// - If the task is already cancelled, `onCancel()` runs synchronously at entry, before the
///   operation starts (the operation still runs and should notice the cancellation).
/// - Otherwise `onCancel()` runs on the thread that cancels the task, concurrently with the
///   operation, with no runtime lock held: it may take the caller's own locks, resume
///   continuations and cancel other tasks. It must not throw.
/// - It never runs after this call has returned: if a cancellation has already started the
///   handler when the operation ends, the return waits for the handler to finish.
///
/// Both callables are kept in this call's frame until it returns.
template <class Operation, class OnCancel>
Async<AsyncResultOf<Operation>> withTaskCancellationHandler(Operation operation,
                                                            OnCancel onCancel) {
  detail::TaskContext& context = co_await detail::ContextAwaiter{};
  detail::HandlerRecord<OnCancel> record(onCancel);
  if (!context.addCancellationRecord(record)) onCancel();
  detail::RecordRegistration registration{context, record};
  auto work = operation();
  co_return co_await std::move(work);
}

}  // namespace carrow
