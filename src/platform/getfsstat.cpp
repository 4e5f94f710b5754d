#include <cerrno>

#include <carrow/platform/mount.h>

namespace carrow::platform {

int getfsstat(statfs*, int, int) {
  errno = ENOSYS;
  return -1;
}

}  // namespace carrow::platform
