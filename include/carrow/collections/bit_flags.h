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
struct BitFlagsTraits {};

template <class Flags>
requires(!std::is_enum_v<Flags>) && requires(const Flags& flags) {
  { flags.rawValue() } -> std::integral;
}
struct BitFlagsTraits<Flags> {
  using RawValue = std::remove_cvref_t<decltype(std::declval<const Flags&>().rawValue())>;
  static constexpr RawValue rawValue(const Flags& flags) { return flags.rawValue(); }
  static constexpr Flags make(RawValue raw) { return Flags(raw); }
};

template <class Flags>
requires std::is_enum_v<Flags>
struct BitFlagsTraits<Flags> {
  using RawValue = std::underlying_type_t<Flags>;
  static constexpr RawValue rawValue(Flags flags) { return static_cast<RawValue>(flags); }
  static constexpr Flags make(RawValue raw) { return static_cast<Flags>(raw); }
};

/// A set of bit flags over a fixed-width integer: anything `BitFlagsTraits` can turn into its raw
/// value and back. (The class template `OptionSet` of `carrow/attributes/option_set.h` is one way
/// to write such a type; this concept is what the collections accept.)
template <class Flags>
concept BitFlags = requires(const Flags& flags, typename BitFlagsTraits<Flags>::RawValue raw) {
  {
    BitFlagsTraits<Flags>::rawValue(flags)
    } -> std::same_as<typename BitFlagsTraits<Flags>::RawValue>;
  { BitFlagsTraits<Flags>::make(raw) } -> std::same_as<Flags>;
}
&&std::integral<typename BitFlagsTraits<Flags>::RawValue>;

}  // namespace carrow
