#pragma once

#include <algorithm>
#include <bit>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include <carrow/collections/bit_flags.h>
#include <carrow/collections/detail/checked.h>
#include <carrow/collections/detail/coding.h>
#include <carrow/collections/detail/counting_pairs.h>

namespace carrow {

/// Counts, for every bit of a set of flags, how often that bit has been counted.
///
/// `byBitIndex()[i]` is the counter of the flag with raw value `1 << i`; there is one counter per
/// bit of the raw value. Overflow of a counter stops the process.
///
/// Encoded as {"byBitIndex": [counts]}.
template <BitFlags Flags>
class FlagCounter {
  using Traits = BitFlagsTraits<Flags>;
  using RawValue = typename Traits::RawValue;
  using Bits = std::make_unsigned_t<RawValue>;
  static constexpr int kWidth = static_cast<int>(sizeof(RawValue) * CHAR_BIT);

 public:
  using Pair = std::pair<Flags, std::ptrdiff_t>;
  using const_iterator = detail::PairIterator<FlagCounter, Pair>;
  using iterator = const_iterator;

  /// One zero counter per bit of the raw value.
  FlagCounter() : byBitIndex_(static_cast<std::size_t>(kWidth), 0) {}

  /// Adds one to the counter of every bit set in `flags`.
  void insert(Flags flags) {
    Bits bits = rawBits(flags);
    if (bits == 0) return;
    // From the highest set bit down to the lowest; clear bits in between are skipped.
    int leadingZeros = std::countl_zero(bits);
    int trailingZeros = std::countr_zero(bits);
    for (int p = leadingZeros; p <= kWidth - trailingZeros - 1; ++p) {
      int i = kWidth - 1 - p;
      if (((bits >> i) & 1U) == 0) continue;
      detail::checkPosition(i, std::ssize(byBitIndex_), __LINE__);
      auto& counter = byBitIndex_[static_cast<std::size_t>(i)];
      counter = checkedAdd(counter, std::ptrdiff_t{1}, detail::kCollectionsLabel, __LINE__);
    }
  }

  /// The sum of the counters of the bits set in `flags`; 0 for no flags.
  std::ptrdiff_t operator[](Flags flags) const {
    Bits bits = rawBits(flags);
    std::ptrdiff_t sum = 0;
    for (std::size_t i = 0; i < countedBits(); ++i) {
      if (((bits >> i) & 1U) != 0) {
        sum = checkedAdd(sum, byBitIndex_[i], detail::kCollectionsLabel, __LINE__);
      }
    }
    return sum;
  }

  /// Sets the counter of every bit set in `flags` to `count`; other counters keep theirs.
  void set(Flags flags, std::ptrdiff_t count) {
    Bits bits = rawBits(flags);
    for (std::size_t i = 0; i < countedBits(); ++i) {
      if (((bits >> i) & 1U) != 0) byBitIndex_[i] = count;
    }
  }

  const std::vector<std::ptrdiff_t>& byBitIndex() const noexcept { return byBitIndex_; }

  /// (single-bit flag, count) for every counter in bit order.
  const_iterator begin() const noexcept { return const_iterator(this, 0); }
  const_iterator end() const noexcept { return const_iterator(this, std::ssize(byBitIndex_)); }

  /// "flag:count,..." with each flag's `operator<<` text, or its raw value when it has none.
  std::string description() const {
    std::string text;
    for (const auto& [flag, count] : *this) {
      if (!text.empty()) text += ',';
      if constexpr (detail::Streamable<Flags>) {
        detail::appendText(text, flag);
      } else {
        detail::appendText(text, Traits::rawValue(flag));
      }
      text += ':';
      detail::appendText(text, count);
    }
    return text;
  }
  friend std::ostream& operator<<(std::ostream& out, const FlagCounter& counter) {
    return out << counter.description();
  }

  bool operator==(const FlagCounter&) const = default;

  /// Decodes the encoded form; `codingPath` prefixes the field names in errors. An array that
  /// does not have one counter per bit of the raw value is a `DecodingError`.
  static FlagCounter fromJson(const nlohmann::json& json, std::string_view codingPath = {}) {
    FlagCounter result;
    result.byBitIndex_ = detail::decodeArrayField<std::ptrdiff_t>(json, "byBitIndex", codingPath);
    if (std::ssize(result.byBitIndex_) != kWidth) {
      throw DecodingError(detail::codingPath(codingPath, "byBitIndex"),
                          std::to_string(result.byBitIndex_.size()) + " counters disagree with the "
                              + std::to_string(kWidth) + " bits of the raw value");
    }
    return result;
  }

 private:
  friend const_iterator;

  static Bits rawBits(Flags flags) { return static_cast<Bits>(Traits::rawValue(flags)); }

  std::size_t countedBits() const noexcept {
    return std::min(byBitIndex_.size(), static_cast<std::size_t>(kWidth));
  }

  Pair pairAt(std::ptrdiff_t position) const {
    Bits bit = position < kWidth ? static_cast<Bits>(Bits{1} << position) : Bits{0};
    return Pair(Traits::make(static_cast<RawValue>(bit)),
                byBitIndex_[static_cast<std::size_t>(position)]);
  }

  std::vector<std::ptrdiff_t> byBitIndex_;
};

template <BitFlags Flags>
void to_json(nlohmann::json& json, const FlagCounter<Flags>& counter) {
  json = nlohmann::json{{"byBitIndex", counter.byBitIndex()}};
}

template <BitFlags Flags>
void from_json(const nlohmann::json& json, FlagCounter<Flags>& counter) {
  counter = FlagCounter<Flags>::fromJson(json);
}

}  // namespace carrow
