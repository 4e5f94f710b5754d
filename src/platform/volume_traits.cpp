#include "volume_traits.h"

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <linux/fs.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <carrow/platform/mount.h>

#ifndef FS_IOC_GETFSUUID
// Generic since Linux 6.8; older kernels answer ENOTTY and the udev links are used instead.
struct fsuuid2 {
  __u8 len;
  __u8 uuid[16];
};
#define FS_IOC_GETFSUUID _IOR(0x15, 0, struct fsuuid2)
#endif

namespace carrow::platform::detail {
namespace {

struct TypeNumber {
  std::string_view name;
  std::uint32_t number;
};

// Magic numbers of <linux/magic.h> and of the file systems' own sources.
constexpr TypeNumber kTypeNumbers[] = {
    {"nfs", 0x6969},          {"nfs4", 0x6969},          {"cifs", 0xFF534D42},
    {"smb3", 0xFF534D42},     {"smbfs", 0x517B},         {"ceph", 0x00C36400},
    {"9p", 0x01021997},       {"afs", 0x6B414653},       {"autofs", 0x0187},
    {"fuse", 0x65735546},     {"glusterfs", 0x65735546}, {"ext2", 0xEF53},
    {"ext3", 0xEF53},         {"ext4", 0xEF53},          {"xfs", 0x58465342},
    {"btrfs", 0x9123683E},    {"tmpfs", 0x01021994},     {"proc", 0x9FA0},
    {"sysfs", 0x62656572},    {"devpts", 0x1CD1},        {"devtmpfs", 0x01021994},
    {"cgroup", 0x27E0EB},     {"cgroup2", 0x63677270},   {"vfat", 0x4D44},
    {"msdos", 0x4D44},        {"exfat", 0x2011BAB0},     {"overlay", 0x794C7630},
    {"squashfs", 0x73717368}, {"iso9660", 0x9660},       {"f2fs", 0xF2F52010},
};

bool isOneOf(std::string_view value, std::initializer_list<std::string_view> list) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

bool startsWithDirectory(std::string_view path, std::string_view directory) {
  return path.starts_with(directory)
         && (path.size() == directory.size() || path[directory.size()] == '/');
}

// The kernel's name of a block device ("sda1", "dm-0"), which names its journal under jbd2.
std::string blockDeviceName(const MountEntry& entry) {
  std::string link = "/sys/dev/block/" + std::to_string(entry.deviceMajor) + ":"
                     + std::to_string(entry.deviceMinor);
  char target[512];
  ssize_t length = readlink(link.c_str(), target, sizeof(target) - 1);
  if (length <= 0) return {};
  std::string_view resolved(target, static_cast<std::size_t>(length));
  auto slash = resolved.rfind('/');
  return std::string(slash == std::string_view::npos ? resolved : resolved.substr(slash + 1));
}

bool hasJbd2Journal(const MountEntry& entry) {
  std::string device = blockDeviceName(entry);
  if (device.empty()) return false;
  DIR* directory = opendir("/proc/fs/jbd2");
  if (directory == nullptr) return false;
  std::string prefix = device + "-";
  bool found = false;
  while (dirent* item = readdir(directory)) {
    if (std::string_view(item->d_name).starts_with(prefix)) {
      found = true;
      break;
    }
  }
  closedir(directory);
  return found;
}

bool allZero(const unsigned char* bytes, std::size_t count) {
  return std::all_of(bytes, bytes + count, [](unsigned char b) { return b == 0; });
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Parses the 8-4-4-4-12 form; udev also lists shorter serials (FAT "ABCD-1234"), which are not
// UUIDs and are refused.
std::optional<std::array<unsigned char, 16>> parseUUID(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  std::array<unsigned char, 16> bytes{};
  std::size_t out = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return std::nullopt;
      ++i;
      continue;
    }
    int high = hexValue(text[i]);
    int low = hexValue(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes[out++] = static_cast<unsigned char>(high * 16 + low);
    i += 2;
  }
  return bytes;
}

std::optional<std::array<unsigned char, 16>> uuidFromUdev(const MountEntry& entry) {
  if (entry.deviceMajor == 0) return std::nullopt;  // No block device behind the mount.
  DIR* directory = opendir("/dev/disk/by-uuid");
  if (directory == nullptr) return std::nullopt;
  dev_t wanted = makedev(entry.deviceMajor, entry.deviceMinor);
  std::optional<std::array<unsigned char, 16>> result;
  while (dirent* item = readdir(directory)) {
    struct stat target {};
    if (item->d_name[0] == '.') continue;
    if (fstatat(dirfd(directory), item->d_name, &target, 0) != 0) continue;
    if (!S_ISBLK(target.st_mode) || target.st_rdev != wanted) continue;
    result = parseUUID(item->d_name);
    if (result && allZero(result->data(), result->size())) result.reset();
    break;
  }
  closedir(directory);
  return result;
}

}  // namespace

std::uint32_t typeNumberForName(const std::string& fsType) noexcept {
  std::string_view name = fsType;
  if (name.starts_with("fuse.") || name == "fuseblk") name = "fuse";
  for (const auto& known : kTypeNumbers) {
    if (known.name == name) return known.number;
  }
  return 0;
}

bool journalActive(const MountEntry& entry) {
  const std::string& type = entry.fsType;
  if (type == "ext3" || type == "ext4") return hasJbd2Journal(entry);
  // XFS always logs; with "norecovery" it is mounted read-only and its log is not replayed.
  if (type == "xfs") return entry.superblockOptions.find("norecovery") == std::string::npos;
  return isOneOf(type, {"jfs", "reiserfs", "gfs2", "ocfs2"});
}

std::uint32_t mountFlags(const MountEntry& entry, bool journaled) {
  std::uint32_t flags = 0;
  if (entry.readOnly) flags |= MNT_RDONLY;
  if (entry.synchronous) flags |= MNT_SYNCHRONOUS;
  if (entry.noExec) flags |= MNT_NOEXEC;
  if (entry.noSuid) flags |= MNT_NOSUID;
  if (entry.noDev) flags |= MNT_NODEV;
  if (entry.noAccessTime) flags |= MNT_NOATIME;
  if (!entry.isNetwork) flags |= MNT_LOCAL;
  if (entry.mountPoint == "/") flags |= MNT_ROOTFS;
  // Kernel interfaces, and whatever is mounted in the system's own trees, hold no user data.
  if (entry.isPseudo || startsWithDirectory(entry.mountPoint, "/proc")
      || startsWithDirectory(entry.mountPoint, "/sys")
      || startsWithDirectory(entry.mountPoint, "/dev")
      || startsWithDirectory(entry.mountPoint, "/run")) {
    flags |= MNT_DONTBROWSE;
  }
  if (entry.isAutomount && entry.fsType != "autofs") flags |= MNT_AUTOMOUNTED;
  if (journaled) flags |= MNT_JOURNALED;
  if (isOneOf(entry.fsType, {"vfat", "msdos", "exfat", "ntfs", "ntfs3"})) {
    flags |= MNT_IGNORE_OWNERSHIP;  // Owners come from mount options, not from the disk.
  }
  const std::string& options = entry.superblockOptions;
  if (options.find("quota") != std::string::npos) flags |= MNT_QUOTA;
  return flags;
}

vol_capabilities_attr_t capabilities(const std::string& fsType, bool journaled) {
  constexpr std::uint32_t kUnixFormat =
      VOL_CAP_FMT_PERSISTENTOBJECTIDS | VOL_CAP_FMT_SYMBOLICLINKS | VOL_CAP_FMT_HARDLINKS
      | VOL_CAP_FMT_SPARSE_FILES | VOL_CAP_FMT_ZERO_RUNS | VOL_CAP_FMT_CASE_SENSITIVE
      | VOL_CAP_FMT_CASE_PRESERVING | VOL_CAP_FMT_FAST_STATFS | VOL_CAP_FMT_2TB_FILESIZE;
  constexpr std::uint32_t kFormatKnown =
      kUnixFormat | VOL_CAP_FMT_JOURNAL | VOL_CAP_FMT_JOURNAL_ACTIVE | VOL_CAP_FMT_NO_ROOT_TIMES
      | VOL_CAP_FMT_64BIT_OBJECT_IDS | VOL_CAP_FMT_HIDDEN_FILES | VOL_CAP_FMT_NO_PERMISSIONS
      | VOL_CAP_FMT_DIR_HARDLINKS | VOL_CAP_FMT_VOL_GROUPS;
  constexpr std::uint32_t kUnixInterfaces =
      VOL_CAP_INT_ATTRLIST | VOL_CAP_INT_ADVLOCK | VOL_CAP_INT_FLOCK | VOL_CAP_INT_USERACCESS;
  constexpr std::uint32_t kInterfacesKnown = kUnixInterfaces | VOL_CAP_INT_EXTENDED_ATTR
                                             | VOL_CAP_INT_CLONE | VOL_CAP_INT_RENAME_SWAP
                                             | VOL_CAP_INT_RENAME_EXCL | VOL_CAP_INT_ALLOCATE;

  vol_capabilities_attr_t result{};
  std::uint32_t& format = result.capabilities[VOL_CAPABILITIES_FORMAT];
  std::uint32_t& interfaces = result.capabilities[VOL_CAPABILITIES_INTERFACES];
  const std::string_view type = fsType;
  bool known = true;
  if (isOneOf(type, {"ext2", "ext3", "ext4"})) {
    format = kUnixFormat | (type == "ext2" ? 0 : VOL_CAP_FMT_JOURNAL);
    interfaces = kUnixInterfaces | VOL_CAP_INT_EXTENDED_ATTR | VOL_CAP_INT_RENAME_SWAP
                 | VOL_CAP_INT_RENAME_EXCL | VOL_CAP_INT_ALLOCATE;
  } else if (type == "xfs") {
    format = kUnixFormat | VOL_CAP_FMT_JOURNAL | VOL_CAP_FMT_64BIT_OBJECT_IDS;
    interfaces = kUnixInterfaces | VOL_CAP_INT_EXTENDED_ATTR | VOL_CAP_INT_CLONE
                 | VOL_CAP_INT_RENAME_SWAP | VOL_CAP_INT_RENAME_EXCL | VOL_CAP_INT_ALLOCATE;
  } else if (isOneOf(type, {"btrfs", "bcachefs", "zfs"})) {
    // Copy-on-write file systems stay consistent without a journal.
    format = kUnixFormat | VOL_CAP_FMT_64BIT_OBJECT_IDS;
    interfaces = kUnixInterfaces | VOL_CAP_INT_EXTENDED_ATTR | VOL_CAP_INT_CLONE
                 | VOL_CAP_INT_RENAME_SWAP | VOL_CAP_INT_RENAME_EXCL | VOL_CAP_INT_ALLOCATE;
  } else if (isOneOf(type, {"f2fs", "jfs", "reiserfs", "nilfs2"})) {
    format = kUnixFormat | (type == "f2fs" || type == "nilfs2" ? 0 : VOL_CAP_FMT_JOURNAL);
    interfaces = kUnixInterfaces | VOL_CAP_INT_EXTENDED_ATTR | VOL_CAP_INT_RENAME_EXCL;
  } else if (isOneOf(type, {"tmpfs", "ramfs", "devtmpfs"})) {
    format = kUnixFormat & ~VOL_CAP_FMT_PERSISTENTOBJECTIDS;
    interfaces = kUnixInterfaces | VOL_CAP_INT_EXTENDED_ATTR | VOL_CAP_INT_RENAME_SWAP
                 | VOL_CAP_INT_RENAME_EXCL | VOL_CAP_INT_ALLOCATE;
  } else if (isOneOf(type, {"vfat", "msdos", "exfat"})) {
    format = VOL_CAP_FMT_NO_ROOT_TIMES | VOL_CAP_FMT_FAST_STATFS | VOL_CAP_FMT_NO_PERMISSIONS
             | (type == "msdos" ? 0 : VOL_CAP_FMT_CASE_PRESERVING)
             | (type == "exfat" ? VOL_CAP_FMT_2TB_FILESIZE : 0);
    interfaces =
        VOL_CAP_INT_ATTRLIST | VOL_CAP_INT_ADVLOCK | VOL_CAP_INT_FLOCK | VOL_CAP_INT_USERACCESS;
  } else if (isOneOf(type, {"ntfs", "ntfs3"})) {
    format = VOL_CAP_FMT_PERSISTENTOBJECTIDS | VOL_CAP_FMT_SYMBOLICLINKS | VOL_CAP_FMT_HARDLINKS
             | VOL_CAP_FMT_JOURNAL | VOL_CAP_FMT_SPARSE_FILES | VOL_CAP_FMT_CASE_PRESERVING
             | VOL_CAP_FMT_FAST_STATFS | VOL_CAP_FMT_2TB_FILESIZE | VOL_CAP_FMT_HIDDEN_FILES;
    interfaces = kUnixInterfaces;
  } else if (isOneOf(type, {"nfs", "nfs4", "9p", "ceph", "overlay", "squashfs", "erofs"})) {
    format = VOL_CAP_FMT_SYMBOLICLINKS | VOL_CAP_FMT_HARDLINKS | VOL_CAP_FMT_CASE_SENSITIVE
             | VOL_CAP_FMT_CASE_PRESERVING | VOL_CAP_FMT_2TB_FILESIZE;
    interfaces = kUnixInterfaces;
  } else if (isOneOf(type, {"cifs", "smb3"})) {
    format = VOL_CAP_FMT_SYMBOLICLINKS | VOL_CAP_FMT_HARDLINKS | VOL_CAP_FMT_CASE_PRESERVING
             | VOL_CAP_FMT_2TB_FILESIZE;
    interfaces = VOL_CAP_INT_ATTRLIST | VOL_CAP_INT_ADVLOCK | VOL_CAP_INT_USERACCESS;
  } else if (isOneOf(type, {"iso9660", "udf"})) {
    format = VOL_CAP_FMT_CASE_SENSITIVE | VOL_CAP_FMT_CASE_PRESERVING;
    interfaces = VOL_CAP_INT_ATTRLIST | VOL_CAP_INT_USERACCESS;
  } else {
    known = false;
    interfaces = VOL_CAP_INT_ATTRLIST | VOL_CAP_INT_USERACCESS;  // This layer answers for all.
  }
  if (journaled) format |= VOL_CAP_FMT_JOURNAL | VOL_CAP_FMT_JOURNAL_ACTIVE;
  result.valid[VOL_CAPABILITIES_FORMAT] = known ? kFormatKnown : (journaled ? format : 0);
  result.valid[VOL_CAPABILITIES_INTERFACES] =
      known ? kInterfacesKnown : VOL_CAP_INT_ATTRLIST | VOL_CAP_INT_USERACCESS;
  return result;
}

std::optional<std::string> volumeLabel(int fd) {
  char label[FSLABEL_MAX + 1] = {};
  if (ioctl(fd, FS_IOC_GETFSLABEL, label) != 0) return std::nullopt;
  label[FSLABEL_MAX] = '\0';
  if (label[0] == '\0') return std::nullopt;
  return std::string(label);
}

std::optional<std::array<unsigned char, 16>> volumeUUID(int fd, const MountEntry& entry) {
  // Kernel interfaces get a random UUID at each mount; it names no volume worth telling apart.
  if (entry.isPseudo) return std::nullopt;
  fsuuid2 answer{};
  if (fd >= 0 && ioctl(fd, FS_IOC_GETFSUUID, &answer) == 0 && answer.len == 16
      && !allZero(answer.uuid, 16)) {
    std::array<unsigned char, 16> bytes{};
    std::memcpy(bytes.data(), answer.uuid, 16);
    return bytes;
  }
  return uuidFromUdev(entry);
}

}  // namespace carrow::platform::detail
