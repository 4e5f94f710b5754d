#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <string_view>
#include <sys/mount.h>
#include <sys/sysmacros.h>
#include <system_error>
#include <unordered_map>

#include <libmount/libmount.h>

#include <carrow/platform/mount_table.h>

namespace carrow::platform {
namespace {

// File systems whose data lives on another machine, or behind a user-space daemon that may stop
// answering. libmount knows the common network types; FUSE file systems other than the
// block-device-backed "fuseblk" are added because a hung daemon blocks like a hung server.
constexpr std::array<std::string_view, 9> kExtraNetworkTypes = {
    "9p", "davfs", "glusterfs", "lustre", "beegfs", "gpfs", "sshfs", "smbfs", "afs"};

// Kernel interfaces that look like file systems but hold no user data.
constexpr std::array<std::string_view, 31> kPseudoTypes = {
    "proc",       "sysfs",       "cgroup",     "cgroup2",  "devpts",    "devtmpfs",     "mqueue",
    "debugfs",    "tracefs",     "securityfs", "pstore",   "bpf",       "configfs",     "fusectl",
    "hugetlbfs",  "binfmt_misc", "autofs",     "efivarfs", "selinuxfs", "smackfs",      "nsfs",
    "rpc_pipefs", "nfsd",        "rootfs",     "sockfs",   "pipefs",    "anon_inodefs", "ramfs",
    "apparmorfs", "binder",      "cpuset"};

bool contains(const auto& list, std::string_view value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

bool isNetworkType(std::string_view type) {
  if (type == "fuse" || type.starts_with("fuse.")) return true;
  return contains(kExtraNetworkTypes, type);
}

struct TableDeleter {
  void operator()(libmnt_table* table) const noexcept { mnt_unref_table(table); }
};
struct IterDeleter {
  void operator()(libmnt_iter* iter) const noexcept { mnt_free_iter(iter); }
};

// Where the first malformed line of a parse is recorded; libmount hands it to the error callback.
struct ParseState {
  int badLine = 0;
};

int onParseError(libmnt_table* table, const char* /*filename*/, int line) {
  auto* state = static_cast<ParseState*>(mnt_table_get_userdata(table));
  if (state != nullptr && state->badLine == 0) state->badLine = line;
  return 1;  // Skip the line; the parse is rejected afterwards with the line number.
}

std::string text(const char* value) {
  return value != nullptr ? std::string(value) : std::string();
}

void applyOptionFlags(const char* options, MountEntry& entry) {
  if (options == nullptr) return;
  unsigned long flags = 0;
  if (mnt_optstr_get_flags(options, &flags, mnt_get_builtin_optmap(MNT_LINUX_MAP)) != 0) return;
  entry.readOnly = entry.readOnly || (flags & MS_RDONLY) != 0;
  entry.noSuid = entry.noSuid || (flags & MS_NOSUID) != 0;
  entry.noDev = entry.noDev || (flags & MS_NODEV) != 0;
  entry.noExec = entry.noExec || (flags & MS_NOEXEC) != 0;
  entry.synchronous = entry.synchronous || (flags & MS_SYNCHRONOUS) != 0;
  entry.noAccessTime = entry.noAccessTime || (flags & MS_NOATIME) != 0;
}

MountEntry makeEntry(libmnt_fs* fs) {
  MountEntry entry;
  entry.id = mnt_fs_get_id(fs);
  entry.parentId = mnt_fs_get_parent_id(fs);
  dev_t device = mnt_fs_get_devno(fs);
  entry.deviceMajor = major(device);
  entry.deviceMinor = minor(device);
  entry.source = text(mnt_fs_get_source(fs));
  entry.mountPoint = text(mnt_fs_get_target(fs));
  entry.root = text(mnt_fs_get_root(fs));
  entry.fsType = text(mnt_fs_get_fstype(fs));
  entry.mountOptions = text(mnt_fs_get_vfs_options(fs));
  entry.superblockOptions = text(mnt_fs_get_fs_options(fs));
  applyOptionFlags(mnt_fs_get_vfs_options(fs), entry);
  applyOptionFlags(mnt_fs_get_fs_options(fs), entry);
  entry.isNetwork = mnt_fs_is_netfs(fs) != 0 || isNetworkType(entry.fsType);
  entry.isPseudo = contains(kPseudoTypes, entry.fsType);
  entry.isAutomount = entry.fsType == "autofs";
  return entry;
}

}  // namespace

std::vector<MountEntry> parseMountTable(const std::filesystem::path& mountinfoFile) {
  std::unique_ptr<libmnt_table, TableDeleter> table(mnt_new_table());
  if (!table) throw std::system_error(ENOMEM, std::generic_category(), "mount table");
  ParseState state;
  mnt_table_set_userdata(table.get(), &state);
  mnt_table_set_parser_errcb(table.get(), onParseError);
  // libmount tells the format from the content and unescapes the octal escapes (\040 for a
  // blank) of sources and mount points.
  int rc = mnt_table_parse_file(table.get(), mountinfoFile.c_str());
  if (rc < 0 && state.badLine == 0) {
    throw std::system_error(-rc, std::generic_category(), mountinfoFile.string());
  }
  if (state.badLine != 0) {
    throw std::system_error(
        EINVAL, std::generic_category(),
        mountinfoFile.string() + ": malformed line " + std::to_string(state.badLine));
  }

  std::vector<MountEntry> entries;
  std::unique_ptr<libmnt_iter, IterDeleter> iter(mnt_new_iter(MNT_ITER_FORWARD));
  if (!iter) throw std::system_error(ENOMEM, std::generic_category(), "mount table");
  libmnt_fs* fs = nullptr;
  while (mnt_table_next_fs(table.get(), iter.get(), &fs) == 0) entries.push_back(makeEntry(fs));

  // A mount made on an automount trigger was made by the automounter: touching it may wait on
  // the automounter or on the server behind it.
  std::unordered_map<int, std::size_t> byId;
  for (std::size_t i = 0; i < entries.size(); ++i) byId.emplace(entries[i].id, i);
  for (auto& entry : entries) {
    auto parent = byId.find(entry.parentId);
    if (parent != byId.end() && entries[parent->second].fsType == "autofs") {
      entry.isAutomount = true;
    }
  }
  return entries;
}

std::vector<MountEntry> readMountTable() {
  return parseMountTable("/proc/self/mountinfo");
}

}  // namespace carrow::platform
