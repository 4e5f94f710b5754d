#pragma once

// A Linux stand-in for the platform's attribute-list interface (<sys/attr.h> and getattrlist).
//
// The request record, the constants and the reply layout are the platform's kernel formats, so the
// code that builds requests and walks replies runs unchanged on either side of this seam; a macOS
// build maps this header to <sys/attr.h> and <unistd.h>. The Linux replies are assembled from
// statx, statfs, the mount table and a few ioctls. Attributes with no Linux source are left out of
// the returned-attributes set, as the kernel does for a file system that lacks them.

#include <cstddef>
#include <cstdint>

namespace carrow::platform {

/// One bitmap word of a request or of a returned-attributes set.
using attrgroup_t = std::uint32_t;

/// The number of bitmap words in `attrlist` and `attribute_set_t`.
inline constexpr std::uint16_t ATTR_BIT_MAP_COUNT = 5;

/// The request record: which attributes to return, one bitmap word per group.
struct attrlist {
  std::uint16_t bitmapcount;  // must be ATTR_BIT_MAP_COUNT
  std::uint16_t reserved;     // 0
  attrgroup_t commonattr;
  attrgroup_t volattr;
  attrgroup_t dirattr;
  attrgroup_t fileattr;
  attrgroup_t forkattr;  // extended common attributes when FSOPT_ATTR_CMN_EXTENDED is given
};
static_assert(sizeof(attrlist) == 24);

/// A set of attributes, one word per group; the reply's returned-attributes set has this form.
struct attribute_set_t {
  attrgroup_t commonattr;
  attrgroup_t volattr;
  attrgroup_t dirattr;
  attrgroup_t fileattr;
  attrgroup_t forkattr;
};
static_assert(sizeof(attribute_set_t) == 20);

/// The fixed-part entry of a variable-length attribute: its data starts `attr_dataoffset` bytes
/// after the start of this reference and is `attr_length` bytes long (a text's terminating zero
/// included).
struct attrreference_t {
  std::int32_t attr_dataoffset;
  std::uint32_t attr_length;
};
static_assert(sizeof(attrreference_t) == 8);

/// Volume capabilities: word VOL_CAPABILITIES_FORMAT holds VOL_CAP_FMT_* bits, word
/// VOL_CAPABILITIES_INTERFACES holds VOL_CAP_INT_* bits; `valid` says which bits are meaningful.
struct vol_capabilities_attr_t {
  std::uint32_t capabilities[4];
  std::uint32_t valid[4];
};
static_assert(sizeof(vol_capabilities_attr_t) == 32);

inline constexpr int VOL_CAPABILITIES_FORMAT = 0;
inline constexpr int VOL_CAPABILITIES_INTERFACES = 1;
inline constexpr int VOL_CAPABILITIES_RESERVED1 = 2;
inline constexpr int VOL_CAPABILITIES_RESERVED2 = 3;

/// The attributes a volume can return (`validattr`) and those it keeps natively (`nativeattr`).
struct vol_attributes_attr_t {
  attribute_set_t validattr;
  attribute_set_t nativeattr;
};
static_assert(sizeof(vol_attributes_attr_t) == 40);

/// A file-system id: val[0] is the volume's device number, val[1] its file-system type number.
struct fsid_t {
  std::int32_t val[2];
};
static_assert(sizeof(fsid_t) == 8);

/// An object id within a volume.
struct fsobj_id_t {
  std::uint32_t fid_objno;
  std::uint32_t fid_generation;
};
static_assert(sizeof(fsobj_id_t) == 8);

/// A 128-bit identity (owner or group UUID).
struct guid_t {
  unsigned char g_guid[16];
};
static_assert(sizeof(guid_t) == 16);

/// A time as the 64-bit kernel lays it out in replies.
struct attr_timespec {
  std::int64_t tv_sec;
  std::int64_t tv_nsec;
};
static_assert(sizeof(attr_timespec) == 16);

// Device numbers in replies (ATTR_CMN_DEVID, fsid_t::val[0], ATTR_FILE_DEVTYPE) are 32 bits wide.
// Linux device numbers are packed as the kernel packs them into 32 bits: minor bits 0-7 in bits
// 0-7, the major number in bits 8-19, minor bits 8-19 in bits 20-31.

// Object types (ATTR_CMN_OBJTYPE).
enum vtype : std::uint32_t {
  VNON = 0,
  VREG = 1,
  VDIR = 2,
  VBLK = 3,
  VCHR = 4,
  VLNK = 5,
  VSOCK = 6,
  VFIFO = 7,
  VBAD = 8,
  VSTR = 9,
  VCPLX = 10,
};

// Options of getattrlist.
inline constexpr unsigned int FSOPT_NOFOLLOW = 0x00000001;
inline constexpr unsigned int FSOPT_NOINMEMUPDATE = 0x00000002;
inline constexpr unsigned int FSOPT_REPORT_FULLSIZE = 0x00000004;
inline constexpr unsigned int FSOPT_PACK_INVAL_ATTRS = 0x00000008;
inline constexpr unsigned int FSOPT_ATTR_CMN_EXTENDED = 0x00000020;
inline constexpr unsigned int FSOPT_RETURN_REALDEV = 0x00000200;

// Common attributes (commonattr).
inline constexpr attrgroup_t ATTR_CMN_NAME = 0x00000001;
inline constexpr attrgroup_t ATTR_CMN_DEVID = 0x00000002;
inline constexpr attrgroup_t ATTR_CMN_FSID = 0x00000004;
inline constexpr attrgroup_t ATTR_CMN_OBJTYPE = 0x00000008;
inline constexpr attrgroup_t ATTR_CMN_OBJTAG = 0x00000010;
inline constexpr attrgroup_t ATTR_CMN_OBJID = 0x00000020;
inline constexpr attrgroup_t ATTR_CMN_OBJPERMANENTID = 0x00000040;
inline constexpr attrgroup_t ATTR_CMN_PAROBJID = 0x00000080;
inline constexpr attrgroup_t ATTR_CMN_SCRIPT = 0x00000100;
inline constexpr attrgroup_t ATTR_CMN_CRTIME = 0x00000200;
inline constexpr attrgroup_t ATTR_CMN_MODTIME = 0x00000400;
inline constexpr attrgroup_t ATTR_CMN_CHGTIME = 0x00000800;
inline constexpr attrgroup_t ATTR_CMN_ACCTIME = 0x00001000;
inline constexpr attrgroup_t ATTR_CMN_BKUPTIME = 0x00002000;
inline constexpr attrgroup_t ATTR_CMN_FNDRINFO = 0x00004000;
inline constexpr attrgroup_t ATTR_CMN_OWNERID = 0x00008000;
inline constexpr attrgroup_t ATTR_CMN_GRPID = 0x00010000;
inline constexpr attrgroup_t ATTR_CMN_ACCESSMASK = 0x00020000;
inline constexpr attrgroup_t ATTR_CMN_FLAGS = 0x00040000;
inline constexpr attrgroup_t ATTR_CMN_GEN_COUNT = 0x00080000;
inline constexpr attrgroup_t ATTR_CMN_DOCUMENT_ID = 0x00100000;
inline constexpr attrgroup_t ATTR_CMN_USERACCESS = 0x00200000;
inline constexpr attrgroup_t ATTR_CMN_EXTENDED_SECURITY = 0x00400000;
inline constexpr attrgroup_t ATTR_CMN_UUID = 0x00800000;
inline constexpr attrgroup_t ATTR_CMN_GRPUUID = 0x01000000;
inline constexpr attrgroup_t ATTR_CMN_FILEID = 0x02000000;
inline constexpr attrgroup_t ATTR_CMN_PARENTID = 0x04000000;
inline constexpr attrgroup_t ATTR_CMN_FULLPATH = 0x08000000;
inline constexpr attrgroup_t ATTR_CMN_ADDEDTIME = 0x10000000;
inline constexpr attrgroup_t ATTR_CMN_ERROR = 0x20000000;
inline constexpr attrgroup_t ATTR_CMN_DATA_PROTECT_FLAGS = 0x40000000;
inline constexpr attrgroup_t ATTR_CMN_RETURNED_ATTRS = 0x80000000;
inline constexpr attrgroup_t ATTR_CMN_VALIDMASK = 0xFFFFFFFF;

// Volume attributes (volattr). Any request for them must include ATTR_VOL_INFO.
inline constexpr attrgroup_t ATTR_VOL_FSTYPE = 0x00000001;
inline constexpr attrgroup_t ATTR_VOL_SIGNATURE = 0x00000002;
inline constexpr attrgroup_t ATTR_VOL_SIZE = 0x00000004;
inline constexpr attrgroup_t ATTR_VOL_SPACEFREE = 0x00000008;
inline constexpr attrgroup_t ATTR_VOL_SPACEAVAIL = 0x00000010;
inline constexpr attrgroup_t ATTR_VOL_MINALLOCATION = 0x00000020;
inline constexpr attrgroup_t ATTR_VOL_ALLOCATIONCLUMP = 0x00000040;
inline constexpr attrgroup_t ATTR_VOL_IOBLOCKSIZE = 0x00000080;
inline constexpr attrgroup_t ATTR_VOL_OBJCOUNT = 0x00000100;
inline constexpr attrgroup_t ATTR_VOL_FILECOUNT = 0x00000200;
inline constexpr attrgroup_t ATTR_VOL_DIRCOUNT = 0x00000400;
inline constexpr attrgroup_t ATTR_VOL_MAXOBJCOUNT = 0x00000800;
inline constexpr attrgroup_t ATTR_VOL_MOUNTPOINT = 0x00001000;
inline constexpr attrgroup_t ATTR_VOL_NAME = 0x00002000;
inline constexpr attrgroup_t ATTR_VOL_MOUNTFLAGS = 0x00004000;
inline constexpr attrgroup_t ATTR_VOL_MOUNTEDDEVICE = 0x00008000;
inline constexpr attrgroup_t ATTR_VOL_ENCODINGSUSED = 0x00010000;
inline constexpr attrgroup_t ATTR_VOL_CAPABILITIES = 0x00020000;
inline constexpr attrgroup_t ATTR_VOL_UUID = 0x00040000;
inline constexpr attrgroup_t ATTR_VOL_FSTYPENAME = 0x00100000;
inline constexpr attrgroup_t ATTR_VOL_FSSUBTYPE = 0x00200000;
inline constexpr attrgroup_t ATTR_VOL_SPACEUSED = 0x00800000;
inline constexpr attrgroup_t ATTR_VOL_QUOTA_SIZE = 0x10000000;
inline constexpr attrgroup_t ATTR_VOL_RESERVED_SIZE = 0x20000000;
inline constexpr attrgroup_t ATTR_VOL_ATTRIBUTES = 0x40000000;
inline constexpr attrgroup_t ATTR_VOL_INFO = 0x80000000;
inline constexpr attrgroup_t ATTR_VOL_VALIDMASK = 0xF0B7FFFF;

// Directory attributes (dirattr); returned for directories only.
inline constexpr attrgroup_t ATTR_DIR_LINKCOUNT = 0x00000001;
inline constexpr attrgroup_t ATTR_DIR_ENTRYCOUNT = 0x00000002;
inline constexpr attrgroup_t ATTR_DIR_MOUNTSTATUS = 0x00000004;
inline constexpr attrgroup_t ATTR_DIR_ALLOCSIZE = 0x00000008;
inline constexpr attrgroup_t ATTR_DIR_IOBLOCKSIZE = 0x00000010;
inline constexpr attrgroup_t ATTR_DIR_DATALENGTH = 0x00000020;
inline constexpr attrgroup_t ATTR_DIR_VALIDMASK = 0x0000003F;

// Bits of ATTR_DIR_MOUNTSTATUS.
inline constexpr std::uint32_t DIR_MNTSTATUS_MNTPOINT = 0x00000001;
inline constexpr std::uint32_t DIR_MNTSTATUS_TRIGGER = 0x00000002;

// File attributes (fileattr); returned for objects other than directories only.
inline constexpr attrgroup_t ATTR_FILE_LINKCOUNT = 0x00000001;
inline constexpr attrgroup_t ATTR_FILE_TOTALSIZE = 0x00000002;
inline constexpr attrgroup_t ATTR_FILE_ALLOCSIZE = 0x00000004;
inline constexpr attrgroup_t ATTR_FILE_IOBLOCKSIZE = 0x00000008;
inline constexpr attrgroup_t ATTR_FILE_CLUMPSIZE = 0x00000010;
inline constexpr attrgroup_t ATTR_FILE_DEVTYPE = 0x00000020;
inline constexpr attrgroup_t ATTR_FILE_FILETYPE = 0x00000040;
inline constexpr attrgroup_t ATTR_FILE_FORKCOUNT = 0x00000080;
inline constexpr attrgroup_t ATTR_FILE_FORKLIST = 0x00000100;
inline constexpr attrgroup_t ATTR_FILE_DATALENGTH = 0x00000200;
inline constexpr attrgroup_t ATTR_FILE_DATAALLOCSIZE = 0x00000400;
inline constexpr attrgroup_t ATTR_FILE_DATAEXTENTS = 0x00000800;
inline constexpr attrgroup_t ATTR_FILE_RSRCLENGTH = 0x00001000;
inline constexpr attrgroup_t ATTR_FILE_RSRCALLOCSIZE = 0x00002000;
inline constexpr attrgroup_t ATTR_FILE_RSRCEXTENTS = 0x00004000;
inline constexpr attrgroup_t ATTR_FILE_VALIDMASK = 0x00007FFF;

// Fork attributes (forkattr without FSOPT_ATTR_CMN_EXTENDED). None is supplied on Linux.
inline constexpr attrgroup_t ATTR_FORK_TOTALSIZE = 0x00000001;
inline constexpr attrgroup_t ATTR_FORK_ALLOCSIZE = 0x00000002;
inline constexpr attrgroup_t ATTR_FORK_VALIDMASK = 0x00000003;

// Extended common attributes (forkattr with FSOPT_ATTR_CMN_EXTENDED).
inline constexpr attrgroup_t ATTR_CMNEXT_RELPATH = 0x00000004;
inline constexpr attrgroup_t ATTR_CMNEXT_PRIVATESIZE = 0x00000008;
inline constexpr attrgroup_t ATTR_CMNEXT_LINKID = 0x00000010;
inline constexpr attrgroup_t ATTR_CMNEXT_NOFIRMLINKPATH = 0x00000020;
inline constexpr attrgroup_t ATTR_CMNEXT_REALDEVID = 0x00000040;
inline constexpr attrgroup_t ATTR_CMNEXT_REALFSID = 0x00000080;
inline constexpr attrgroup_t ATTR_CMNEXT_CLONEID = 0x00000100;
inline constexpr attrgroup_t ATTR_CMNEXT_EXT_FLAGS = 0x00000200;
inline constexpr attrgroup_t ATTR_CMNEXT_RECURSIVE_GENCOUNT = 0x00000400;
inline constexpr attrgroup_t ATTR_CMNEXT_VALIDMASK = 0x000007FC;

// Format capabilities (word VOL_CAPABILITIES_FORMAT of vol_capabilities_attr_t).
inline constexpr std::uint32_t VOL_CAP_FMT_PERSISTENTOBJECTIDS = 0x00000001;
inline constexpr std::uint32_t VOL_CAP_FMT_SYMBOLICLINKS = 0x00000002;
inline constexpr std::uint32_t VOL_CAP_FMT_HARDLINKS = 0x00000004;
inline constexpr std::uint32_t VOL_CAP_FMT_JOURNAL = 0x00000008;
inline constexpr std::uint32_t VOL_CAP_FMT_JOURNAL_ACTIVE = 0x00000010;
inline constexpr std::uint32_t VOL_CAP_FMT_NO_ROOT_TIMES = 0x00000020;
inline constexpr std::uint32_t VOL_CAP_FMT_SPARSE_FILES = 0x00000040;
inline constexpr std::uint32_t VOL_CAP_FMT_ZERO_RUNS = 0x00000080;
inline constexpr std::uint32_t VOL_CAP_FMT_CASE_SENSITIVE = 0x00000100;
inline constexpr std::uint32_t VOL_CAP_FMT_CASE_PRESERVING = 0x00000200;
inline constexpr std::uint32_t VOL_CAP_FMT_FAST_STATFS = 0x00000400;
inline constexpr std::uint32_t VOL_CAP_FMT_2TB_FILESIZE = 0x00000800;
inline constexpr std::uint32_t VOL_CAP_FMT_OPENDENYMODES = 0x00001000;
inline constexpr std::uint32_t VOL_CAP_FMT_HIDDEN_FILES = 0x00002000;
inline constexpr std::uint32_t VOL_CAP_FMT_PATH_FROM_ID = 0x00004000;
inline constexpr std::uint32_t VOL_CAP_FMT_NO_VOLUME_SIZES = 0x00008000;
inline constexpr std::uint32_t VOL_CAP_FMT_DECMPFS_COMPRESSION = 0x00010000;
inline constexpr std::uint32_t VOL_CAP_FMT_64BIT_OBJECT_IDS = 0x00020000;
inline constexpr std::uint32_t VOL_CAP_FMT_DIR_HARDLINKS = 0x00040000;
inline constexpr std::uint32_t VOL_CAP_FMT_DOCUMENT_ID = 0x00080000;
inline constexpr std::uint32_t VOL_CAP_FMT_WRITE_GENERATION_COUNT = 0x00100000;
inline constexpr std::uint32_t VOL_CAP_FMT_NO_IMMUTABLE_FILES = 0x00200000;
inline constexpr std::uint32_t VOL_CAP_FMT_NO_PERMISSIONS = 0x00400000;
inline constexpr std::uint32_t VOL_CAP_FMT_SHARED_SPACE = 0x00800000;
inline constexpr std::uint32_t VOL_CAP_FMT_VOL_GROUPS = 0x01000000;
inline constexpr std::uint32_t VOL_CAP_FMT_SEALED = 0x02000000;

// Interface capabilities (word VOL_CAPABILITIES_INTERFACES).
inline constexpr std::uint32_t VOL_CAP_INT_SEARCHFS = 0x00000001;
inline constexpr std::uint32_t VOL_CAP_INT_ATTRLIST = 0x00000002;
inline constexpr std::uint32_t VOL_CAP_INT_NFSEXPORT = 0x00000004;
inline constexpr std::uint32_t VOL_CAP_INT_READDIRATTR = 0x00000008;
inline constexpr std::uint32_t VOL_CAP_INT_EXCHANGEDATA = 0x00000010;
inline constexpr std::uint32_t VOL_CAP_INT_COPYFILE = 0x00000020;
inline constexpr std::uint32_t VOL_CAP_INT_ALLOCATE = 0x00000040;
inline constexpr std::uint32_t VOL_CAP_INT_VOL_RENAME = 0x00000080;
inline constexpr std::uint32_t VOL_CAP_INT_ADVLOCK = 0x00000100;
inline constexpr std::uint32_t VOL_CAP_INT_FLOCK = 0x00000200;
inline constexpr std::uint32_t VOL_CAP_INT_EXTENDED_SECURITY = 0x00000400;
inline constexpr std::uint32_t VOL_CAP_INT_USERACCESS = 0x00000800;
inline constexpr std::uint32_t VOL_CAP_INT_MANLOCK = 0x00001000;
inline constexpr std::uint32_t VOL_CAP_INT_NAMEDSTREAMS = 0x00002000;
inline constexpr std::uint32_t VOL_CAP_INT_EXTENDED_ATTR = 0x00004000;
inline constexpr std::uint32_t VOL_CAP_INT_CLONE = 0x00010000;
inline constexpr std::uint32_t VOL_CAP_INT_SNAPSHOT = 0x00020000;
inline constexpr std::uint32_t VOL_CAP_INT_RENAME_SWAP = 0x00040000;
inline constexpr std::uint32_t VOL_CAP_INT_RENAME_EXCL = 0x00080000;

// File flags (ATTR_CMN_FLAGS). Linux's immutable and append-only attributes can only be changed
// by a privileged process, so they are reported as the system (SF_) flags.
inline constexpr std::uint32_t UF_NODUMP = 0x00000001;
inline constexpr std::uint32_t UF_IMMUTABLE = 0x00000002;
inline constexpr std::uint32_t UF_APPEND = 0x00000004;
inline constexpr std::uint32_t UF_OPAQUE = 0x00000008;
inline constexpr std::uint32_t UF_COMPRESSED = 0x00000020;
inline constexpr std::uint32_t UF_TRACKED = 0x00000040;
inline constexpr std::uint32_t UF_DATAVAULT = 0x00000080;
inline constexpr std::uint32_t UF_HIDDEN = 0x00008000;
inline constexpr std::uint32_t SF_ARCHIVED = 0x00010000;
inline constexpr std::uint32_t SF_IMMUTABLE = 0x00020000;
inline constexpr std::uint32_t SF_APPEND = 0x00040000;

// ATTR_CMN_USERACCESS holds R_OK (4), W_OK (2) and X_OK (1) of <unistd.h>, as the calling process's
// effective ids may use the object.

/// Reads the attributes that `attrList` (an `attrlist`) names of the object at `path` into
/// `attrBuf`, laid out as the kernel lays out a reply: a 32-bit length that counts itself, the
/// returned-attributes set when ATTR_CMN_RETURNED_ATTRS is asked for, one 4-byte-aligned entry per
/// returned attribute in canonical order, then the zero-padded data of variable entries.
///
/// Never writes past `attrBufSize`. A reply that does not fit is cut off at the end of the buffer;
/// its length word is then the full size with FSOPT_REPORT_FULLSIZE, otherwise the size written.
/// Returns 0, or -1 with errno: the path errors of stat (ENOENT, EACCES, ENOTDIR, ELOOP,
/// ENAMETOOLONG, ...); EINVAL for a bitmap count other than ATTR_BIT_MAP_COUNT, for volume
/// attributes without ATTR_VOL_INFO or mixed with directory, file or fork attributes, for volume
/// attributes of a path that is not the root of a mount, and for FSOPT_PACK_INVAL_ATTRS without
/// ATTR_CMN_RETURNED_ATTRS; ERANGE when `attrBufSize` cannot hold the length word; EFAULT for a
/// null request or buffer. FSOPT_RETURN_REALDEV is accepted: Linux reports the real device anyway.
/// Paths may be as long as Linux allows; a full path of MAXPATHLEN bytes or more, which the
/// platform could not return, is left out of the reply rather than cut.
int getattrlist(const char* path, void* attrList, void* attrBuf, std::size_t attrBufSize,
                unsigned int options);

}  // namespace carrow::platform
