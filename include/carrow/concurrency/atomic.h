#pragma once

#include <concepts>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

#include <carrow/concurrency/unfair_lock.h>
#include <carrow/platform/fatal_error.h>

namespace carrow {

/// A value guarded by a `CRUnfairLock`, safe to read and write from any thread.
///
/// `Atomic` is a value type: copying it copies the value (read under the source's lock) and shares
/// the lock, while every `Atomic` built from a value gets a lock of its own. Each read, write and
/// `increment` takes the lock exactly once and so is indivisible; `modify` takes it twice (read,
/// then write back) and two concurrent modifies can lose an update. Code that needs an indivisible
/// read-change-write keeps its own `CRUnfairLock` and uses `withLock`.
template <class T>
class Atomic {
 public:
  explicit Atomic(T wrappedValue)
      : lock_(std::make_shared<CRUnfairLock>()), value_(std::move(wrappedValue)) {}
  Atomic() requires std::default_initializable<T> : Atomic(T{}) {}

  Atomic(const Atomic& other) : lock_(other.lock_), value_(other.wrappedValue()) {}
  Atomic& operator=(const Atomic& other) {
    if (this != &other) {
      T copy = other.wrappedValue();
      lock_ = other.lock_;
      value_ = std::move(copy);
    }
    return *this;
  }

  /// A copy of the stored value, taken under the lock.
  T wrappedValue() const {
    std::lock_guard guard(*lock_);
    return value_;
  }

  /// Replaces the stored value; the old value is destroyed inside the lock.
  void setWrappedValue(T newValue) {
    std::lock_guard guard(*lock_);
    value_ = std::move(newValue);
  }

  /// Hands a copy of the value to `change` (unlocked) and writes the copy back under the lock,
  /// also when `change` throws. Not indivisible: see the class comment.
  template <class Change>
  requires std::invocable<Change&, T&>
  void modify(Change&& change) {
    T copy = wrappedValue();
    try {
      change(copy);
    } catch (...) {
      setWrappedValue(std::move(copy));
      throw;
    }
    setWrappedValue(std::move(copy));
  }

  /// Adds `by` to the stored integer under the lock. Overflow stops the process.
  void increment(T by) requires std::integral<T> &&(!std::same_as<T, bool>) {
    std::lock_guard guard(*lock_);
    value_ = checkedAdd(value_, by, "CarrowPrivate/Locks", __LINE__);
  }

  /// The lock shared by this cell and its copies.
  const std::shared_ptr<CRUnfairLock>& lock() const noexcept { return lock_; }

 private:
  std::shared_ptr<CRUnfairLock> lock_;
  T value_;
};

/// A reference-held `Atomic`: one locked value shared by everyone who holds the box.
template <class T>
class AtomicBox {
 public:
  explicit AtomicBox(T value) : value_(std::move(value)) {}
  AtomicBox(const AtomicBox&) = delete;
  AtomicBox& operator=(const AtomicBox&) = delete;

  /// A copy of the value, read under the lock.
  T value() const { return value_.wrappedValue(); }
  /// Replaces the value under the lock.
  void setValue(T newValue) { value_.setWrappedValue(std::move(newValue)); }
  /// Read a copy, let `change` alter it unlocked, write it back (also on error).
  template <class Change>
  void modify(Change&& change) {
    value_.modify(std::forward<Change>(change));
  }

 private:
  Atomic<T> value_;
};

}  // namespace carrow
