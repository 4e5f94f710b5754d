#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/sysmacros.h>
#include <type_traits>
#include <unistd.h>

#include <carrow/platform/attr.h>
#include <carrow/platform/mount.h>

#include "attr_subject.h"
#include "volume_traits.h"

namespace carrow::platform {
namespace {

using detail::AttrSubject;

enum class Group : std::uint8_t { common, volume, directory, file, fork, commonExtended };

// Where an attribute's value comes from on Linux; `none` marks what this layer cannot supply,
// which a reply leaves out as the kernel does for a file system that lacks it.
enum class Source : std::uint8_t {
  none,
  returnedAttributes,     // the reply's own returned-attributes set
  name,                   // last path component
  deviceId,               // statx stx_dev
  fsid,                   // statx stx_dev and statfs f_type, remembered per mount
  objectType,             // statx stx_mode
  objectId,               // statx stx_ino (low 32 bits), generation 0
  parentObjectId,         // statx of the parent directory
  createdTime,            // statx stx_btime, when the file system keeps it
  modificationTime,       // statx stx_mtime
  changeTime,             // statx stx_ctime
  accessTime,             // statx stx_atime
  ownerId,                // statx stx_uid
  groupId,                // statx stx_gid
  accessMask,             // statx stx_mode permission bits
  flags,                  // statx stx_attributes
  userAccess,             // faccessat with AT_EACCESS
  fileId,                 // statx stx_ino
  parentId,               // statx of the parent directory
  fullPath,               // realpath
  volumeFsType,           // statfs f_type
  volumeSize,             // statfs f_blocks x f_frsize
  volumeSpaceFree,        // statfs f_bfree x f_frsize
  volumeSpaceAvailable,   // statfs f_bavail x f_frsize
  volumeSpaceUsed,        // statfs (f_blocks - f_bfree) x f_frsize
  volumeMinAllocation,    // statfs f_frsize
  volumeAllocationClump,  // statfs f_bsize
  volumeIOBlockSize,      // statfs f_bsize
  volumeObjectCount,      // statfs f_files - f_ffree
  volumeMaxObjectCount,   // statfs f_files
  volumeMountPoint,       // mount table
  volumeName,             // FS_IOC_GETFSLABEL
  volumeMountFlags,       // mount table and file-system type
  volumeMountedDevice,    // mount table source
  volumeCapabilities,     // file-system type
  volumeUUID,             // FS_IOC_GETFSUUID or /dev/disk/by-uuid
  volumeAttributes,       // this table
  volumeTypeName,         // mount table type
  volumeInfo,             // a 4-byte word, 0, after the other volume entries
  directoryLinkCount,     // statx stx_nlink
  directoryEntryCount,    // readdir
  directoryMountStatus,   // STATX_ATTR_MOUNT_ROOT, STATX_ATTR_AUTOMOUNT
  allocatedSize,          // statx stx_blocks x 512
  ioBlockSize,            // statx stx_blksize
  dataLength,             // statx stx_size
  fileLinkCount,          // statx stx_nlink
  deviceType,             // statx stx_rdev of a device node
  linkId,                 // statx stx_ino
};

struct Attribute {
  Group group;
  attrgroup_t bit;
  std::uint8_t size;  // bytes in the fixed part; an attribute reference for a variable one
  bool variable;
  Source source;
};

constexpr Attribute fixed(Group group, attrgroup_t bit, std::uint8_t size, Source source) {
  return {group, bit, size, false, source};
}
constexpr Attribute variable(Group group, attrgroup_t bit, Source source) {
  return {group, bit, sizeof(attrreference_t), true, source};
}

constexpr Group C = Group::common;
constexpr Group V = Group::volume;
constexpr Group D = Group::directory;
constexpr Group F = Group::file;
constexpr Group K = Group::fork;
constexpr Group X = Group::commonExtended;

// Every attribute, in reply order: by group, then by position within the group. The position is
// the bit, except that the returned-attributes set comes first and the volume group places used
// space after available space, and quota, reserved size, volume attributes and type name after
// the UUID; the volume-info word comes last.
constexpr Attribute kAttributes[] = {
    fixed(C, ATTR_CMN_RETURNED_ATTRS, 20, Source::returnedAttributes),
    variable(C, ATTR_CMN_NAME, Source::name),
    fixed(C, ATTR_CMN_DEVID, 4, Source::deviceId),
    fixed(C, ATTR_CMN_FSID, 8, Source::fsid),
    fixed(C, ATTR_CMN_OBJTYPE, 4, Source::objectType),
    fixed(C, ATTR_CMN_OBJTAG, 4, Source::none),
    fixed(C, ATTR_CMN_OBJID, 8, Source::objectId),
    fixed(C, ATTR_CMN_OBJPERMANENTID, 8, Source::objectId),
    fixed(C, ATTR_CMN_PAROBJID, 8, Source::parentObjectId),
    fixed(C, ATTR_CMN_SCRIPT, 4, Source::none),
    fixed(C, ATTR_CMN_CRTIME, 16, Source::createdTime),
    fixed(C, ATTR_CMN_MODTIME, 16, Source::modificationTime),
    fixed(C, ATTR_CMN_CHGTIME, 16, Source::changeTime),
    fixed(C, ATTR_CMN_ACCTIME, 16, Source::accessTime),
    fixed(C, ATTR_CMN_BKUPTIME, 16, Source::none),
    fixed(C, ATTR_CMN_FNDRINFO, 32, Source::none),
    fixed(C, ATTR_CMN_OWNERID, 4, Source::ownerId),
    fixed(C, ATTR_CMN_GRPID, 4, Source::groupId),
    fixed(C, ATTR_CMN_ACCESSMASK, 4, Source::accessMask),
    fixed(C, ATTR_CMN_FLAGS, 4, Source::flags),
    fixed(C, ATTR_CMN_GEN_COUNT, 4, Source::none),
    fixed(C, ATTR_CMN_DOCUMENT_ID, 4, Source::none),
    fixed(C, ATTR_CMN_USERACCESS, 4, Source::userAccess),
    variable(C, ATTR_CMN_EXTENDED_SECURITY, Source::none),
    fixed(C, ATTR_CMN_UUID, 16, Source::none),
    fixed(C, ATTR_CMN_GRPUUID, 16, Source::none),
    fixed(C, ATTR_CMN_FILEID, 8, Source::fileId),
    fixed(C, ATTR_CMN_PARENTID, 8, Source::parentId),
    variable(C, ATTR_CMN_FULLPATH, Source::fullPath),
    fixed(C, ATTR_CMN_ADDEDTIME, 16, Source::none),
    fixed(C, ATTR_CMN_ERROR, 4, Source::none),
    fixed(C, ATTR_CMN_DATA_PROTECT_FLAGS, 4, Source::none),

    fixed(V, ATTR_VOL_FSTYPE, 4, Source::volumeFsType),
    fixed(V, ATTR_VOL_SIGNATURE, 4, Source::none),
    fixed(V, ATTR_VOL_SIZE, 8, Source::volumeSize),
    fixed(V, ATTR_VOL_SPACEFREE, 8, Source::volumeSpaceFree),
    fixed(V, ATTR_VOL_SPACEAVAIL, 8, Source::volumeSpaceAvailable),
    fixed(V, ATTR_VOL_SPACEUSED, 8, Source::volumeSpaceUsed),
    fixed(V, ATTR_VOL_MINALLOCATION, 8, Source::volumeMinAllocation),
    fixed(V, ATTR_VOL_ALLOCATIONCLUMP, 8, Source::volumeAllocationClump),
    fixed(V, ATTR_VOL_IOBLOCKSIZE, 4, Source::volumeIOBlockSize),
    fixed(V, ATTR_VOL_OBJCOUNT, 4, Source::volumeObjectCount),
    fixed(V, ATTR_VOL_FILECOUNT, 4, Source::none),
    fixed(V, ATTR_VOL_DIRCOUNT, 4, Source::none),
    fixed(V, ATTR_VOL_MAXOBJCOUNT, 4, Source::volumeMaxObjectCount),
    variable(V, ATTR_VOL_MOUNTPOINT, Source::volumeMountPoint),
    variable(V, ATTR_VOL_NAME, Source::volumeName),
    fixed(V, ATTR_VOL_MOUNTFLAGS, 4, Source::volumeMountFlags),
    variable(V, ATTR_VOL_MOUNTEDDEVICE, Source::volumeMountedDevice),
    fixed(V, ATTR_VOL_ENCODINGSUSED, 8, Source::none),
    fixed(V, ATTR_VOL_CAPABILITIES, 32, Source::volumeCapabilities),
    fixed(V, ATTR_VOL_UUID, 16, Source::volumeUUID),
    fixed(V, ATTR_VOL_QUOTA_SIZE, 8, Source::none),
    fixed(V, ATTR_VOL_FSSUBTYPE, 4, Source::none),
    fixed(V, ATTR_VOL_RESERVED_SIZE, 8, Source::none),
    fixed(V, ATTR_VOL_ATTRIBUTES, 40, Source::volumeAttributes),
    variable(V, ATTR_VOL_FSTYPENAME, Source::volumeTypeName),
    fixed(V, ATTR_VOL_INFO, 4, Source::volumeInfo),

    fixed(D, ATTR_DIR_LINKCOUNT, 4, Source::directoryLinkCount),
    fixed(D, ATTR_DIR_ENTRYCOUNT, 4, Source::directoryEntryCount),
    fixed(D, ATTR_DIR_MOUNTSTATUS, 4, Source::directoryMountStatus),
    fixed(D, ATTR_DIR_ALLOCSIZE, 8, Source::allocatedSize),
    fixed(D, ATTR_DIR_IOBLOCKSIZE, 4, Source::ioBlockSize),
    fixed(D, ATTR_DIR_DATALENGTH, 8, Source::dataLength),

    fixed(F, ATTR_FILE_LINKCOUNT, 4, Source::fileLinkCount),
    fixed(F, ATTR_FILE_TOTALSIZE, 8, Source::dataLength),
    fixed(F, ATTR_FILE_ALLOCSIZE, 8, Source::allocatedSize),
    fixed(F, ATTR_FILE_IOBLOCKSIZE, 4, Source::ioBlockSize),
    fixed(F, ATTR_FILE_CLUMPSIZE, 4, Source::none),
    fixed(F, ATTR_FILE_DEVTYPE, 4, Source::deviceType),
    fixed(F, ATTR_FILE_FILETYPE, 4, Source::none),
    fixed(F, ATTR_FILE_FORKCOUNT, 4, Source::none),
    variable(F, ATTR_FILE_FORKLIST, Source::none),
    fixed(F, ATTR_FILE_DATALENGTH, 8, Source::dataLength),
    fixed(F, ATTR_FILE_DATAALLOCSIZE, 8, Source::allocatedSize),
    fixed(F, ATTR_FILE_DATAEXTENTS, 64, Source::none),
    fixed(F, ATTR_FILE_RSRCLENGTH, 8, Source::none),
    fixed(F, ATTR_FILE_RSRCALLOCSIZE, 8, Source::none),
    fixed(F, ATTR_FILE_RSRCEXTENTS, 64, Source::none),

    fixed(K, ATTR_FORK_TOTALSIZE, 8, Source::none),
    fixed(K, ATTR_FORK_ALLOCSIZE, 8, Source::none),

    variable(X, ATTR_CMNEXT_RELPATH, Source::none),
    fixed(X, ATTR_CMNEXT_PRIVATESIZE, 8, Source::none),
    fixed(X, ATTR_CMNEXT_LINKID, 8, Source::linkId),
    variable(X, ATTR_CMNEXT_NOFIRMLINKPATH, Source::fullPath),
    fixed(X, ATTR_CMNEXT_REALDEVID, 4, Source::deviceId),
    fixed(X, ATTR_CMNEXT_REALFSID, 8, Source::fsid),
    fixed(X, ATTR_CMNEXT_CLONEID, 8, Source::none),
    fixed(X, ATTR_CMNEXT_EXT_FLAGS, 8, Source::none),
    fixed(X, ATTR_CMNEXT_RECURSIVE_GENCOUNT, 8, Source::none),
};

// The reply-order position of an attribute within its group, as a number that sorts like the
// platform's order.
constexpr double position(const Attribute& attribute) {
  if (attribute.group == Group::common && attribute.bit == ATTR_CMN_RETURNED_ATTRS) return 0.1;
  if (attribute.group == Group::volume) {
    switch (attribute.bit) {
      case ATTR_VOL_FSTYPE:
        return 0.1;
      case ATTR_VOL_SIZE:
        return ATTR_VOL_SIGNATURE + 0.1;
      case ATTR_VOL_SPACEFREE:
        return ATTR_VOL_SIZE + 0.1;
      case ATTR_VOL_SPACEAVAIL:
        return ATTR_VOL_SPACEFREE + 0.1;
      case ATTR_VOL_SPACEUSED:
        return ATTR_VOL_SPACEAVAIL + 0.1;
      case ATTR_VOL_QUOTA_SIZE:
        return ATTR_VOL_UUID + 0.1;
      case ATTR_VOL_RESERVED_SIZE:
        return ATTR_VOL_QUOTA_SIZE + 0.1;
      case ATTR_VOL_ATTRIBUTES:
        return ATTR_VOL_RESERVED_SIZE + 0.1;
      case ATTR_VOL_FSTYPENAME:
        return ATTR_VOL_ATTRIBUTES + 0.1;
      default:
        break;
    }
  }
  return attribute.bit;
}

constexpr bool tableIsInReplyOrder() {
  for (std::size_t i = 1; i < std::size(kAttributes); ++i) {
    const auto& previous = kAttributes[i - 1];
    const auto& current = kAttributes[i];
    if (current.group < previous.group) return false;
    if (current.group == previous.group && position(current) <= position(previous)) return false;
  }
  return true;
}
static_assert(tableIsInReplyOrder());

constexpr attrgroup_t suppliedMask(Group group) {
  attrgroup_t mask = 0;
  for (const auto& attribute : kAttributes) {
    if (attribute.group == group && attribute.source != Source::none) mask |= attribute.bit;
  }
  return mask;
}

constexpr std::size_t kLargestFixed = sizeof(vol_attributes_attr_t);
constexpr std::uint32_t kSectorSize = 512;  // The unit of stx_blocks.
// The longest name the platform holds: 255 UTF-16 units as UTF-8, with the terminating zero.
constexpr std::size_t kNameLimit = 766;

// One attribute's value for the reply: fixed bytes, or the text of a variable attribute.
struct Value {
  bool present = false;
  std::array<unsigned char, kLargestFixed> bytes{};
  std::string text;
};

template <class T>
void put(Value& value, const T& field) {
  static_assert(std::is_trivially_copyable_v<T> && sizeof(T) <= kLargestFixed);
  std::memcpy(value.bytes.data(), &field, sizeof(T));
  value.present = true;
}

void putText(Value& value, std::string text, std::size_t limit) {
  // A text the platform could not hold (a path of MAXPATHLEN bytes or more) is not supplied
  // rather than cut: a cut path names another object.
  if (text.size() >= limit) return;
  value.text = std::move(text);
  value.present = true;
}

attr_timespec toTimespec(const statx_timestamp& time) {
  return {time.tv_sec, static_cast<std::int64_t>(time.tv_nsec)};
}

std::uint32_t saturate32(std::uint64_t value) {
  return value > UINT32_MAX ? UINT32_MAX : static_cast<std::uint32_t>(value);
}

std::int64_t bytes(std::uint64_t blocks, std::uint64_t unit) {
  std::uint64_t product = 0;
  if (__builtin_mul_overflow(blocks, unit, &product) || product > INT64_MAX) return INT64_MAX;
  return static_cast<std::int64_t>(product);
}

vtype objectType(std::uint16_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return VREG;
    case S_IFDIR:
      return VDIR;
    case S_IFBLK:
      return VBLK;
    case S_IFCHR:
      return VCHR;
    case S_IFLNK:
      return VLNK;
    case S_IFSOCK:
      return VSOCK;
    case S_IFIFO:
      return VFIFO;
    default:
      return VNON;
  }
}

std::uint32_t fileFlags(const struct statx& stat) {
  auto isSet = [&](std::uint64_t attribute) {
    return (stat.stx_attributes_mask & attribute) != 0 && (stat.stx_attributes & attribute) != 0;
  };
  std::uint32_t flags = 0;
  if (isSet(STATX_ATTR_NODUMP)) flags |= UF_NODUMP;
  if (isSet(STATX_ATTR_COMPRESSED)) flags |= UF_COMPRESSED;
  // Only a privileged process may set or clear these on Linux: the platform's system flags.
  if (isSet(STATX_ATTR_IMMUTABLE)) flags |= SF_IMMUTABLE;
  if (isSet(STATX_ATTR_APPEND)) flags |= SF_APPEND;
  return flags;
}

std::uint32_t userAccess(const AttrSubject& subject) {
  int flags = AT_EACCESS | (subject.noFollow() ? AT_SYMLINK_NOFOLLOW : 0);
  std::uint32_t access = 0;
  if (faccessat(AT_FDCWD, subject.path(), R_OK, flags) == 0) access |= R_OK;
  if (faccessat(AT_FDCWD, subject.path(), W_OK, flags) == 0) access |= W_OK;
  if (faccessat(AT_FDCWD, subject.path(), X_OK, flags) == 0) access |= X_OK;
  return access;
}

std::optional<std::uint32_t> entryCount(const char* path) {
  int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  DIR* directory = fdopendir(fd);
  if (directory == nullptr) {
    close(fd);
    return std::nullopt;
  }
  std::uint64_t count = 0;
  while (dirent* entry = readdir(directory)) {
    std::string_view name = entry->d_name;
    if (name != "." && name != "..") ++count;
  }
  closedir(directory);
  return saturate32(count);
}

std::optional<fsid_t> fileSystemId(AttrSubject& subject) {
  auto type = subject.fileSystemType();
  if (!type) return std::nullopt;
  fsid_t id{};
  id.val[0] = static_cast<std::int32_t>(
      detail::encodeDevice(subject.stat().stx_dev_major, subject.stat().stx_dev_minor));
  id.val[1] = static_cast<std::int32_t>(*type);
  return id;
}

vol_attributes_attr_t volumeAttributes(AttrSubject& subject) {
  attribute_set_t valid{};
  valid.commonattr = suppliedMask(Group::common);
  valid.volattr = suppliedMask(Group::volume);
  valid.dirattr = suppliedMask(Group::directory);
  valid.fileattr = suppliedMask(Group::file);
  valid.forkattr = suppliedMask(Group::commonExtended);
  if (!subject.has(STATX_BTIME)) valid.commonattr &= ~ATTR_CMN_CRTIME;
  if (!subject.volumeLabel()) valid.volattr &= ~ATTR_VOL_NAME;
  if (!subject.volumeUUID()) valid.volattr &= ~ATTR_VOL_UUID;
  return {valid, valid};
}

Value valueOf(Source source, AttrSubject& subject) {
  Value value;
  const struct statx& stat = subject.stat();
  switch (source) {
    case Source::none:
    case Source::returnedAttributes:
      break;
    case Source::name:
      putText(value, subject.name(), kNameLimit);
      break;
    case Source::deviceId:
      put(value, detail::encodeDevice(stat.stx_dev_major, stat.stx_dev_minor));
      break;
    case Source::fsid:
      if (auto id = fileSystemId(subject)) put(value, *id);
      break;
    case Source::objectType:
      if (subject.has(STATX_TYPE))
        put(value, static_cast<std::uint32_t>(objectType(stat.stx_mode)));
      break;
    case Source::objectId:
      if (subject.has(STATX_INO))
        put(value, fsobj_id_t{static_cast<std::uint32_t>(stat.stx_ino), 0});
      break;
    case Source::parentObjectId:
      if (auto parent = subject.parentId()) {
        put(value, fsobj_id_t{static_cast<std::uint32_t>(*parent), 0});
      }
      break;
    case Source::createdTime:
      if (subject.has(STATX_BTIME)) put(value, toTimespec(stat.stx_btime));
      break;
    case Source::modificationTime:
      if (subject.has(STATX_MTIME)) put(value, toTimespec(stat.stx_mtime));
      break;
    case Source::changeTime:
      if (subject.has(STATX_CTIME)) put(value, toTimespec(stat.stx_ctime));
      break;
    case Source::accessTime:
      if (subject.has(STATX_ATIME)) put(value, toTimespec(stat.stx_atime));
      break;
    case Source::ownerId:
      if (subject.has(STATX_UID)) put(value, static_cast<std::uint32_t>(stat.stx_uid));
      break;
    case Source::groupId:
      if (subject.has(STATX_GID)) put(value, static_cast<std::uint32_t>(stat.stx_gid));
      break;
    case Source::accessMask:
      if (subject.has(STATX_MODE)) put(value, static_cast<std::uint32_t>(stat.stx_mode & 07777));
      break;
    case Source::flags:
      put(value, fileFlags(stat));
      break;
    case Source::userAccess:
      put(value, userAccess(subject));
      break;
    case Source::fileId:
    case Source::linkId:
      if (subject.has(STATX_INO)) put(value, static_cast<std::uint64_t>(stat.stx_ino));
      break;
    case Source::parentId:
      if (auto parent = subject.parentId()) put(value, static_cast<std::uint64_t>(*parent));
      break;
    case Source::fullPath:
      if (const auto& path = subject.realPath()) putText(value, *path, MAXPATHLEN);
      break;
    case Source::volumeFsType:
      if (const auto* fs = subject.fileSystem()) {
        put(value, static_cast<std::uint32_t>(fs->f_type));
      }
      break;
    case Source::volumeSize:
      if (const auto* fs = subject.fileSystem()) put(value, bytes(fs->f_blocks, fs->f_frsize));
      break;
    case Source::volumeSpaceFree:
      if (const auto* fs = subject.fileSystem()) put(value, bytes(fs->f_bfree, fs->f_frsize));
      break;
    case Source::volumeSpaceAvailable:
      if (const auto* fs = subject.fileSystem()) put(value, bytes(fs->f_bavail, fs->f_frsize));
      break;
    case Source::volumeSpaceUsed:
      if (const auto* fs = subject.fileSystem()) {
        std::uint64_t used = fs->f_blocks >= fs->f_bfree ? fs->f_blocks - fs->f_bfree : 0;
        put(value, bytes(used, fs->f_frsize));
      }
      break;
    case Source::volumeMinAllocation:
      if (const auto* fs = subject.fileSystem()) {
        put(value, static_cast<std::int64_t>(fs->f_frsize));
      }
      break;
    case Source::volumeAllocationClump:
      if (const auto* fs = subject.fileSystem()) put(value, static_cast<std::int64_t>(fs->f_bsize));
      break;
    case Source::volumeIOBlockSize:
      if (const auto* fs = subject.fileSystem()) {
        put(value, saturate32(static_cast<std::uint64_t>(fs->f_bsize)));
      }
      break;
    case Source::volumeObjectCount:
      if (const auto* fs = subject.fileSystem()) {
        put(value, saturate32(fs->f_files >= fs->f_ffree ? fs->f_files - fs->f_ffree : 0));
      }
      break;
    case Source::volumeMaxObjectCount:
      if (const auto* fs = subject.fileSystem()) put(value, saturate32(fs->f_files));
      break;
    case Source::volumeMountPoint:
      if (const auto* mount = subject.mount()) putText(value, mount->mountPoint, MAXPATHLEN);
      break;
    case Source::volumeName:
      if (const auto& label = subject.volumeLabel()) putText(value, *label, kNameLimit);
      break;
    case Source::volumeMountFlags:
      if (const auto* mount = subject.mount()) {
        put(value, detail::mountFlags(*mount, subject.journaled()));
      }
      break;
    case Source::volumeMountedDevice:
      if (const auto* mount = subject.mount()) putText(value, mount->source, MAXPATHLEN);
      break;
    case Source::volumeCapabilities:
      if (const auto* mount = subject.mount()) {
        put(value, detail::capabilities(mount->fsType, subject.journaled()));
      }
      break;
    case Source::volumeUUID:
      if (const auto& uuid = subject.volumeUUID()) put(value, *uuid);
      break;
    case Source::volumeAttributes:
      put(value, volumeAttributes(subject));
      break;
    case Source::volumeTypeName:
      if (const auto* mount = subject.mount()) {
        putText(value, mount->fsType.substr(0, MFSTYPENAMELEN - 1), MFSTYPENAMELEN);
      }
      break;
    case Source::volumeInfo:
      put(value, std::uint32_t{0});
      break;
    case Source::directoryLinkCount:
    case Source::fileLinkCount:
      if (subject.has(STATX_NLINK)) put(value, static_cast<std::uint32_t>(stat.stx_nlink));
      break;
    case Source::directoryEntryCount:
      if (auto count = entryCount(subject.path())) put(value, *count);
      break;
    case Source::directoryMountStatus: {
      std::uint32_t status = subject.isMountRoot() ? DIR_MNTSTATUS_MNTPOINT : 0;
      if ((stat.stx_attributes & stat.stx_attributes_mask & STATX_ATTR_AUTOMOUNT) != 0) {
        status |= DIR_MNTSTATUS_TRIGGER;
      }
      put(value, status);
      break;
    }
    case Source::allocatedSize:
      if (subject.has(STATX_BLOCKS)) put(value, bytes(stat.stx_blocks, kSectorSize));
      break;
    case Source::ioBlockSize:
      put(value, static_cast<std::uint32_t>(stat.stx_blksize));
      break;
    case Source::dataLength:
      if (subject.has(STATX_SIZE)) put(value, static_cast<std::int64_t>(stat.stx_size));
      break;
    case Source::deviceType: {
      bool isDevice = S_ISBLK(stat.stx_mode) || S_ISCHR(stat.stx_mode);
      put(value, isDevice ? detail::encodeDevice(stat.stx_rdev_major, stat.stx_rdev_minor) : 0u);
      break;
    }
  }
  return value;
}

// Writes into the caller's buffer, dropping whatever would fall past its end.
class ReplyWriter {
 public:
  ReplyWriter(void* buffer, std::size_t size)
      : buffer_(static_cast<unsigned char*>(buffer)), size_(size) {}

