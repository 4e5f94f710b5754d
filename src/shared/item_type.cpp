#include <array>

#include <carrow/shared/item_type.h>

namespace carrow {
namespace {
constexpr std::array<std::string_view, 6> kNames = {"unknown",   "invalid", "file",
                                                    "directory", "symlink", "alias"};
}  // namespace

std::optional<ItemType> itemType(std::int64_t raw) noexcept {
  if (raw < 0 || raw >= static_cast<std::int64_t>(kNames.size())) return std::nullopt;
  return static_cast<ItemType>(raw);
}

std::string_view name(ItemType type) noexcept {
  return kNames.at(rawValue(type));
}

}  // namespace carrow
