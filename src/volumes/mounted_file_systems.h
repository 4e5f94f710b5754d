#pragma once

#include <functional>
#include <vector>

#include <carrow/platform/mount.h>

namespace carrow::detail {

/// The kernel's file-system statistics call, as `mountedFileSystems` uses it (a seam for tests).
using GetFSStat = std::function<int(platform::statfs* buffer, int bufferSize, int mode)>;

/// The statistics of every mounted file system, in the kernel's order: counted first, then
/// listed into room for ten more, so that file systems mounted in between still fit. Throws
/// `std::system_error` with `errno` (`ENODEV` when it is not a valid code) when a call fails.
std::vector<platform::statfs> mountedFileSystems(const GetFSStat& getfsstat);

}  // namespace carrow::detail
