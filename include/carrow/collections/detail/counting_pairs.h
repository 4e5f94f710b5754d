#pragma once

#include <concepts>
#include <cstddef>
#include <iterator>
#include <ostream>
#include <sstream>
#include <string>
#include <type_traits>

namespace carrow::detail {

/// A forward iterator over the (key, amount) pairs of a counting container, computed one at a
/// time by `owner.pairAt(position)` and yielded by value.
template <class Owner, class Pair>
class PairIterator {
 public:
  using iterator_concept = std::forward_iterator_tag;
  using iterator_category = std::input_iterator_tag;
  using value_type = Pair;
  using difference_type = std::ptrdiff_t;
  using reference = Pair;

  PairIterator() noexcept = default;
  PairIterator(const Owner* owner, std::ptrdiff_t position) noexcept
      : owner_(owner), position_(position) {}

  Pair operator*() const { return owner_->pairAt(position_); }
  PairIterator& operator++() noexcept {
    ++position_;
    return *this;
  }
  PairIterator operator++(int) noexcept {
    PairIterator old = *this;
    ++position_;
    return old;
  }
  friend bool operator==(const PairIterator& a, const PairIterator& b) noexcept {
    return a.position_ == b.position_;
  }

 private:
  const Owner* owner_ = nullptr;
  std::ptrdiff_t position_ = 0;
};

template <class T>
concept Streamable = requires(std::ostream& out, const T& value) {
  out << value;
};

/// Appends the text of `value`: decimal for integers (also for the character-sized ones),
/// `operator<<` for anything else.
template <class T>
void appendText(std::string& text, const T& value) {
  if constexpr (std::integral<T> && !std::same_as<T, bool>) {
    text += std::to_string(+value);
  } else {
    std::ostringstream out;
    out << value;
    text += out.str();
  }
}

/// "key:amount,key:amount,..." for a range of pairs.
template <class Range>
std::string describePairs(const Range& pairs) {
  std::string text;
  bool first = true;
  for (const auto& [key, amount] : pairs) {
    if (!first) text += ',';
    first = false;
    appendText(text, key);
    text += ':';
    appendText(text, amount);
  }
  return text;
}

}  // namespace carrow::detail
