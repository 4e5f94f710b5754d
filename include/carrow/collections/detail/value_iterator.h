#pragma once

#include <compare>
#include <cstddef>
#include <iterator>
#include <type_traits>

namespace carrow::detail {

/// A random-access iterator over the `value` members of an array of entries.
///
/// Dereferencing yields the value alone, so algorithms that swap or assign through the iterator
/// (std::sort, std::partition, std::reverse) move values between entries and leave every key at
/// its position.
template <class Entry, bool Const>
class ValueIterator {
  using EntryPointer = std::conditional_t<Const, const Entry*, Entry*>;

 public:
  using iterator_concept = std::random_access_iterator_tag;
  using iterator_category = std::random_access_iterator_tag;
  using value_type = std::remove_cv_t<decltype(Entry::value)>;
  using difference_type = std::ptrdiff_t;
  using reference = std::conditional_t<Const, const value_type&, value_type&>;
  using pointer = std::conditional_t<Const, const value_type*, value_type*>;

  ValueIterator() noexcept = default;
  explicit ValueIterator(EntryPointer entry) noexcept : entry_(entry) {}
  // A mutable iterator converts to a const one, as container iterators do.
  template <bool OtherConst>
  ValueIterator(const ValueIterator<Entry, OtherConst>& other) noexcept
      requires(Const && !OtherConst)
      : entry_(other.entry()) {}

  reference operator*() const noexcept { return entry_->value; }
  pointer operator->() const noexcept { return &entry_->value; }
  reference operator[](difference_type offset) const noexcept { return entry_[offset].value; }

  ValueIterator& operator++() noexcept {
    ++entry_;
    return *this;
  }
  ValueIterator operator++(int) noexcept { return ValueIterator(entry_++); }
  ValueIterator& operator--() noexcept {
    --entry_;
    return *this;
  }
  ValueIterator operator--(int) noexcept { return ValueIterator(entry_--); }
  ValueIterator& operator+=(difference_type offset) noexcept {
    entry_ += offset;
    return *this;
  }
  ValueIterator& operator-=(difference_type offset) noexcept {
    entry_ -= offset;
    return *this;
  }

  friend ValueIterator operator+(ValueIterator it, difference_type offset) noexcept {
    return it += offset;
  }
  friend ValueIterator operator+(difference_type offset, ValueIterator it) noexcept {
    return it += offset;
  }
  friend ValueIterator operator-(ValueIterator it, difference_type offset) noexcept {
    return it -= offset;
  }
  friend difference_type operator-(const ValueIterator& a, const ValueIterator& b) noexcept {
    return a.entry_ - b.entry_;
  }
  friend bool operator==(const ValueIterator& a, const ValueIterator& b) noexcept {
    return a.entry_ == b.entry_;
  }
  friend std::strong_ordering operator<=>(const ValueIterator& a, const ValueIterator& b) noexcept {
    return a.entry_ <=> b.entry_;
  }

  EntryPointer entry() const noexcept { return entry_; }

 private:
  EntryPointer entry_ = nullptr;
};

}  // namespace carrow::detail
