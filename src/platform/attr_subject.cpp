#include "attr_subject.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <unordered_map>

#include <carrow/concurrency/unfair_lock.h>

#include "volume_traits.h"

#ifndef STATX_MNT_ID_UNIQUE
#define STATX_MNT_ID_UNIQUE 0x00004000U  // Linux 6.8: a mount id that is never reused
#endif

namespace carrow::platform::detail {
namespace {

// Never trigger an automount, and take what the kernel has at hand rather than asking a network
// file system's server for fresh attributes.
constexpr int kLookupFlags = AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT;
constexpr unsigned int kStatxFields = STATX_BASIC_STATS | STATX_BTIME;

// The type number of each mount seen, by its never-reused id: a file-system id then costs no
// statfs call. Bounded; cleared when full, since it only saves work.
class TypeNumberCache {
 public:
  std::optional<std::uint32_t> find(std::uint64_t mountId) {
    std::lock_guard guard(lock_);
    auto found = numbers_.find(mountId);
    if (found == numbers_.end()) return std::nullopt;
    return found->second;
  }
  void insert(std::uint64_t mountId, std::uint32_t number) {
    std::lock_guard guard(lock_);
    if (numbers_.size() >= kLimit) numbers_.clear();
    try {
      numbers_.emplace(mountId, number);
    } catch (...) {
      // Out of memory: the cache only saves work.
    }
  }

