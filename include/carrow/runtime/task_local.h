#pragma once

#include <memory>
#include <utility>

#include <carrow/runtime/async.h>
#include <carrow/runtime/detail/task_context.h>

namespace carrow {

namespace detail {

// Puts the previous bindings back when a `withValue` scope ends, normally or by an error.
struct LocalsRestore {
  TaskContext& context;
  std::shared_ptr<const LocalBinding> previous;
  ~LocalsRestore() { context.locals = std::move(previous); }
};

}  // namespace detail

/// A value bound per task for a scope: `co_await requestID.withValue(42, work)` makes
/// `requestID.get()` return 42 inside `work` and in every task that `work` starts (unstructured
/// tasks and group children inherit the bindings in force where they are started).
///
/// Declare task-locals as long-lived objects (for example `static`); the object itself is the
/// key. Reading outside any binding, or outside any task, gives the default value.
template <class T>
class TaskLocal {
 public:
  explicit TaskLocal(T defaultValue = T()) : defaultValue_(std::move(defaultValue)) {}
  TaskLocal(const TaskLocal&) = delete;
  TaskLocal& operator=(const TaskLocal&) = delete;

  /// The innermost value bound in the current task, or the default.
  T get() const {
    const detail::TaskContext* context = detail::currentTaskContext();
    if (context != nullptr) {
      for (const detail::LocalBinding* binding = context->locals.get(); binding != nullptr;
           binding = binding->next.get()) {
        if (binding->key == this) return *static_cast<const T*>(binding->value.get());
      }
    }
    return defaultValue_;
  }

  /// Runs `fn()` (a callable returning an `Async`) with this task-local bound to `value`, and
  /// returns what it returns. `fn` is kept alive until it has finished.
  template <class Fn>
  Async<AsyncResultOf<Fn>> withValue(T value, Fn fn) const {
    detail::TaskContext& context = co_await detail::ContextAwaiter{};
    auto bound = std::make_shared<const T>(std::move(value));
    auto binding = std::make_shared<const detail::LocalBinding>(
        detail::LocalBinding{this, std::move(bound), context.locals});
    detail::LocalsRestore restore{context, context.locals};
    context.locals = std::move(binding);
    auto work = fn();
    co_return co_await std::move(work);
  }

 private:
  T defaultValue_;
};

}  // namespace carrow
