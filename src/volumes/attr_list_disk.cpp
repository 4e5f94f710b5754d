#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>

#include <carrow/logging/log.h>
#include <carrow/platform/attr.h>
#include <carrow/platform/mount.h>
#include <carrow/volumes/attr_list_disk.h>

namespace carrow {

namespace {

using Key = AttrList::Key;
using Traits = CRAttrListDiskTraits;

template <class T>
const T* find(const AttrList::Attributes& attributes, Key key) {
  auto found = attributes.find(key);
  return found == attributes.end() ? nullptr : found->second.get<T>();
}

template <class T>
std::optional<T> optional(const AttrList::Attributes& attributes, Key key) {
  const T* value = find<T>(attributes, key);
  return value ? std::optional<T>(*value) : std::nullopt;
}

std::string replacingAll(std::string text, std::string_view from, std::string_view to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

Traits typeTrait(std::string_view typeName) {
  static constexpr std::pair<std::string_view, Traits> kTypes[] = {
      {"apfs", Traits::apfs}, {"hfs", Traits::hfs},     {"afpfs", Traits::afpfs},
      {"afcs", Traits::afcs}, {"exfat", Traits::exfat}, {"msdos", Traits::msdos},
      {"ntfs", Traits::ntfs}, {"smbfs", Traits::smbfs},
  };
  for (auto [name, trait] : kTypes) {
    if (name == typeName) return trait;
  }
  return Traits();
}

Traits mountFlagTraits(std::uint32_t flags) {
  Traits traits;
  if (flags & platform::MNT_ROOTFS) traits |= Traits::rootFileSystem;
  if (flags & platform::MNT_LOCAL) traits |= Traits::local;
  if (!(flags & platform::MNT_DONTBROWSE)) traits |= Traits::browsable;
  if (flags & platform::MNT_RDONLY) traits |= Traits::readOnly;
  if (flags & platform::MNT_JOURNALED) traits |= Traits::journaled | Traits::journalingSupported;
  if (flags & platform::MNT_SNAPSHOT) traits |= Traits::snapshot;
  if (flags & platform::MNT_IGNORE_OWNERSHIP) traits |= Traits::ignoresOwnership;
  if (flags & platform::MNT_CPROTECT) traits |= Traits::contentProtection;
  return traits;
}

// Word 0 is the format word; the `valid` mask is not consulted.
Traits capabilityTraits(const VolCapabilities& capabilities) {
  const std::uint32_t format = capabilities.capabilities[platform::VOL_CAPABILITIES_FORMAT];
  Traits traits;
  if (format & platform::VOL_CAP_FMT_JOURNAL_ACTIVE) traits |= Traits::journaled;
  if (format & platform::VOL_CAP_FMT_JOURNAL) traits |= Traits::journalingSupported;
  if (format & platform::VOL_CAP_FMT_CASE_SENSITIVE) traits |= Traits::caseSensitive;
  if (format & platform::VOL_CAP_FMT_VOL_GROUPS) traits |= Traits::volumeGroups;
  return traits;
}

// "[<key>: value, ...]", keys in reply order so that records of equal maps read alike.
std::string printed(const AttrList::Attributes& attributes) {
  std::vector<const AttrList::Attributes::value_type*> entries;
  for (const auto& entry : attributes) entries.push_back(&entry);
  std::sort(entries.begin(), entries.end(), [](auto* a, auto* b) { return a->first < b->first; });
  std::string text = "[";
  for (const auto* entry : entries) {
    if (text.size() > 1) text += ", ";
    text += entry->first.description() + ": " + entry->second.description();
  }
  return text + "]";
}

[[noreturn]] void failWithMissingAttributes(const AttrList::Attributes& attributes) {
  CRLog::error("AttrListDisk", "Failed to initialize disk with attributes " + printed(attributes));
  throw std::system_error(ENOTSUP, std::generic_category());
}

std::optional<std::string> readDataVolumeUUID() {
  try {
    return AttrList::attribute<UUID>(Key::volumeUUID,
                                     FileURL::fileURLWithPath("/System/Volumes/Data/", true),
                                     AttrList::Options::volumeDefault())
        .uuidString();
  } catch (...) {
    return std::nullopt;
  }
}

std::string readRootVolumeName() {
  return replacingAll(
      AttrList::attribute<std::string>(Key::volumeName, FileURL::fileURLWithPath("/", true),
                                       AttrList::Options::volumeDefault()),
      "/", ":");
}

}  // namespace

std::vector<std::string_view> CRAttrListDiskTraits::memberNames() const {
  static constexpr std::pair<std::string_view, CRAttrListDiskTraits> kMembers[] = {
      {"apfs", CRAttrListDiskTraits::apfs},
      {"hfs", CRAttrListDiskTraits::hfs},
      {"afpfs", CRAttrListDiskTraits::afpfs},
      {"afcs", CRAttrListDiskTraits::afcs},
      {"exfat", CRAttrListDiskTraits::exfat},
      {"msdos", CRAttrListDiskTraits::msdos},
      {"ntfs", CRAttrListDiskTraits::ntfs},
      {"smbfs", CRAttrListDiskTraits::smbfs},
      {"rootFileSystem", CRAttrListDiskTraits::rootFileSystem},
      {"local", CRAttrListDiskTraits::local},
      {"browsable", CRAttrListDiskTraits::browsable},
      {"readOnly", CRAttrListDiskTraits::readOnly},
      {"journaled", CRAttrListDiskTraits::journaled},
      {"snapshot", CRAttrListDiskTraits::snapshot},
      {"ignoresOwnership", CRAttrListDiskTraits::ignoresOwnership},
      {"contentProtection", CRAttrListDiskTraits::contentProtection},
      {"journalingSupported", CRAttrListDiskTraits::journalingSupported},
      {"caseSensitive", CRAttrListDiskTraits::caseSensitive},
      {"volumeGroups", CRAttrListDiskTraits::volumeGroups},
  };
  std::vector<std::string_view> names;
  for (auto [name, member] : kMembers) {
    if (contains(member)) names.push_back(name);
  }
  return names;
}

const AttrListDisk::Environment& AttrListDisk::Environment::system() {
  static const Environment environment{
      [] {
        static const std::optional<std::string> uuid = readDataVolumeUUID();
        return uuid;
      },
      readRootVolumeName,
  };
  return environment;
}

std::span<const AttrList::Key> AttrListDisk::volumeKeys() {
  static const std::array<Key, 15> keys = {
      Key::fsType,
      Key::volumeName,
      Key::volumeUUID,
      Key::volumeCapabilities,
      Key::ownerID,
      Key::fsID,
      Key::mountPoint,
      Key::mountedDeviceName,
      Key::mountFlags,
      Key::spaceFree,
      Key::spaceUsed,
      Key::volumeSize,
      Key::quota,
      Key::volumeSignature,
      Key::filesystemTypeName,
  };
  return keys;
}

AttrListDisk::AttrListDisk(const FileURL& mountPoint, bool isKnownDataVolume)
    : AttrListDisk(fromAttributes(
        AttrList::attributes(mountPoint.path(), volumeKeys(), AttrList::Options::volumeDefault()),
        isKnownDataVolume)) {}

AttrListDisk AttrListDisk::fromAttributes(const AttrList::Attributes& attributes,
                                          bool isKnownDataVolume, const Environment& environment) {
  const auto* mountPoint = find<std::string>(attributes, Key::mountPoint);
  const auto* device = find<std::string>(attributes, Key::mountedDeviceName);
  const auto* fsid = find<FSID>(attributes, Key::fsID);
  const auto* typeName = find<std::string>(attributes, Key::filesystemTypeName);
  const auto* mountFlags = find<std::uint32_t>(attributes, Key::mountFlags);
  const auto* capabilities = find<VolCapabilities>(attributes, Key::volumeCapabilities);
  if (!mountPoint || !device || !fsid || !typeName || !mountFlags || !capabilities) {
    failWithMissingAttributes(attributes);
  }

  AttrListDisk disk;
  disk.mountPoint_ = FileURL::fileURLWithPath(*mountPoint, true);
  disk.traits_ =
      typeTrait(*typeName) | mountFlagTraits(*mountFlags) | capabilityTraits(*capabilities);
  disk.devicePath_ = *device;
  disk.deviceName_ = replacingAll(*device, "/dev/", "");
  if (disk.traits_.contains(Traits::snapshot)) {
    // A snapshot mount reports its device as "<snapshot>@<live device path>".
    const auto at = device->find('@');
    if (at != std::string::npos && device->find('@', at + 1) == std::string::npos) {
      disk.snapshotName_ = device->substr(0, at);
      disk.liveDiskDevicePath_ = device->substr(at + 1);
    }
  }
  disk.fsid_ = *fsid;
  disk.filesystemTypeName_ = *typeName;
  if (const auto* name = find<std::string>(attributes, Key::volumeName)) {
    disk.name_ = replacingAll(*name, "/", ":");
  }
  if (const auto* uuid = find<UUID>(attributes, Key::volumeUUID)) {
    disk.uuid_ = uuid->uuidString();
  }

  disk.userVisibleName_ = disk.name_;
  if (disk.traits_.contains(Traits::volumeGroups)
      && (isKnownDataVolume || disk.uuid_ == environment.dataVolumeUUID())) {
    try {
      disk.userVisibleName_ = environment.rootVolumeName();
    } catch (...) {
      // The volume keeps its own name.
    }
  }

  disk.owner_ = optional<std::uint32_t>(attributes, Key::ownerID);
  disk.capacity_ = optional<std::int64_t>(attributes, Key::volumeSize);
  disk.bytesUsed_ = optional<std::int64_t>(attributes, Key::spaceUsed);
  disk.bytesFree_ = optional<std::int64_t>(attributes, Key::spaceFree);
  disk.quota_ = optional<std::int64_t>(attributes, Key::quota);
  if (disk.quota_ == 0) disk.quota_.reset();
  disk.volumeSignature_ = optional<std::uint32_t>(attributes, Key::volumeSignature);
  return disk;
}

std::string AttrListDisk::description() const {
  auto quoted = [](const std::string& text) { return "\"" + text + "\""; };
  return "AttrListDisk(" + quoted(name_.value_or("-")) + "," + quoted(filesystemTypeName_) + ","
         + quoted(uuid_.value_or("-")) + "," + quoted(mountPoint_.path()) + ")";
}

std::ostream& operator<<(std::ostream& out, const AttrListDisk& disk) {
  return out << disk.description();
}

}  // namespace carrow