 private:
  static constexpr std::size_t kLimit = 4096;
  CRUnfairLock lock_;
  std::unordered_map<std::uint64_t, std::uint32_t> numbers_;
};

TypeNumberCache& typeNumbers() {
  static auto* cache = new TypeNumberCache();  // Never destroyed: callers may run during exit.
  return *cache;
}

std::string_view trimTrailingSlashes(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}

std::string_view lastComponent(std::string_view path) {
  auto slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string parentOf(std::string_view path) {
  path = trimTrailingSlashes(path);
  auto slash = path.rfind('/');
  if (slash == std::string_view::npos) return ".";
  if (slash == 0) return "/";
  return std::string(path.substr(0, slash));
}

std::optional<std::string> resolve(const char* path) {
  char* resolved = ::realpath(path, nullptr);
  if (resolved == nullptr) return std::nullopt;
  std::string result(resolved);
  std::free(resolved);
  return result;
}

}  // namespace

AttrSubject::~AttrSubject() {
  if (volumeFd_ >= 0) close(volumeFd_);
}

int AttrSubject::lookUp() {
  int flags = kLookupFlags | (noFollow_ ? AT_SYMLINK_NOFOLLOW : 0);
  unsigned int fields = kStatxFields | (forVolume_ ? STATX_MNT_ID : STATX_MNT_ID_UNIQUE);
  if (statx(AT_FDCWD, path_, flags, fields, &stat_) != 0) return errno;
  return 0;
}

std::string AttrSubject::name() {
  std::string_view trimmed = trimTrailingSlashes(path_);
  if (trimmed == "/") return "/";
  std::string_view last = lastComponent(trimmed);
  if (last != "." && last != ".." && !last.empty()) return std::string(last);
  // "." and ".." name a directory by its relation; its own name is in the resolved path.
  const auto& resolved = realPath();
  if (!resolved) return std::string(last);
  if (*resolved == "/") return "/";
  return std::string(lastComponent(*resolved));
}

const std::optional<std::string>& AttrSubject::realPath() {
  if (realPathDone_) return realPath_;
  realPathDone_ = true;
  if (noFollow_ && isSymbolicLink()) {
    std::string_view trimmed = trimTrailingSlashes(path_);
    auto directory = resolve(parentOf(trimmed).c_str());
    if (directory) {
      std::string joined = *directory;
      if (joined != "/") joined += '/';
      joined += lastComponent(trimmed);
      realPath_ = std::move(joined);
    }
  } else {
    realPath_ = resolve(path_);
  }
  return realPath_;
}

const struct ::statfs* AttrSubject::fileSystem() {
  if (!fileSystemDone_) {
    fileSystemDone_ = true;
    // A link that is not followed lies on the file system of the directory that holds it.
    std::string target = noFollow_ && isSymbolicLink() ? parentOf(path_) : std::string(path_);
    fileSystemValid_ = ::statfs(target.c_str(), &fileSystem_) == 0;
  }
  return fileSystemValid_ ? &fileSystem_ : nullptr;
}

std::optional<std::uint32_t> AttrSubject::fileSystemType() {
  const bool unique = has(STATX_MNT_ID_UNIQUE);
  if (unique) {
    if (auto known = typeNumbers().find(stat_.stx_mnt_id)) return known;
  }
  const auto* fs = fileSystem();
  if (fs == nullptr) return std::nullopt;
  auto number = static_cast<std::uint32_t>(fs->f_type);
  if (unique) typeNumbers().insert(stat_.stx_mnt_id, number);
  return number;
}

const MountEntry* AttrSubject::mount() {
  if (mountDone_) return mount_;
  mountDone_ = true;
  try {
    mounts_ = currentMounts();
  } catch (...) {
    return nullptr;  // Without a mount table the mount-derived attributes are not supplied.
  }
  if (has(STATX_MNT_ID)) {
    mount_ = mounts_->byId(static_cast<int>(stat_.stx_mnt_id));
  }
  if (mount_ == nullptr) {
    // Kernels before 5.8 do not report the mount id: find the mount by device and path.
    const auto& resolved = realPath();
    mount_ = mounts_->byDevice(stat_.stx_dev_major, stat_.stx_dev_minor,
                               resolved ? *resolved : std::string(path_));
  }
  return mount_;
}

bool AttrSubject::isMountRoot() {
  if ((stat_.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0) {
    return (stat_.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  }
  const MountEntry* entry = mount();
  const auto& resolved = realPath();
  return entry != nullptr && resolved && *resolved == entry->mountPoint;
}

std::optional<std::uint64_t> AttrSubject::parentId() {
  if (isMountRoot()) return 1;
  std::string parent;
  if (isDirectory()) {
    // ".." of a directory is its physical parent, whatever links led to it.
    parent = std::string(trimTrailingSlashes(path_)) + "/..";
  } else {
    const auto& resolved = realPath();
    if (!resolved) return std::nullopt;
    parent = parentOf(*resolved);
  }
  struct statx parentStat {};
  if (statx(AT_FDCWD, parent.c_str(), kLookupFlags, STATX_INO, &parentStat) != 0
      || (parentStat.stx_mask & STATX_INO) == 0) {
    return std::nullopt;
  }
  return parentStat.stx_ino;
}

bool AttrSubject::journaled() {
  if (!journaled_) {
    const MountEntry* entry = mount();
    journaled_ = entry != nullptr && mounts_->journaled(*entry);
  }
  return *journaled_;
}

int AttrSubject::volumeDescriptor() {
  if (!volumeDescriptorDone_) {
    volumeDescriptorDone_ = true;
    // Only directories and regular files are opened: opening a device or a FIFO can act on it.
    if (isDirectory() || S_ISREG(stat_.stx_mode)) {
      volumeFd_ =
          open(path_, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (noFollow_ ? O_NOFOLLOW : 0));
    }
  }
  return volumeFd_;
}

const std::optional<std::string>& AttrSubject::volumeLabel() {
  if (!labelDone_) {
    labelDone_ = true;
    // Kernel interfaces (proc, sysfs, cgroup and the like) have no label: asking costs an open, a
    // failing ioctl and a close. Skipped when the mount is already known, so that a request for
    // the label alone does not read the mount table for it.
    if (mountDone_ && mount_ != nullptr && mount_->isPseudo) return label_;
    int fd = volumeDescriptor();
    if (fd >= 0) label_ = detail::volumeLabel(fd);
  }
  return label_;
}

const std::optional<std::array<unsigned char, 16>>& AttrSubject::volumeUUID() {
  if (!uuidDone_) {
    uuidDone_ = true;
    const MountEntry* entry = mount();
    // A kernel interface has no UUID worth telling apart; it is not even opened.
    if (entry != nullptr && !entry->isPseudo) {
      uuid_ = detail::volumeUUID(volumeDescriptor(), *entry);
    }
  }
  return uuid_;
}

}  // namespace carrow::platform::detail
