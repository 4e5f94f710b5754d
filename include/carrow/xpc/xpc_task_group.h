#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <carrow/concurrency/unfair_lock.h>
#include <carrow/runtime/cancellable_task.h>
#include <carrow/runtime/cancellation.h>
#include <carrow/runtime/result.h>
#include <carrow/runtime/task.h>
#include <carrow/xpc/domain_error.h>

namespace carrow {

/// The registry of the tasks that serve the requests of one connection. Every request runs
/// through `withXPCTask`, which numbers it (1, 2, ... never reused), registers its task, logs its
/// start and end, and removes it when it ends. An interruption of the connection cancels every
/// registered task; an invalidation cancels those registered with `cancelOnInvalidation`. When a
/// cancelled task ends, the time since its cancellation is logged. Records go through `CRLog`
/// with category "XPCTask".
///
/// Held by `std::shared_ptr` (the connection's handlers hold it strongly). Every operation may be
/// called from any thread; the maps are guarded by one lock that is never held while waiting.
class XPCTaskGroup {
 public:
  /// When a request's task is cancelled besides an interruption (option set over an int32_t).
  class TaskOptions {
   public:
    constexpr TaskOptions() noexcept = default;
    constexpr explicit TaskOptions(std::int32_t rawValue) noexcept : rawValue_(rawValue) {}
    /// Cancel the task when the connection is invalidated, too.
    static constexpr TaskOptions cancelOnInvalidation() noexcept { return TaskOptions(1); }
    constexpr std::int32_t rawValue() const noexcept { return rawValue_; }
    constexpr bool contains(TaskOptions other) const noexcept {
      return (rawValue_ & other.rawValue_) == other.rawValue_;
    }
    friend constexpr bool operator==(TaskOptions, TaskOptions) = default;

   private:
    std::int32_t rawValue_ = 0;
  };

  /// A registered task, kept only so that it can be cancelled.
  struct TaskEntry {
    std::shared_ptr<const CancellableTask> erasedTask;
    TaskOptions options;
  };

  /// A group for the connection whose identity is `connectionID` (used only in log text; the
  /// group does not keep the connection).
  explicit XPCTaskGroup(const void* connectionID);
  virtual ~XPCTaskGroup() = default;
  XPCTaskGroup(const XPCTaskGroup&) = delete;
  XPCTaskGroup& operator=(const XPCTaskGroup&) = delete;

  /// Serves one request: starts `operation()` (a callable returning `Async<T>`) as a new task,
  /// registers it, waits for it (cancelling the waiting caller cancels it), logs, unregisters,
  /// and returns its value. Its error is thrown reduced to a `DomainError` (domain and code).
  template <class Operation>
  Async<AsyncResultOf<Operation>> withXPCTask(TaskOptions options, std::string selector,
                                              Operation operation);

  /// Called by the connection's interruption handler: cancels every registered task.
  virtual void connectionInterrupted();
  /// Called by the connection's invalidation handler: cancels the tasks registered with
  /// `cancelOnInvalidation` and unregisters them.
  virtual void connectionInvalidated();

  /// "ObjectIdentifier(0x...)": the printed form of the connection identity in log text.
  const std::string& connectionDescription() const noexcept { return connectionDescription_; }

  /// The numbers of the registered tasks, in order (for inspection).
  std::vector<std::int64_t> registeredTaskNumbers() const;

 private:
  std::int64_t registerTask(std::shared_ptr<const CancellableTask> task, TaskOptions options);
  void logStart(std::int64_t number, const std::string& selector) const;
  // Steps after the task ended: the cancellation latency, the end record, unregistering.
  void finishTask(std::int64_t number, const std::string& selector);

  mutable CRUnfairLock lock_;
  std::int64_t taskCounter_ = 0;
  std::map<std::int64_t, TaskEntry> tasks_;
  std::map<std::int64_t, std::chrono::steady_clock::time_point> cancellationDates_;
  const void* connectionID_;
  std::string connectionDescription_;
};

template <class Operation>
Async<AsyncResultOf<Operation>> XPCTaskGroup::withXPCTask(TaskOptions options, std::string selector,
                                                          Operation operation) {
  using T = AsyncResultOf<Operation>;
  Task<T> task = Task<T>::start(std::move(operation));
  const std::int64_t number = registerTask(std::make_shared<const Task<T>>(task), options);
  logStart(number, selector);
  auto awaitTask = [task]() -> Async<Result<T>> { co_return co_await task.result(); };
  auto cancelTask = [task]() noexcept { task.cancel(); };
  Result<T> outcome = co_await withTaskCancellationHandler(awaitTask, cancelTask);
  finishTask(number, selector);
  if (!outcome) {
    throw DomainError::reduce(outcome.error());
  }
  if constexpr (!std::is_void_v<T>) co_return std::move(outcome).get();
}

}  // namespace carrow
