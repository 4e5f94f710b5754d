#pragma once

// libmount, loaded when the mount table is first needed rather than when the library is. A
// process that never asks for volume data (most clients, and most runs of a command-line tool)
// does not map libmount, libblkid, libselinux and libpcre2, nor run their initialisers.

#include <libmount/libmount.h>

namespace carrow::platform::detail {

/// The libmount functions the mount table reader calls, typed from libmount's own header.
struct LibMount {
  decltype(&::mnt_new_table) newTable;
  decltype(&::mnt_unref_table) unrefTable;
  decltype(&::mnt_table_set_userdata) tableSetUserdata;
  decltype(&::mnt_table_get_userdata) tableGetUserdata;
  decltype(&::mnt_table_set_parser_errcb) tableSetParserErrcb;
  decltype(&::mnt_table_parse_file) tableParseFile;
  decltype(&::mnt_new_iter) newIter;
  decltype(&::mnt_free_iter) freeIter;
  decltype(&::mnt_table_next_fs) tableNextFs;
  decltype(&::mnt_fs_get_id) fsGetId;
  decltype(&::mnt_fs_get_parent_id) fsGetParentId;
  decltype(&::mnt_fs_get_devno) fsGetDevno;
  decltype(&::mnt_fs_get_source) fsGetSource;
  decltype(&::mnt_fs_get_target) fsGetTarget;
  decltype(&::mnt_fs_get_root) fsGetRoot;
  decltype(&::mnt_fs_get_fstype) fsGetFstype;
  decltype(&::mnt_fs_get_vfs_options) fsGetVfsOptions;
  decltype(&::mnt_fs_get_fs_options) fsGetFsOptions;
  decltype(&::mnt_fs_is_netfs) fsIsNetfs;
  decltype(&::mnt_optstr_get_flags) optstrGetFlags;
  decltype(&::mnt_get_builtin_optmap) getBuiltinOptmap;
};

/// The soname the process loads libmount by.
inline constexpr const char* kLibMountName = "libmount.so.1";

/// Loads the library named `soname` and resolves every function of `LibMount` in it. Throws
/// std::system_error (ELIBACC) naming the library and the loader's reason when that fails; the
/// library is then not kept loaded.
LibMount loadLibMount(const char* soname);

/// libmount for the process: loaded on first use, once, by whichever thread comes first. A
/// failure is not remembered: each use tries again and throws again.
const LibMount& libMount();

}  // namespace carrow::platform::detail
