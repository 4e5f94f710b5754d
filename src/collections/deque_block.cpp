#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <malloc.h>

#include <carrow/collections/detail/checked.h>
#include <carrow/collections/detail/deque_block.h>
#include <carrow/platform/fatal_error.h>

namespace carrow::detail {

DequeBlock allocateDequeBlock(std::size_t bytes, std::size_t alignment) {
  if (alignment > alignof(std::max_align_t)) {
    // Over-aligned blocks come from aligned_alloc, which realloc may not keep aligned, so they
    // use exactly the rounded request.
    std::size_t rounded = (bytes + alignment - 1) / alignment * alignment;
    void* address = std::aligned_alloc(alignment, rounded);
    if (address == nullptr) fatalError(kCollectionsLabel, __LINE__, "Out of memory");
    return {address, rounded};
  }
  void* address = std::malloc(bytes);
  if (address == nullptr) fatalError(kCollectionsLabel, __LINE__, "Out of memory");
  std::size_t usable = malloc_usable_size(address);
  if (usable > bytes) {
    // The allocator rounded the block up. Writing past the request is only defined after the
    // block has been resized to cover it; glibc does that in place, without copying.
    void* resized = std::realloc(address, usable);
    if (resized == nullptr) return {address, bytes};
    address = resized;
  }
  return {address, usable};
}

void freeDequeBlock(void* address) noexcept {
  std::free(address);
}

std::ptrdiff_t dequeGrowthCapacity(std::ptrdiff_t capacity, std::ptrdiff_t required) {
  double grown = std::ceil(static_cast<double>(capacity) * 1.5);
  // The largest ptrdiff_t rounds up to a power of two as a double, which itself does not fit.
  constexpr auto kLimit = static_cast<double>(std::numeric_limits<std::ptrdiff_t>::max());
  if (!std::isfinite(grown) || grown < 0 || grown >= kLimit) {
    fatalError(kCollectionsLabel, __LINE__, "Deque capacity overflow");
  }
  return std::max(static_cast<std::ptrdiff_t>(grown), required);
}

}  // namespace carrow::detail
