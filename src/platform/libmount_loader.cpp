#include "libmount_loader.h"

#include <cerrno>
#include <dlfcn.h>
#include <string>
#include <system_error>

namespace carrow::platform::detail {
namespace {

[[noreturn]] void throwLoadError(const char* soname, const char* reason) {
  throw std::system_error(ELIBACC, std::generic_category(),
                          std::string("cannot load ") + soname + ": "
                              + (reason != nullptr ? reason : "unknown reason"));
}

template <class Function>
void resolve(void* handle, const char* soname, const char* symbol, Function& function) {
  dlerror();  // Clear a stale message, so that the one read below is this lookup's.
  void* address = dlsym(handle, symbol);
  if (address == nullptr) {
    // Copied first: the loader's message does not outlive the handle.
    const char* message = dlerror();
    const std::string reason = message != nullptr ? message : "";
    dlclose(handle);
    throwLoadError(soname, reason.empty() ? nullptr : reason.c_str());
  }
  function = reinterpret_cast<Function>(address);
}

}  // namespace

LibMount loadLibMount(const char* soname) {
  void* handle = dlopen(soname, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) throwLoadError(soname, dlerror());
  // The handle is kept for the life of the process once every function is found: the functions
  // are called from anywhere, at any time.
  LibMount library{};
  resolve(handle, soname, "mnt_new_table", library.newTable);
  resolve(handle, soname, "mnt_unref_table", library.unrefTable);
  resolve(handle, soname, "mnt_table_set_userdata", library.tableSetUserdata);
  resolve(handle, soname, "mnt_table_get_userdata", library.tableGetUserdata);
  resolve(handle, soname, "mnt_table_set_parser_errcb", library.tableSetParserErrcb);
  resolve(handle, soname, "mnt_table_parse_file", library.tableParseFile);
  resolve(handle, soname, "mnt_new_iter", library.newIter);
  resolve(handle, soname, "mnt_free_iter", library.freeIter);
  resolve(handle, soname, "mnt_table_next_fs", library.tableNextFs);
  resolve(handle, soname, "mnt_fs_get_id", library.fsGetId);
  resolve(handle, soname, "mnt_fs_get_parent_id", library.fsGetParentId);
  resolve(handle, soname, "mnt_fs_get_devno", library.fsGetDevno);
  resolve(handle, soname, "mnt_fs_get_source", library.fsGetSource);
  resolve(handle, soname, "mnt_fs_get_target", library.fsGetTarget);
  resolve(handle, soname, "mnt_fs_get_root", library.fsGetRoot);
  resolve(handle, soname, "mnt_fs_get_fstype", library.fsGetFstype);
  resolve(handle, soname, "mnt_fs_get_vfs_options", library.fsGetVfsOptions);
  resolve(handle, soname, "mnt_fs_get_fs_options", library.fsGetFsOptions);
  resolve(handle, soname, "mnt_fs_is_netfs", library.fsIsNetfs);
  resolve(handle, soname, "mnt_optstr_get_flags", library.optstrGetFlags);
  resolve(handle, soname, "mnt_get_builtin_optmap", library.getBuiltinOptmap);
  return library;
}

const LibMount& libMount() {
  // An initialisation that throws is tried again by the next call.
  static const LibMount library = loadLibMount(kLibMountName);
  return library;
}

}  // namespace carrow::platform::detail