  void write(std::size_t offset, const void* data, std::size_t length) {
    if (offset >= size_) return;
    std::memcpy(buffer_ + offset, data, std::min(length, size_ - offset));
  }
  void zero(std::size_t offset, std::size_t length) {
    if (offset >= size_) return;
    std::memset(buffer_ + offset, 0, std::min(length, size_ - offset));
  }
  template <class T>
  void write(std::size_t offset, const T& field) {
    write(offset, &field, sizeof(T));
  }

 private:
  unsigned char* buffer_;
  std::size_t size_;
};

constexpr std::size_t roundUp4(std::size_t value) {
  return (value + 3) & ~std::size_t{3};
}

attrgroup_t& word(attribute_set_t& set, Group group) {
  switch (group) {
    case Group::common:
      return set.commonattr;
    case Group::volume:
      return set.volattr;
    case Group::directory:
      return set.dirattr;
    case Group::file:
      return set.fileattr;
    case Group::fork:
    case Group::commonExtended:
      break;
  }
  return set.forkattr;
}

int fail(int error) {
  errno = error;
  return -1;
}

}  // namespace

int getattrlist(const char* path, void* attrList, void* attrBuf, std::size_t attrBufSize,
                unsigned int options) {
  if (attrList == nullptr || path == nullptr) return fail(EFAULT);
  attrlist request{};
  std::memcpy(&request, attrList, sizeof(request));
  if (request.bitmapcount != ATTR_BIT_MAP_COUNT) return fail(EINVAL);

  const bool extended = (options & FSOPT_ATTR_CMN_EXTENDED) != 0;
  const attrgroup_t forkMask = extended ? ATTR_CMNEXT_VALIDMASK : ATTR_FORK_VALIDMASK;
  if ((request.commonattr & ~ATTR_CMN_VALIDMASK) != 0
      || (request.volattr & ~ATTR_VOL_VALIDMASK) != 0
      || (request.dirattr & ~ATTR_DIR_VALIDMASK) != 0
      || (request.fileattr & ~ATTR_FILE_VALIDMASK) != 0 || (request.forkattr & ~forkMask) != 0) {
    return fail(EINVAL);
  }
  const bool wantsVolume = request.volattr != 0;
  if (wantsVolume
      && ((request.volattr & ATTR_VOL_INFO) == 0 || request.dirattr != 0 || request.fileattr != 0
          || request.forkattr != 0)) {
    return fail(EINVAL);
  }
  const bool returnsSet = (request.commonattr & ATTR_CMN_RETURNED_ATTRS) != 0;
  const bool packInvalid = (options & FSOPT_PACK_INVAL_ATTRS) != 0;
  if (packInvalid && !returnsSet) return fail(EINVAL);
  if (attrBuf == nullptr) return fail(EFAULT);
  if (attrBufSize < sizeof(std::uint32_t)) return fail(ERANGE);

  AttrSubject subject(path, (options & FSOPT_NOFOLLOW) != 0, wantsVolume);
  if (int error = subject.lookUp(); error != 0) return fail(error);
  // Volume attributes describe a volume through its root: any other path is refused.
  if (wantsVolume && !subject.isMountRoot()) return fail(EINVAL);

  const Group forkGroup = extended ? Group::commonExtended : Group::fork;
  auto requested = [&](const Attribute& attribute) {
    switch (attribute.group) {
      case Group::common:
        return (request.commonattr & attribute.bit) != 0;
      case Group::volume:
        return (request.volattr & attribute.bit) != 0;
      case Group::directory:
        return subject.isDirectory() && (request.dirattr & attribute.bit) != 0;
      case Group::file:
        return !subject.isDirectory() && (request.fileattr & attribute.bit) != 0;
      case Group::fork:
      case Group::commonExtended:
        return attribute.group == forkGroup && (request.forkattr & attribute.bit) != 0;
    }
    return false;
  };

  // Gather the values first: the layout depends on which attributes are returned.
  struct Entry {
    const Attribute* attribute;
    Value value;
  };
  std::array<Entry, std::size(kAttributes)> entries;
  std::size_t entryCount = 0;
  attribute_set_t returned{};
  std::size_t fixedSize = sizeof(std::uint32_t);
  std::size_t variableSize = 0;
  for (const auto& attribute : kAttributes) {
    if (!requested(attribute)) continue;
    if (attribute.source == Source::returnedAttributes) {
      fixedSize += sizeof(attribute_set_t);
      continue;
    }
    Value value = valueOf(attribute.source, subject);
    if (!value.present && !packInvalid) continue;
    if (value.present) word(returned, attribute.group) |= attribute.bit;
    fixedSize += roundUp4(attribute.size);
    if (attribute.variable && value.present) variableSize += roundUp4(value.text.size() + 1);
    entries[entryCount++] = Entry{&attribute, std::move(value)};
  }
  if (returnsSet) returned.commonattr |= ATTR_CMN_RETURNED_ATTRS;

  const std::size_t fullSize = fixedSize + variableSize;
  ReplyWriter writer(attrBuf, attrBufSize);
  const bool reportFullSize = (options & FSOPT_REPORT_FULLSIZE) != 0;
  writer.write(
      0, static_cast<std::uint32_t>(reportFullSize ? fullSize : std::min(fullSize, attrBufSize)));
  std::size_t cursor = sizeof(std::uint32_t);
  if (returnsSet) {
    writer.write(cursor, returned);
    cursor += sizeof(attribute_set_t);
  }
  std::size_t dataCursor = fixedSize;
  for (std::size_t i = 0; i < entryCount; ++i) {
    const Attribute& attribute = *entries[i].attribute;
    const Value& value = entries[i].value;
    const std::size_t slot = roundUp4(attribute.size);
    if (attribute.variable) {
      attrreference_t reference{};  // Zero for an attribute packed only to keep the layout.
      if (value.present) {
        const std::size_t length = value.text.size() + 1;
        reference.attr_dataoffset = static_cast<std::int32_t>(dataCursor - cursor);
        reference.attr_length = static_cast<std::uint32_t>(length);
        writer.write(dataCursor, value.text.c_str(), length);
        writer.zero(dataCursor + length, roundUp4(length) - length);
        dataCursor += roundUp4(length);
      }
      writer.write(cursor, reference);
    } else {
      // An attribute packed only to keep the layout (FSOPT_PACK_INVAL_ATTRS) holds zeros.
      writer.write(cursor, value.bytes.data(), attribute.size);
    }
    writer.zero(cursor + attribute.size, slot - attribute.size);
    cursor += slot;
  }
  return 0;
}

}  // namespace carrow::platform
