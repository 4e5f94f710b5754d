#pragma once

#include <concepts>
#include <type_traits>
#include <utility>

namespace carrow {

/// How a set of bit flags converts to and from its raw integer.
///
/// The default covers the two usual shapes: a class with `rawValue()` that is constructible from
/// that raw value, and a bit-mask enumeration (its underlying type is the raw value).
template <class Flags>
struct OptionSetTraits {};

template <class Flags>
requires(!std::is_enum_v<Flags>) && requires(const Flags& flags) {
  { flags.rawValue() } -> std::integral;
}
struct OptionSetTraits<Flags> {
  using RawValue = std::remove_cvref_t<decltype(std::declval<const Flags&>().rawValue())>;
  static constexpr RawValue rawValue(const Flags& flags) { return flags.rawValue(); }
  static constexpr Flags make(RawValue raw) { return Flags(raw); }
};

template <class Flags>
requires std::is_enum_v<Flags>
struct OptionSetTraits<Flags> {
  using RawValue = std::underlying_type_t<Flags>;
  static constexpr RawValue rawValue(Flags flags) { return static_cast<RawValue>(flags); }
  static constexpr Flags make(RawValue raw) { return static_cast<Flags>(raw); }
};

/// A set of bit flags over a fixed-width integer.
template <class Flags>
concept OptionSet = requires(const Flags& flags, typename OptionSetTraits<Flags>::RawValue raw) {
  {
    OptionSetTraits<Flags>::rawValue(flags)
    } -> std::same_as<typename OptionSetTraits<Flags>::RawValue>;
  { OptionSetTraits<Flags>::make(raw) } -> std::same_as<Flags>;
}
&&std::integral<typename OptionSetTraits<Flags>::RawValue>;

}  // namespace carrow
