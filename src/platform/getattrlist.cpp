#include <cerrno>

#include <carrow/platform/attr.h>

namespace carrow::platform {

int getattrlist(const char*, void*, void*, std::size_t, unsigned int) {
  errno = ENOSYS;
  return -1;
}

}  // namespace carrow::platform
