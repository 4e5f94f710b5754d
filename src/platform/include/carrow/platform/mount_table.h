#pragma once

// The Linux mount table, read through libmount: what the attribute and file-system-statistics
// stand-ins build on, offered on its own for tools and measurements that need the raw table.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace carrow::platform {

/// One mount, as a line of a mountinfo file describes it.
struct MountEntry {
  int id = 0;        // the mount id; equals statx's stx_mnt_id for objects on this mount
  int parentId = 0;  // the id of the mount this one is mounted on (itself for the root)
  std::uint32_t deviceMajor = 0;
  std::uint32_t deviceMinor = 0;
  std::string source;      // the mounted device or source, for example "/dev/sda1" or "srv:/export"
  std::string mountPoint;  // where it is mounted, unescaped
  std::string root;        // the directory of the file system mounted here ("/" unless a bind)
  std::string fsType;      // the type name, for example "ext4" or "fuse.sshfs"
  std::string mountOptions;       // per-mount options, for example "rw,nosuid,relatime"
  std::string superblockOptions;  // file-system options
  bool readOnly = false;          // the mount or its file system is read-only
  bool noSuid = false;
  bool noDev = false;
  bool noExec = false;
  bool synchronous = false;
  bool noAccessTime = false;
  bool isNetwork = false;  // served remotely (nfs, cifs, ceph, sshfs and other FUSE file systems)
  bool isPseudo = false;   // a kernel interface without storage (proc, sysfs, cgroup, devpts, ...)
  bool isAutomount = false;  // an automount trigger, or mounted on one
};

/// The mount table of the calling process's mount namespace (/proc/self/mountinfo), in table
/// order. Throws std::system_error when it cannot be read.
std::vector<MountEntry> readMountTable();

/// Parses a file in mountinfo format. Throws std::system_error when it cannot be read or parsed.
std::vector<MountEntry> parseMountTable(const std::filesystem::path& mountinfoFile);

}  // namespace carrow::platform
