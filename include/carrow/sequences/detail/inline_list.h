#pragma once

// A list of at most N values kept inline. The combinators hold one continuation per upstream in
// it; a std::vector would give its storage away with every list handed out in an action and
// allocate again on the next append, once per element.

#include <array>
#include <cstddef>
#include <optional>
#include <utility>

#include <carrow/sequences/detail/invariant.h>

namespace carrow::detail {

template <class T, std::size_t N>
class InlineList {
 public:
  InlineList() = default;
  InlineList(const InlineList&) = default;
  InlineList& operator=(const InlineList&) = default;
  /// Moving leaves the source empty, so a list taken out of a state is no longer in it.
  InlineList(InlineList&& other) noexcept : slots_(std::move(other.slots_)), count_(other.count_) {
    other.clear();
  }
  InlineList& operator=(InlineList&& other) noexcept {
    if (this != &other) {
      slots_ = std::move(other.slots_);
      count_ = other.count_;
      other.clear();
    }
    return *this;
  }

  /// Adds `value` at the end; more than N values is a broken invariant.
  void append(T value) {
    if (count_ == N) sequenceInvariantBroken();
    slots_[count_++].emplace(std::move(value));
  }

  std::size_t size() const noexcept { return count_; }
  bool empty() const noexcept { return count_ == 0; }
  T& operator[](std::size_t index) noexcept { return *slots_[index]; }
  const T& operator[](std::size_t index) const noexcept { return *slots_[index]; }

  /// Calls `body(T&)` on each value in order.
  template <class Body>
  void forEach(Body&& body) {
    for (std::size_t i = 0; i < count_; ++i) body(*slots_[i]);
  }

  void clear() noexcept {
    for (std::size_t i = 0; i < count_; ++i) slots_[i].reset();
    count_ = 0;
  }

 private:
  std::array<std::optional<T>, N> slots_{};
  std::size_t count_ = 0;
};

}  // namespace carrow::detail
