#include <system_error>

#include <carrow/platform/mount_table.h>

namespace carrow::platform {

std::vector<MountEntry> readMountTable() {
  throw std::system_error(ENOSYS, std::generic_category());
}

std::vector<MountEntry> parseMountTable(const std::filesystem::path&) {
  throw std::system_error(ENOSYS, std::generic_category());
}

}  // namespace carrow::platform
