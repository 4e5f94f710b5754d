#pragma once

#include <concepts>
#include <cstddef>
#include <type_traits>

namespace carrow {

/// Lists every case of an enumeration, for the collections that hold one slot per case.
/// Specialise it next to the enumeration:
///
///     enum class Outcome : std::uint8_t { copied, skipped, failed };
///     template <>
///     struct carrow::CaseList<Outcome> {
///       static constexpr std::array allCases{Outcome::copied, Outcome::skipped, Outcome::failed};
///     };
template <class Enum>
struct CaseList {};

/// An enumeration whose cases are listed by `CaseList`.
template <class Enum>
concept CaseIterable = std::is_enum_v<Enum> && requires {
  { CaseList<Enum>::allCases.size() } -> std::convertible_to<std::size_t>;
};

}  // namespace carrow
