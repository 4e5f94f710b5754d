#pragma once

// The object that one getattrlist call describes, and the facts about it that the reply draws
// on. Each fact is fetched on first use, so a request pays only for the sources it needs.

#include <array>
#include <cstdint>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/statfs.h>

#include "mount_cache.h"

namespace carrow::platform::detail {

class AttrSubject {
 public:
  /// `forVolume` asks for the mount id that the mount table knows, which a volume read needs;
  /// other reads ask for the never-reused id that keys the type-number cache.
  AttrSubject(const char* path, bool noFollow, bool forVolume)
      : path_(path), noFollow_(noFollow), forVolume_(forVolume) {}
  ~AttrSubject();
  AttrSubject(const AttrSubject&) = delete;
  AttrSubject& operator=(const AttrSubject&) = delete;

  /// Looks the object up. Returns 0, or the errno of the lookup.
  int lookUp();

  const struct statx& stat() const noexcept { return stat_; }
  bool has(unsigned int statxField) const noexcept { return (stat_.stx_mask & statxField) != 0; }
  bool isDirectory() const noexcept { return S_ISDIR(stat_.stx_mode); }
  bool isSymbolicLink() const noexcept { return S_ISLNK(stat_.stx_mode); }
  bool noFollow() const noexcept { return noFollow_; }
  const char* path() const noexcept { return path_; }

  /// The last component of the path as named ("/" for the root).
  std::string name();

  /// The absolute path without symbolic links (the link itself kept when not followed).
  const std::optional<std::string>& realPath();

  /// The statistics of the file system the object lies on.
  const struct ::statfs* fileSystem();

  /// The statfs type number of that file system; remembered per mount, as it cannot change.
  std::optional<std::uint32_t> fileSystemType();

  /// The mount the object lies on.
  const MountEntry* mount();

  /// Whether the object is the root of its mount. Needs `mount()` on kernels that do not flag it.
  bool isMountRoot();

  /// The id of the directory that holds the object; 1 for the root of a mount, as for a volume
  /// root on the platform.
  std::optional<std::uint64_t> parentId();

  /// Whether the file system of the object's mount keeps an active journal.
  bool journaled();

  /// The volume's label and UUID (the object must be a mount root).
  const std::optional<std::string>& volumeLabel();
  const std::optional<std::array<unsigned char, 16>>& volumeUUID();

 private:
  int volumeDescriptor();

  const char* path_;
  bool noFollow_;
  bool forVolume_;
  struct statx stat_ {};

  bool realPathDone_ = false;
  std::optional<std::string> realPath_;
  bool fileSystemDone_ = false;
  bool fileSystemValid_ = false;
  struct ::statfs fileSystem_ {};
  bool mountDone_ = false;
  std::shared_ptr<const MountSnapshot> mounts_;
  const MountEntry* mount_ = nullptr;
  std::optional<bool> journaled_;
  bool volumeDescriptorDone_ = false;
  int volumeFd_ = -1;
  bool labelDone_ = false;
  std::optional<std::string> label_;
  bool uuidDone_ = false;
  std::optional<std::array<unsigned char, 16>> uuid_;
};

}  // namespace carrow::platform::detail
