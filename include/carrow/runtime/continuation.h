#pragma once

#include <atomic>
#include <coroutine>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include <carrow/runtime/detail/task_context.h>
#include <carrow/runtime/result.h>

namespace carrow {

namespace detail {

/// Where a suspended task waits for its continuation: lives in the awaiting frame.
template <class T>
struct ContinuationSlot {
  // Stores the outcome, then queues the task on its executor. The slot (and the frame) may be
  // gone as soon as the task is queued, so nothing is touched afterwards.
  void deliver(Result<T>&& outcome) noexcept {
    result.emplace(std::move(outcome));
    context->schedule(handle);
  }

  TaskContext* context = nullptr;
  std::coroutine_handle<> handle;
  std::optional<Result<T>> result;
};

/// Reports a continuation dropped without resume (stderr) and a second resume (process stop).
void reportLeakedContinuation(const std::string& name) noexcept;
[[noreturn]] void reportResumedTwice(const std::string& name) noexcept;

template <class T>
struct CheckedState {
  CheckedState(std::string_view continuationName, ContinuationSlot<T>* target)
      : name(continuationName), slot(target) {}
  ~CheckedState() {
    if (!resumed.load(std::memory_order_acquire)) reportLeakedContinuation(name);
  }
  // Claims the one allowed resume.
  ContinuationSlot<T>* claim() noexcept {
    if (resumed.exchange(true, std::memory_order_acq_rel)) reportResumedTwice(name);
    return slot;
  }

  std::string name;
  ContinuationSlot<T>* slot;
  std::atomic<bool> resumed{false};
};

}  // namespace detail

/// A one-shot handle that resumes one suspended task, with no checks: resuming twice, or never,
/// is undefined behaviour. Copyable; all copies name the same suspension.
///
/// Resuming stores the outcome and queues the task on its executor: it never runs the task's
/// code on the resuming thread, so it may be called while holding locks, and from any thread.
template <class T>
class UnsafeContinuation {
 public:
  /// Resumes the task with `value`.
  void resume(T value) const noexcept(std::is_nothrow_move_constructible_v<T>) {
    slot_->deliver(Result<T>::success(std::move(value)));
  }
  /// Resumes the task with `error`, which the awaiting code throws.
  void resumeThrowing(std::exception_ptr error) const noexcept {
    slot_->deliver(Result<T>::failure(std::move(error)));
  }
  template <class Error>
  void resumeThrowing(Error error) const {
    resumeThrowing(std::make_exception_ptr(std::move(error)));
  }
  /// Resumes with the value or the error that `outcome` holds.
  void resumeWith(Result<T> outcome) const noexcept { slot_->deliver(std::move(outcome)); }

  /// Made by `withUnsafe...Continuation`.
  explicit UnsafeContinuation(detail::ContinuationSlot<T>* slot) noexcept : slot_(slot) {}

 private:
  detail::ContinuationSlot<T>* slot_;
};

template <>
class UnsafeContinuation<void> {
 public:
  void resume() const noexcept { slot_->deliver(Result<void>::success()); }
  void resumeThrowing(std::exception_ptr error) const noexcept {
    slot_->deliver(Result<void>::failure(std::move(error)));
  }
  template <class Error>
  void resumeThrowing(Error error) const {
    resumeThrowing(std::make_exception_ptr(std::move(error)));
  }
  void resumeWith(Result<void> outcome) const noexcept { slot_->deliver(std::move(outcome)); }

  explicit UnsafeContinuation(detail::ContinuationSlot<void>* slot) noexcept : slot_(slot) {}

 private:
  detail::ContinuationSlot<void>* slot_;
};

/// The error type of a continuation that cannot fail: no value of it exists, so a
/// `CheckedContinuation<T, Never>` has no way to be resumed with an error.
enum class Never {};

/// A continuation that checks it is resumed exactly once. A second resume stops the process with
/// a message naming the continuation; when the last copy is destroyed without a resume, that is
/// reported on stderr (the task then never continues). Copyable; copies share the check.
///
/// `Failure` is `std::exception_ptr` for the continuations of `withCheckedThrowingContinuation`,
/// which may resume with an error, and `Never` for those of `withCheckedContinuation`, which can
/// only resume with a value.
template <class T, class Failure = std::exception_ptr>
class CheckedContinuation {
 public:
  static constexpr bool kThrows = !std::is_same_v<Failure, Never>;

  /// Resumes the task with `value`.
  void resume(T value) const noexcept(std::is_nothrow_move_constructible_v<T>) {
    state_->claim()->deliver(Result<T>::success(std::move(value)));
  }
  /// Resumes the task with `error`, which the awaiting code throws.
  void resumeThrowing(std::exception_ptr error) const noexcept requires kThrows {
    state_->claim()->deliver(Result<T>::failure(std::move(error)));
  }
  template <class Error>
  requires kThrows void resumeThrowing(Error error) const {
    resumeThrowing(std::make_exception_ptr(std::move(error)));
  }
  /// Resumes with the value or the error that `outcome` holds.
  void resumeWith(Result<T> outcome) const noexcept requires kThrows {
    state_->claim()->deliver(std::move(outcome));
  }

