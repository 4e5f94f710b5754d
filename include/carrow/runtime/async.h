#pragma once

#include <atomic>
#include <coroutine>
#include <cstdint>
#include <exception>
#include <type_traits>
#include <utility>
#include <variant>

#include <carrow/runtime/detail/task_context.h>

namespace carrow {

template <class T>
class Async;
template <class T>
class Task;

namespace detail {

template <class T>
class TaskStateBase;

// Handshake between an awaiting coroutine and the Async child it runs inline: whoever gets there
// second decides who continues the parent (see AsyncAwaiter::await_suspend).
inline constexpr std::uint8_t kChildRunning = 0;
inline constexpr std::uint8_t kParentSuspended = 1;
inline constexpr std::uint8_t kChildCompleted = 2;

class AsyncPromiseBase : public PromiseBase {
 public:
  std::suspend_always initial_suspend() const noexcept { return {}; }

  struct FinalAwaiter {
    bool await_ready() const noexcept { return false; }
    template <class Promise>
    void await_suspend(std::coroutine_handle<Promise> handle) const noexcept {
      handle.promise().finish();
    }
    void await_resume() const noexcept {}
  };
  FinalAwaiter final_suspend() const noexcept { return {}; }

  /// Called once the body has finished: hands control back to whoever awaits it. Nothing in the
  /// frame may be touched afterwards.
  void finish() noexcept;

  std::coroutine_handle<> continuation;
  Executor* callerExecutor = nullptr;
  std::atomic<std::uint8_t> handshake{kChildRunning};
  // Set by `finish` when the body ended inside the parent's own resume call, on its thread.
  bool completedInline = false;
  bool isTaskBody = false;
};

/// Marks `child` as being resumed inline by its parent on the calling thread, returning the mark
/// it replaces; `endInlineResume` puts that back. Out of line, so the thread-local is never
/// cached in a coroutine frame.
void* beginInlineResume(AsyncPromiseBase* child) noexcept;
void endInlineResume(void* previous) noexcept;

template <class T>
class AsyncPromise : public AsyncPromiseBase {
 public:
  Async<T> get_return_object() noexcept;

  template <class U = T>
  requires std::is_constructible_v<T, U&&>
  void return_value(U&& value) noexcept(std::is_nothrow_constructible_v<T, U&&>) {
    storage_.template emplace<1>(std::forward<U>(value));
  }
  void unhandled_exception() noexcept { storage_.template emplace<2>(std::current_exception()); }

  T takeResult() {
    if (storage_.index() == 2) std::rethrow_exception(std::get<2>(storage_));
    return std::move(std::get<1>(storage_));
  }

 private:
  std::variant<std::monostate, T, std::exception_ptr> storage_;
};

template <>
class AsyncPromise<void> : public AsyncPromiseBase {
 public:
  Async<void> get_return_object() noexcept;
  void return_void() const noexcept {}
  void unhandled_exception() noexcept { error_ = std::current_exception(); }

  void takeResult() {
    if (error_) std::rethrow_exception(error_);
  }

 private:
  std::exception_ptr error_;
};

template <class A>
struct AsyncValueOf;
template <class T>
struct AsyncValueOf<Async<T>> {
  using type = T;
};

}  // namespace detail

/// The value type of the `Async` that `Fn` returns when called with `Args`.
template <class Fn, class... Args>
using AsyncResultOf =
    typename detail::AsyncValueOf<std::remove_cvref_t<std::invoke_result_t<Fn&, Args...>>>::type;

/// The coroutine type of async functions: `Async<int> load() { ... co_return 42; }`.
///
/// An `Async` is lazy and is awaited exactly once: `int v = co_await load();`. It runs as part of
/// the task that awaits it, with that task's cancellation, priority, task-local values and
/// executor. If the function moves to another executor (`co_await actor.enter()`), the awaiting
/// function is back on its own executor when the await returns.
///
/// Awaiting a function that finishes without suspending costs no scheduling and no stack: the
/// awaiting coroutine continues in place, so long loops of such awaits run in constant stack.
/// An `Async` can only be awaited from another `Async` (the task is found through the awaiting
/// coroutine); `Task::start` and `runMain` are the ways in from ordinary code.
template <class T>
class [[nodiscard]] Async {
  static_assert(!std::is_reference_v<T>, "an async function returns values, not references");

 public:
  using value_type = T;
  using promise_type = detail::AsyncPromise<T>;

  Async(Async&& other) noexcept : handle_(std::exchange(other.handle_, {})) {}
  Async& operator=(Async other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~Async() {
    if (handle_) handle_.destroy();
  }

  class Awaiter {
   public:
    explicit Awaiter(std::coroutine_handle<promise_type> child) noexcept : child_(child) {}

    bool await_ready() const noexcept { return false; }

    // Runs the child inline. If it completes before it ever suspends, it says so through
    // `completedInline` (same thread, no atomics) and the parent continues without suspending:
    // no stack growth, no queueing. If it suspended, it may be completing on another thread
    // right now, and the atomic handshake decides who continues the parent: whoever gets there
    // second.
    template <detail::RuntimePromise Promise>
    bool await_suspend(std::coroutine_handle<Promise> parent) const noexcept {
      promise_type& child = child_.promise();
      child.context = parent.promise().context;
      child.continuation = parent;
      child.callerExecutor = child.context->executor;
      void* previous = detail::beginInlineResume(&child);
      child_.resume();
      detail::endInlineResume(previous);
      if (child.completedInline) return false;
      return child.handshake.exchange(detail::kParentSuspended, std::memory_order_acq_rel)
             != detail::kChildCompleted;
    }

    T await_resume() const { return child_.promise().takeResult(); }

   private:
    std::coroutine_handle<promise_type> child_;
  };

  Awaiter operator co_await() && noexcept { return Awaiter(handle_); }

 private:
  template <class>
  friend class detail::AsyncPromise;
  template <class>
  friend class Task;
  template <class>
  friend class detail::TaskStateBase;

  explicit Async(std::coroutine_handle<promise_type> handle) noexcept : handle_(handle) {}

  std::coroutine_handle<> release() noexcept { return std::exchange(handle_, {}); }

  std::coroutine_handle<promise_type> handle_;
};

namespace detail {

template <class T>
Async<T> AsyncPromise<T>::get_return_object() noexcept {
  return Async<T>(std::coroutine_handle<AsyncPromise<T>>::from_promise(*this));
}
inline Async<void> AsyncPromise<void>::get_return_object() noexcept {
  return Async<void>(std::coroutine_handle<AsyncPromise<void>>::from_promise(*this));
}

/// `co_await YieldAwaiter{}` queues the task behind the jobs already waiting on its executor.
struct YieldAwaiter {
  bool await_ready() const noexcept { return false; }
  template <RuntimePromise Promise>
  void await_suspend(std::coroutine_handle<Promise> handle) const noexcept {
    handle.promise().context->schedule(handle);
  }
  void await_resume() const noexcept {}
};

}  // namespace detail

/// Suspends the current task and queues it again on its executor, letting other work run first.
inline detail::YieldAwaiter yieldNow() noexcept {
  return {};
}

}  // namespace carrow
