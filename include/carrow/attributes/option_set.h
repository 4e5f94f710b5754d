#pragma once

#include <concepts>
#include <cstdint>

namespace carrow {

/// The set operations of a bit-flag type over a fixed-width unsigned raw value. `Derived` inherits
/// them (`class Options : public OptionSet<Options, std::uint64_t>`) and names its members as
/// static constants; every operation works on the raw value and returns `Derived`.
template <class Derived, std::unsigned_integral Raw>
class OptionSet {
 public:
  using RawValue = Raw;

  constexpr OptionSet() noexcept = default;
  constexpr explicit OptionSet(Raw rawValue) noexcept : rawValue_(rawValue) {}

  constexpr Raw rawValue() const noexcept { return rawValue_; }
  constexpr bool isEmpty() const noexcept { return rawValue_ == 0; }
  /// True when every member of `other` is in this set.
  constexpr bool contains(Derived other) const noexcept {
    return (rawValue_ & other.rawValue()) == other.rawValue();
  }
  constexpr bool isSubset(Derived of) const noexcept { return of.contains(self()); }
  constexpr bool isSuperset(Derived of) const noexcept { return contains(of); }
  constexpr bool isDisjoint(Derived with) const noexcept {
    return (rawValue_ & with.rawValue()) == 0;
  }

  constexpr Derived unionWith(Derived other) const noexcept {
    return Derived(Raw(rawValue_ | other.rawValue()));
  }
  constexpr Derived intersection(Derived other) const noexcept {
    return Derived(Raw(rawValue_ & other.rawValue()));
  }
  constexpr Derived symmetricDifference(Derived other) const noexcept {
    return Derived(Raw(rawValue_ ^ other.rawValue()));
  }
  constexpr Derived subtracting(Derived other) const noexcept {
    return Derived(Raw(rawValue_ & ~other.rawValue()));
  }

  /// Adds `member`; true when it was not there before.
  constexpr bool insert(Derived member) noexcept {
    const bool inserted = !contains(member);
    rawValue_ |= member.rawValue();
    return inserted;
  }
  /// Removes `member`; true when all of it was there before.
  constexpr bool remove(Derived member) noexcept {
    const bool removed = contains(member);
    rawValue_ &= Raw(~member.rawValue());
    return removed;
  }

  friend constexpr Derived operator|(Derived lhs, Derived rhs) noexcept {
    return lhs.unionWith(rhs);
  }
  friend constexpr Derived operator&(Derived lhs, Derived rhs) noexcept {
    return lhs.intersection(rhs);
  }
  friend constexpr Derived operator^(Derived lhs, Derived rhs) noexcept {
    return lhs.symmetricDifference(rhs);
  }
  friend constexpr Derived operator-(Derived lhs, Derived rhs) noexcept {
    return lhs.subtracting(rhs);
  }
  constexpr Derived& operator|=(Derived other) noexcept {
    rawValue_ |= other.rawValue();
    return static_cast<Derived&>(*this);
  }
  constexpr Derived& operator&=(Derived other) noexcept {
    rawValue_ &= other.rawValue();
    return static_cast<Derived&>(*this);
  }
  constexpr Derived& operator^=(Derived other) noexcept {
    rawValue_ ^= other.rawValue();
    return static_cast<Derived&>(*this);
  }
  friend constexpr bool operator==(OptionSet lhs, OptionSet rhs) noexcept {
    return lhs.rawValue_ == rhs.rawValue_;
  }

 private:
  constexpr Derived self() const noexcept { return Derived(rawValue_); }

  Raw rawValue_ = 0;
};

}  // namespace carrow
