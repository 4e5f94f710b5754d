#pragma once

#include <exception>
#include <type_traits>
#include <utility>
#include <variant>

namespace carrow {

/// The outcome of a Task: a value (nothing for `Result<void>`) or an error.
///
/// `Task::result()` hands one out without ever throwing; `get()` turns it back into the value or
/// the rethrown error. A regular value type: copyable when `T` is.
template <class T>
class Result {
  static_assert(!std::is_reference_v<T>, "a Result holds values, not references");

 public:
  /// A successful outcome.
  static Result success(T value) { return Result(std::in_place_index<0>, std::move(value)); }
  /// A failed outcome; `error` must not be null.
  static Result failure(std::exception_ptr error) {
    return Result(std::in_place_index<1>, std::move(error));
  }

  /// True for a success.
  bool hasValue() const noexcept { return storage_.index() == 0; }
  explicit operator bool() const noexcept { return hasValue(); }

  /// The value, or rethrows the error.
  T& get() & {
    if (!hasValue()) std::rethrow_exception(std::get<1>(storage_));
    return std::get<0>(storage_);
  }
  const T& get() const& {
    if (!hasValue()) std::rethrow_exception(std::get<1>(storage_));
    return std::get<0>(storage_);
  }
  T get() && {
    if (!hasValue()) std::rethrow_exception(std::get<1>(storage_));
    return std::move(std::get<0>(storage_));
  }

  /// The error; null for a success.
  std::exception_ptr error() const noexcept {
    return hasValue() ? std::exception_ptr() : std::get<1>(storage_);
  }

 private:
  template <std::size_t I, class A>
  Result(std::in_place_index_t<I> index, A&& payload) : storage_(index, std::forward<A>(payload)) {}

  std::variant<T, std::exception_ptr> storage_;
};

/// The outcome of work that produces nothing: success, or an error.
template <>
class Result<void> {
 public:
  /// A successful outcome.
  static Result success() { return Result(); }
  /// A failed outcome; `error` must not be null.
  static Result failure(std::exception_ptr error) {
    Result result;
    result.error_ = std::move(error);
    return result;
  }

  /// True for a success.
  bool hasValue() const noexcept { return error_ == nullptr; }
  explicit operator bool() const noexcept { return hasValue(); }

  /// Returns on success, rethrows the error otherwise.
  void get() const {
    if (error_) std::rethrow_exception(error_);
  }

  std::exception_ptr error() const noexcept { return error_; }

 private:
  std::exception_ptr error_;
};

}  // namespace carrow
