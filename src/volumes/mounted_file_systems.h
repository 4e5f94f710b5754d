#pragma once

#include <functional>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include <carrow/platform/mount.h>

namespace carrow::detail {

/// The kernel's file-system statistics call, as `mountedFileSystems` uses it (a seam for tests).
using GetFSStat = std::function<int(platform::statfs* buffer, int bufferSize, int mode)>;

/// Makes new elements without initialising them. A list of `statfs` records is mostly room for
/// the kernel to fill: zeroing it first would touch every page of it, the spare records included
/// (a short process pays a page fault for each page it touches first).
template <class T>
struct UninitializedAllocator : std::allocator<T> {
  template <class U>
  struct rebind {
    using other = UninitializedAllocator<U>;
  };

  UninitializedAllocator() = default;
  template <class U>
  UninitializedAllocator(const UninitializedAllocator<U>&) noexcept {}

  template <class U>
  void construct(U* place) noexcept {
    ::new (static_cast<void*>(place)) U;
  }
  template <class U, class... Arguments>
  void construct(U* place, Arguments&&... arguments) {
    ::new (static_cast<void*>(place)) U(std::forward<Arguments>(arguments)...);
  }
};

/// Records as the kernel call leaves them.
using StatfsRecords = std::vector<platform::statfs, UninitializedAllocator<platform::statfs>>;

/// The statistics of every mounted file system, in the kernel's order: counted first, then
/// listed into room for ten more, so that file systems mounted in between still fit. Throws
/// `std::system_error` with `errno` (`ENODEV` when it is not a valid code) when a call fails.
StatfsRecords mountedFileSystems(const GetFSStat& getfsstat);

}  // namespace carrow::detail
