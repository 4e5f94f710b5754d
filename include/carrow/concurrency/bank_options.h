#pragma once

#include <cstdint>

namespace carrow {

/// Behaviour switches of a `Bank`: a set of bit flags over a signed 32-bit raw value. Bits other
/// than the named ones are kept but have no effect.
class BankOptions {
 public:
  constexpr BankOptions() noexcept = default;
  constexpr explicit BankOptions(std::int32_t rawValue) noexcept : rawValue_(rawValue) {}

  /// Bit 0: when the last caller leaves an entry, remove it instead of keeping it (with its
  /// finished task) for later callers.
  static constexpr BankOptions clearWhenUnused() noexcept { return BankOptions(1); }

  constexpr std::int32_t rawValue() const noexcept { return rawValue_; }
  constexpr bool contains(BankOptions other) const noexcept {
    return (rawValue_ & other.rawValue_) == other.rawValue_;
  }
  friend constexpr BankOptions operator|(BankOptions lhs, BankOptions rhs) noexcept {
    return BankOptions(lhs.rawValue_ | rhs.rawValue_);
  }
  friend constexpr bool operator==(BankOptions, BankOptions) noexcept = default;

 private:
  std::int32_t rawValue_ = 0;
};

}  // namespace carrow
