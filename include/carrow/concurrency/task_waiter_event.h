#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <utility>

#include <carrow/runtime/result.h>

namespace carrow {

/// The event that ends a bounded wait for a task; the first one a wait sees decides it.
///
/// - `taskCompleted(result)`: the awaited task finished, with a value or an error;
/// - `timedOut()`: the time limit passed first;
/// - `cancelled()`: the waiting task was cancelled first.
///
/// A regular value type, copyable when `T` is (`T` may be void).
template <class T>
class TaskWaiterEvent {
 public:
  enum class Kind : std::uint8_t { taskCompleted, timedOut, cancelled };

  static TaskWaiterEvent taskCompleted(Result<T> result) {
    return TaskWaiterEvent(Kind::taskCompleted, std::move(result));
  }
  static TaskWaiterEvent timedOut() { return TaskWaiterEvent(Kind::timedOut, std::nullopt); }
  static TaskWaiterEvent cancelled() { return TaskWaiterEvent(Kind::cancelled, std::nullopt); }

  Kind kind() const noexcept { return kind_; }

  /// The awaited task's outcome. Only `taskCompleted` carries one; asking another event for it
  /// throws std::logic_error.
  const Result<T>& result() const& {
    requireResult();
    return *result_;
  }
  Result<T> result() && {
    requireResult();
    return std::move(*result_);
  }

 private:
  TaskWaiterEvent(Kind kind, std::optional<Result<T>> result)
      : kind_(kind), result_(std::move(result)) {}

  void requireResult() const {
    if (!result_) throw std::logic_error("TaskWaiterEvent: only taskCompleted carries a result");
  }

  Kind kind_;
  std::optional<Result<T>> result_;
};

}  // namespace carrow