  /// The name given at creation, for diagnostics.
  const std::string& name() const noexcept { return state_->name; }

  /// Made by `withChecked...Continuation`.
  explicit CheckedContinuation(std::shared_ptr<detail::CheckedState<T>> state) noexcept
      : state_(std::move(state)) {}

 private:
  std::shared_ptr<detail::CheckedState<T>> state_;
};

template <class Failure>
class CheckedContinuation<void, Failure> {
 public:
  static constexpr bool kThrows = !std::is_same_v<Failure, Never>;

  void resume() const noexcept { state_->claim()->deliver(Result<void>::success()); }
  void resumeThrowing(std::exception_ptr error) const noexcept requires kThrows {
    state_->claim()->deliver(Result<void>::failure(std::move(error)));
  }
  template <class Error>
  requires kThrows void resumeThrowing(Error error) const {
    resumeThrowing(std::make_exception_ptr(std::move(error)));
  }
  void resumeWith(Result<void> outcome) const noexcept requires kThrows {
    state_->claim()->deliver(std::move(outcome));
  }
  const std::string& name() const noexcept { return state_->name; }

  explicit CheckedContinuation(std::shared_ptr<detail::CheckedState<void>> state) noexcept
      : state_(std::move(state)) {}

 private:
  std::shared_ptr<detail::CheckedState<void>> state_;
};

namespace detail {

/// Suspends the awaiting task and hands a continuation for it to `body`, synchronously.
template <class T, class Body, bool Checked, class Failure = std::exception_ptr>
class ContinuationAwaiter {
 public:
  ContinuationAwaiter(std::string_view name, Body body) : name_(name), body_(std::move(body)) {}

  bool await_ready() const noexcept { return false; }

  template <RuntimePromise Promise>
  void await_suspend(std::coroutine_handle<Promise> handle) {
    slot_.context = handle.promise().context;
    slot_.handle = handle;
    // Everything that can throw happens before the continuation exists. The body is moved to
    // this stack frame: once it resumes the continuation, the coroutine frame (and this awaiter)
    // may be destroyed on another thread while the body is still returning.
    Body body = std::move(body_);
    if constexpr (Checked) {
      auto state = std::make_shared<CheckedState<T>>(name_, &slot_);
      callBody(body, CheckedContinuation<T, Failure>(std::move(state)));
    } else {
      callBody(body, UnsafeContinuation<T>(&slot_));
    }
  }

  T await_resume() {
    if constexpr (std::is_void_v<T>) {
      slot_.result->get();
    } else {
      return std::move(*slot_.result).get();
    }
  }

 private:
  template <class Continuation>
  static void callBody(Body& body, Continuation continuation) noexcept {
    try {
      body(std::move(continuation));
    } catch (...) {
      runtimeFatal(__LINE__, "a continuation body threw; it must resume its continuation instead");
    }
  }

  std::string_view name_;
  Body body_;
  ContinuationSlot<T> slot_;
};

}  // namespace detail

/// `T value = co_await withCheckedThrowingContinuation<T>("name", body);`
///
/// Calls `body(CheckedContinuation<T>)` synchronously, before the caller suspends; the caller
/// continues, on its own executor, once the continuation is resumed, with the value or by
/// throwing the error. `body` must not throw. `name` must stay valid until the await has begun.
template <class T, class Body>
detail::ContinuationAwaiter<T, Body, true> withCheckedThrowingContinuation(std::string_view name,
                                                                           Body body) {
  return detail::ContinuationAwaiter<T, Body, true>(name, std::move(body));
}

/// As `withCheckedThrowingContinuation`, but `body` receives a `CheckedContinuation<T, Never>`,
/// which can only be resumed with a value: the await never throws.
template <class T, class Body>
detail::ContinuationAwaiter<T, Body, true, Never> withCheckedContinuation(std::string_view name,
                                                                          Body body) {
  return detail::ContinuationAwaiter<T, Body, true, Never>(name, std::move(body));
}

/// As `withCheckedThrowingContinuation` without the checks (and without their allocation).
template <class T, class Body>
detail::ContinuationAwaiter<T, Body, false> withUnsafeThrowingContinuation(Body body) {
  return detail::ContinuationAwaiter<T, Body, false>(std::string_view(), std::move(body));
}

/// As `withUnsafeThrowingContinuation`; the same unchecked continuation, named for the awaits
/// whose callers only ever resume with a value (nothing enforces it).
template <class T, class Body>
detail::ContinuationAwaiter<T, Body, false> withUnsafeContinuation(Body body) {
  return detail::ContinuationAwaiter<T, Body, false>(std::string_view(), std::move(body));
}

}  // namespace carrow
