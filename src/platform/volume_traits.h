#pragma once

// What a mount's file-system type and options say about a volume in the platform's terms: mount
// flags, capabilities, the type number, whether a journal is active, and the volume's label and
// UUID where the file system tells them.

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include <carrow/platform/attr.h>
#include <carrow/platform/mount_table.h>

namespace carrow::platform::detail {

class MountSnapshot;

/// A Linux device number packed into 32 bits as the kernel packs old-style device numbers (minor
/// bits 0-7, major bits 8-19, minor bits 8-19 in bits 20-31), so no real device collides.
constexpr std::uint32_t encodeDevice(std::uint32_t major, std::uint32_t minor) noexcept {
  return (minor & 0xffu) | ((major & 0xfffu) << 8) | ((minor & ~0xffu) << 12);
}

/// The statfs magic number of a file-system type, for mounts that are not asked (network and
/// automounted ones under MNT_NOWAIT). 0 for a type not listed.
std::uint32_t typeNumberForName(const std::string& fsType) noexcept;

/// Whether the file system of `entry` has an active journal.
bool journalActive(const MountEntry& entry);

/// The MNT_* flags of a mount. `journaled` is the result of `journalActive`.
std::uint32_t mountFlags(const MountEntry& entry, bool journaled);

/// The capabilities of a file-system type; bits are valid only for types this layer knows.
vol_capabilities_attr_t capabilities(const std::string& fsType, bool journaled);

/// The volume label of the file system that `fd` lies on, if it has a non-empty one.
std::optional<std::string> volumeLabel(int fd);

/// The UUID of the file system that `fd` lies on, if it has one that is not all zeros and is not
/// a kernel interface. Asks the file system first, then the udev links under /dev/disk/by-uuid.
std::optional<std::array<unsigned char, 16>> volumeUUID(int fd, const MountEntry& entry);

}  // namespace carrow::platform::detail
