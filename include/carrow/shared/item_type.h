#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string_view>

namespace carrow {

/// The kind of a file-system item as the product's programs classify it.
enum class ItemType : std::int64_t {
  unknown = 0,
  invalid = 1,
  file = 2,
  directory = 3,
  symlink = 4,
  alias = 5,
};

/// The item type with raw value `raw` (0 to 5), or nothing.
std::optional<ItemType> itemType(std::int64_t raw) noexcept;

/// The printed name: "unknown", "invalid", "file", "directory", "symlink" or "alias".
std::string_view name(ItemType type) noexcept;

/// The raw value.
constexpr std::int64_t rawValue(ItemType type) noexcept {
  return static_cast<std::int64_t>(type);
}

inline std::ostream& operator<<(std::ostream& out, ItemType type) {
  return out << name(type);
}

/// The product's user-facing components.
enum class UIComponent : std::uint8_t { settings, menuExtra, widget };

}  // namespace carrow
