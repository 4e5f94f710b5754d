#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <carrow/attributes/attr_list.h>
#include <carrow/volumes/attr_list_disk_traits.h>

namespace carrow {

/// An immutable description of one mounted volume: where it is mounted, its identity (file-system
/// id, UUID, names, device), its size and usage, and its traits. It is made from one attribute
/// read of the mount point and may be shared between threads.
///
///     AttrListDisk root(FileURL::fileURLWithPath("/", true), false);
///     for (const AttrListDisk& volume : AttrListDisk::mountedVolumes()) ...
class AttrListDisk {
 public:
  /// Where a description looks up the system's data volume. `system()` reads them from the
  /// kernel; tests describe volumes against values of their own.
  struct Environment {
    /// The data volume's UUID text, or none when it is unknown.
    std::function<std::optional<std::string>()> dataVolumeUUID;
    /// The root volume's name, with "/" as ":". Throws when it cannot be read.
    std::function<std::string()> rootVolumeName;

    /// The UUID of "/System/Volumes/Data/" (read once per process, even when the read fails) and
    /// the name of "/" (read anew on each call).
    static const Environment& system();
  };

  /// Describes the volume mounted at `mountPoint`. `isKnownDataVolume` tells that the caller
  /// already knows it is the system's data volume. An error of the attribute read is thrown as
  /// it came; a volume that lacks a required attribute is logged (category "AttrListDisk") and
  /// throws `std::system_error` with `ENOTSUP`.
  AttrListDisk(const FileURL& mountPoint, bool isKnownDataVolume);

  /// Describes a volume from attributes already read (the keys of `volumeKeys()`), as the
  /// constructor does after its read.
  static AttrListDisk fromAttributes(const AttrList::Attributes& attributes, bool isKnownDataVolume,
                                     const Environment& environment = Environment::system());

  /// The 15 keys read for every volume, made once.
  static std::span<const AttrList::Key> volumeKeys();

  /// Every mounted volume that can be described, in the kernel's order; volumes that cannot are
  /// left out. Throws `std::system_error` when the kernel cannot list the file systems.
  static std::vector<AttrListDisk> mountedVolumes();
  /// The booted system's data volume ("/System/Volumes/Data/"). Throws when it cannot be
  /// described.
  static AttrListDisk bootedDataVolume();
  /// The volume mounted at `mountPoint` (not known to be the data volume).
  static AttrListDisk volume(const FileURL& mountPoint) { return AttrListDisk(mountPoint, false); }

  const FileURL& mountPoint() const noexcept { return mountPoint_; }
  const FSID& fsid() const noexcept { return fsid_; }
  /// For example "apfs".
  const std::string& filesystemTypeName() const noexcept { return filesystemTypeName_; }
  /// The volume UUID in its standard text form.
  const std::optional<std::string>& uuid() const noexcept { return uuid_; }
  /// The volume name with every "/" replaced by ":".
  const std::optional<std::string>& name() const noexcept { return name_; }
  /// `name`, or for the data volume of a volume group, the name of the root volume.
  const std::optional<std::string>& userVisibleName() const noexcept { return userVisibleName_; }
  /// For a snapshot mount whose device reads "snapshot@device": the snapshot's name.
  const std::optional<std::string>& snapshotName() const noexcept { return snapshotName_; }
  const std::optional<std::uint32_t>& owner() const noexcept { return owner_; }
  /// The mounted device without "/dev/" (disk3s1 for /dev/disk3s1).
  const std::string& deviceName() const noexcept { return deviceName_; }
  /// The mounted device as the kernel reports it.
  const std::string& devicePath() const noexcept { return devicePath_; }
  /// For a snapshot mount whose device reads "snapshot@device": the live device.
  const std::optional<std::string>& liveDiskDevicePath() const noexcept {
    return liveDiskDevicePath_;
  }
  const std::optional<std::uint32_t>& volumeSignature() const noexcept { return volumeSignature_; }
  /// Bytes.
  const std::optional<std::int64_t>& capacity() const noexcept { return capacity_; }
  const std::optional<std::int64_t>& bytesUsed() const noexcept { return bytesUsed_; }
  /// Free space, not the space available to the caller.
  const std::optional<std::int64_t>& bytesFree() const noexcept { return bytesFree_; }
  /// None when absent or 0.
  const std::optional<std::int64_t>& quota() const noexcept { return quota_; }
  CRAttrListDiskTraits traits() const noexcept { return traits_; }

  /// AttrListDisk("name","apfs","UUID","/path"), with "-" for an absent name or UUID.
  std::string description() const;

 private:
  AttrListDisk() = default;

  FileURL mountPoint_;
  FSID fsid_;
  std::string filesystemTypeName_;
  std::optional<std::string> uuid_;
  std::optional<std::string> name_;
  std::optional<std::string> userVisibleName_;
  std::optional<std::string> snapshotName_;
  std::optional<std::uint32_t> owner_;
  std::string deviceName_;
  std::string devicePath_;
  std::optional<std::string> liveDiskDevicePath_;
  std::optional<std::uint32_t> volumeSignature_;
  std::optional<std::int64_t> capacity_;
  std::optional<std::int64_t> bytesUsed_;
  std::optional<std::int64_t> bytesFree_;
  std::optional<std::int64_t> quota_;
  CRAttrListDiskTraits traits_;
};

std::ostream& operator<<(std::ostream& out, const AttrListDisk& disk);

}  // namespace carrow
