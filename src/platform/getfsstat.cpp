#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/statfs.h>
#include <system_error>

#include <carrow/platform/mount.h>

#include "mount_cache.h"
#include "volume_traits.h"

namespace carrow::platform {
namespace {

template <std::size_t N>
void copyText(char (&field)[N], const std::string& text) {
  std::size_t length = std::min(text.size(), N - 1);
  std::memcpy(field, text.data(), length);
  field[length] = '\0';
}

// The user a FUSE file system was mounted for; 0 (the super-user) for every other mount, which
// Linux mounts on behalf of the system.
std::uint32_t owner(const MountEntry& entry) {
  std::string_view options = entry.superblockOptions;
  constexpr std::string_view kKey = "user_id=";
  for (std::size_t start = 0; start < options.size();) {
    std::size_t end = options.find(',', start);
    if (end == std::string_view::npos) end = options.size();
    std::string_view option = options.substr(start, end - start);
    if (option.starts_with(kKey)) {
      std::uint32_t id = 0;
      for (char c : option.substr(kKey.size())) {
        if (c < '0' || c > '9') return 0;
        id = id * 10 + static_cast<std::uint32_t>(c - '0');
      }
      return id;
    }
    start = end + 1;
  }
  return 0;
}

void fill(statfs& record, const detail::MountSnapshot& mounts, const MountEntry& entry,
          bool touch) {
  // Cleared in place: assigning a zeroed temporary would build the 2 KiB record on the stack first.
  std::memset(&record, 0, sizeof record);
  std::uint32_t type = detail::typeNumberForName(entry.fsType);
  struct ::statfs sizes {};
  if (touch && ::statfs(entry.mountPoint.c_str(), &sizes) == 0) {
    type = static_cast<std::uint32_t>(sizes.f_type);
    record.f_bsize = static_cast<std::uint32_t>(sizes.f_frsize);
    record.f_iosize = static_cast<std::int32_t>(std::min<long>(sizes.f_bsize, INT32_MAX));
    record.f_blocks = sizes.f_blocks;
    record.f_bfree = sizes.f_bfree;
    record.f_bavail = sizes.f_bavail;
    record.f_files = sizes.f_files;
    record.f_ffree = sizes.f_ffree;
  }
  record.f_fsid.val[0] =
      static_cast<std::int32_t>(detail::encodeDevice(entry.deviceMajor, entry.deviceMinor));
  record.f_fsid.val[1] = static_cast<std::int32_t>(type);
  record.f_owner = owner(entry);
  record.f_type = type;
  // The journal is found in /sys and /proc, never on the file system itself.
  bool journaled = mounts.journaled(entry);
  record.f_flags = detail::mountFlags(entry, journaled);
  copyText(record.f_fstypename, entry.fsType);
  copyText(record.f_mntonname, entry.mountPoint);
  copyText(record.f_mntfromname, entry.source);
}

// A mount point the record cannot hold whole is left out: a cut path names another directory.
bool fits(const MountEntry& entry) {
  return entry.mountPoint.size() < MAXPATHLEN;
}

}  // namespace

int getfsstat(statfs* buf, int bufsize, int mode) {
  std::shared_ptr<const detail::MountSnapshot> mounts;
  try {
    mounts = detail::currentMounts();
  } catch (const std::system_error& error) {
    errno = error.code().value() != 0 ? error.code().value() : EIO;
    return -1;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  }
  const auto& entries = mounts->entries();
  if (buf == nullptr) {
    return static_cast<int>(std::count_if(entries.begin(), entries.end(), fits));
  }
  // As on the platform, MNT_WAIT wins when both are given.
  const bool noWait = (mode & MNT_NOWAIT) != 0 && (mode & MNT_WAIT) == 0;
  const std::size_t capacity = bufsize > 0 ? static_cast<std::size_t>(bufsize) / sizeof(statfs) : 0;
  std::size_t written = 0;
  for (const auto& entry : entries) {
    if (written == capacity) break;
    if (!fits(entry)) continue;
    // A covered mount's path leads to the file system on top: its sizes cannot be asked for.
    bool touch = !(noWait && mounts->mayBlock(entry)) && !mounts->isCovered(entry);
    fill(buf[written++], *mounts, entry, touch);
  }
  return static_cast<int>(written);
}

}  // namespace carrow::platform
