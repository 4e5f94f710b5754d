#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace carrow {

/// A 16-byte universally unique identifier, kept as its bytes in order. Its text is the
/// platform's standard form: upper-case hexadecimal in groups 8-4-4-4-12.
class UUID {
 public:
  using Bytes = std::array<std::uint8_t, 16>;

  constexpr UUID() noexcept = default;
  constexpr explicit UUID(const Bytes& bytes) noexcept : bytes_(bytes) {}

  /// Parses the 8-4-4-4-12 form in either case; nothing for any other text.
  static std::optional<UUID> fromString(std::string_view text) noexcept;

  constexpr const Bytes& bytes() const noexcept { return bytes_; }
  /// True when all 16 bytes are zero (the "null" UUID).
  constexpr bool isNull() const noexcept {
    for (auto byte : bytes_) {
      if (byte != 0) return false;
    }
    return true;
  }
  /// "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
  std::string uuidString() const;

  friend constexpr bool operator==(const UUID&, const UUID&) noexcept = default;
  friend constexpr auto operator<=>(const UUID&, const UUID&) noexcept = default;

 private:
  Bytes bytes_{};
};

inline std::ostream& operator<<(std::ostream& out, const UUID& uuid) {
  return out << uuid.uuidString();
}

}  // namespace carrow

template <>
struct std::hash<carrow::UUID> {
  std::size_t operator()(const carrow::UUID& uuid) const noexcept {
    std::size_t hash = 0xcbf29ce484222325ULL;
    for (auto byte : uuid.bytes()) hash = (hash ^ byte) * 0x100000001b3ULL;
    return hash;
  }
};
