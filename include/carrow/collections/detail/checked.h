#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include <carrow/platform/fatal_error.h>

// Checked positions and arithmetic shared by the collections. A collection that is handed a
// position outside its bounds, or whose counters overflow, has been misused in a way no caller
// can recover from, so these stop the process rather than throw.

namespace carrow::detail {

inline constexpr std::string_view kCollectionsLabel = "CarrowPrivate/Collections";

/// Stops the process unless 0 <= position < count.
inline void checkPosition(std::ptrdiff_t position, std::ptrdiff_t count, std::uint64_t line) {
  if (position < 0 || position >= count) fatalError(kCollectionsLabel, line, "Index out of range");
}

/// `value` converted to `To`, stopping the process when it does not fit.
template <std::integral To, std::integral From>
constexpr To checkedConvert(From value, std::uint64_t line) {
  if (!std::in_range<To>(value)) {
    fatalError(kCollectionsLabel, line, "Not enough bits to represent the passed value");
  }
  return static_cast<To>(value);
}

template <std::integral Int>
constexpr Int checkedSubtract(Int lhs, Int rhs, std::uint64_t line) {
  Int result{};
  if (__builtin_sub_overflow(lhs, rhs, &result)) {
    fatalError(kCollectionsLabel, line, "arithmetic overflow");
  }
  return result;
}

template <std::integral Int>
constexpr Int checkedMultiply(Int lhs, Int rhs, std::uint64_t line) {
  Int result{};
  if (__builtin_mul_overflow(lhs, rhs, &result)) {
    fatalError(kCollectionsLabel, line, "arithmetic overflow");
  }
  return result;
}

/// `lhs + rhs`, checked for integers and plain for any other amount type (floating point, or a
/// client's own type with `+`).
template <class Total>
constexpr Total addAmounts(const Total& lhs, const Total& rhs, std::uint64_t line) {
  if constexpr (std::integral<Total>) {
    return checkedAdd(lhs, rhs, kCollectionsLabel, line);
  } else {
    return lhs + rhs;
  }
}

}  // namespace carrow::detail
