#pragma once

// A Linux stand-in for the platform's list of mounted file systems (<sys/mount.h> and getfsstat).
//
// `statfs` is the platform's 64-bit record, byte for byte, so code that reads it runs unchanged;
// a macOS build maps this header to <sys/mount.h>. The Linux records come from the mount table
// with sizes from statfs(2). This `statfs` is a different type from Linux's `::statfs`.

#include <cstddef>
#include <cstdint>

#include <carrow/platform/attr.h>

namespace carrow::platform {

inline constexpr int MFSTYPENAMELEN = 16;
inline constexpr int MAXPATHLEN = 1024;

/// The statistics of one mounted file system.
struct statfs {
  std::uint32_t f_bsize;   // fundamental block size; the unit of the block counts
  std::int32_t f_iosize;   // preferred transfer size
  std::uint64_t f_blocks;  // total blocks
  std::uint64_t f_bfree;   // free blocks
  std::uint64_t f_bavail;  // blocks available to an unprivileged user
  std::uint64_t f_files;   // total file nodes
  std::uint64_t f_ffree;   // free file nodes
  fsid_t f_fsid;           // device number and file-system type number
  std::uint32_t f_owner;   // user that mounted the file system
  std::uint32_t f_type;    // file-system type number (Linux: the statfs magic number)
  std::uint32_t f_flags;   // MNT_* flags
  std::uint32_t f_fssubtype;
  char f_fstypename[MFSTYPENAMELEN];  // type name, for example "ext4"; zero-terminated
  char f_mntonname[MAXPATHLEN];       // mount point; zero-terminated
  char f_mntfromname[MAXPATHLEN];     // mounted device or source; zero-terminated
  std::uint32_t f_flags_ext;
  std::uint32_t f_reserved[7];
};
static_assert(sizeof(statfs) == 2168);
static_assert(offsetof(statfs, f_bsize) == 0);
static_assert(offsetof(statfs, f_iosize) == 4);
static_assert(offsetof(statfs, f_blocks) == 8);
static_assert(offsetof(statfs, f_bfree) == 16);
static_assert(offsetof(statfs, f_bavail) == 24);
static_assert(offsetof(statfs, f_files) == 32);
static_assert(offsetof(statfs, f_ffree) == 40);
static_assert(offsetof(statfs, f_fsid) == 48);
static_assert(offsetof(statfs, f_owner) == 56);
static_assert(offsetof(statfs, f_type) == 60);
static_assert(offsetof(statfs, f_flags) == 64);
static_assert(offsetof(statfs, f_fssubtype) == 68);
static_assert(offsetof(statfs, f_fstypename) == 72);
static_assert(offsetof(statfs, f_mntonname) == 88);
static_assert(offsetof(statfs, f_mntfromname) == 1112);
static_assert(offsetof(statfs, f_flags_ext) == 2136);
static_assert(offsetof(statfs, f_reserved) == 2140);

// Modes of getfsstat.
inline constexpr int MNT_WAIT = 1;    // refresh every file system's statistics
inline constexpr int MNT_NOWAIT = 2;  // never wait on a file system that may not answer

// Mount flags (statfs::f_flags, ATTR_VOL_MOUNTFLAGS).
inline constexpr std::uint32_t MNT_RDONLY = 0x00000001;
inline constexpr std::uint32_t MNT_SYNCHRONOUS = 0x00000002;
inline constexpr std::uint32_t MNT_NOEXEC = 0x00000004;
inline constexpr std::uint32_t MNT_NOSUID = 0x00000008;
inline constexpr std::uint32_t MNT_NODEV = 0x00000010;
inline constexpr std::uint32_t MNT_UNION = 0x00000020;
inline constexpr std::uint32_t MNT_ASYNC = 0x00000040;
inline constexpr std::uint32_t MNT_CPROTECT = 0x00000080;
inline constexpr std::uint32_t MNT_LOCAL = 0x00001000;  // not a network file system
inline constexpr std::uint32_t MNT_QUOTA = 0x00002000;
inline constexpr std::uint32_t MNT_ROOTFS = 0x00004000;  // mounted on "/"
inline constexpr std::uint32_t MNT_DOVOLFS = 0x00008000;
inline constexpr std::uint32_t MNT_DONTBROWSE = 0x00100000;  // not a place for user data
inline constexpr std::uint32_t MNT_IGNORE_OWNERSHIP = 0x00200000;
inline constexpr std::uint32_t MNT_AUTOMOUNTED = 0x00400000;
inline constexpr std::uint32_t MNT_JOURNALED = 0x00800000;
inline constexpr std::uint32_t MNT_NOUSERXATTR = 0x01000000;
inline constexpr std::uint32_t MNT_DEFWRITE = 0x02000000;
inline constexpr std::uint32_t MNT_NOATIME = 0x10000000;
inline constexpr std::uint32_t MNT_SNAPSHOT = 0x40000000;

/// Fills `buf` with one record per mounted file system, in mount-table order, and returns how many
/// it wrote: as many as fit in `bufsize` bytes. With a null `buf`, returns the number of mounted
/// file systems. With MNT_NOWAIT a network or automounted file system is described from the mount
/// table alone (its sizes are 0), so a server that does not answer cannot block the listing. A
/// mount hidden under a later one is listed with sizes 0: its path leads to the one on top.
/// Mount points of MAXPATHLEN bytes or more are left out. Returns -1 with errno when the mount
/// table cannot be read.
int getfsstat(statfs* buf, int bufsize, int mode);

}  // namespace carrow::platform
