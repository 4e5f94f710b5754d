#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string_view>

namespace carrow {

/// One attribute of the kernel's attribute-list interface: its group (which bitmap word of a
/// request), its single bit in that word, and, where the reply order of the group departs from
/// bit order, the bit of the attribute it follows in the reply.
///
/// Equality and hashing use the group and bit only: the previous bit is layout knowledge, not
/// identity. Raw keys are ordered by group, then by `position()`, which is the order of entries
/// in a reply.
class RawAttrKey {
 public:
  /// The attribute groups, in the order their entries appear in a reply.
  enum class Kind : std::uint8_t { common, volume, directory, file, fork };

  constexpr RawAttrKey(Kind kind, std::uint32_t attrBit,
                       std::optional<std::uint32_t> previousAttrBit = std::nullopt) noexcept
      : kind_(kind), attrBit_(attrBit), previousAttrBit_(previousAttrBit) {}
  /// For the platform's constants, which are signed: a negative bit or previous bit stops the
  /// process.
  RawAttrKey(Kind kind, std::int32_t attrBit,
             std::optional<std::int32_t> previousAttrBit = std::nullopt);

  constexpr Kind kind() const noexcept { return kind_; }
  constexpr std::uint32_t attrBit() const noexcept { return attrBit_; }
  constexpr std::optional<std::uint32_t> previousAttrBit() const noexcept {
    return previousAttrBit_;
  }

  /// The place of the attribute within its group: the previous bit + 0.1 when there is one
  /// (so a previous bit of 0 puts it ahead of the whole group), else the bit itself.
  constexpr double position() const noexcept {
    return previousAttrBit_ ? double(*previousAttrBit_) + 0.1 : double(attrBit_);
  }

  friend constexpr bool operator==(const RawAttrKey& lhs, const RawAttrKey& rhs) noexcept {
    return lhs.kind_ == rhs.kind_ && lhs.attrBit_ == rhs.attrBit_;
  }
  /// Reply order. Keys that are equal by group and bit compare equivalent here too, whatever
  /// their previous bits (each bit has one place in a reply).
  friend constexpr std::weak_ordering operator<=>(const RawAttrKey& lhs,
                                                  const RawAttrKey& rhs) noexcept {
    if (lhs.kind_ != rhs.kind_) return lhs.kind_ <=> rhs.kind_;
    if (lhs.attrBit_ == rhs.attrBit_) return std::weak_ordering::equivalent;
    const double left = lhs.position(), right = rhs.position();
    if (left < right) return std::weak_ordering::less;
    if (right < left) return std::weak_ordering::greater;
    return lhs.attrBit_ < rhs.attrBit_ ? std::weak_ordering::less : std::weak_ordering::greater;
  }

  constexpr std::size_t hash() const noexcept {
    return (std::size_t(kind_) << 32 | attrBit_) * 0x9e3779b97f4a7c15ULL;
  }

 private:
  Kind kind_;
  std::uint32_t attrBit_;
  std::optional<std::uint32_t> previousAttrBit_;
};

/// "common", "volume", "directory", "file" or "fork".
std::string_view name(RawAttrKey::Kind kind) noexcept;

inline std::ostream& operator<<(std::ostream& out, RawAttrKey::Kind kind) {
  return out << name(kind);
}
/// "(volume, 0x00800000, previous 0x00000010)".
std::ostream& operator<<(std::ostream& out, const RawAttrKey& key);

}  // namespace carrow

template <>
struct std::hash<carrow::RawAttrKey> {
  std::size_t operator()(const carrow::RawAttrKey& key) const noexcept { return key.hash(); }
};
