#pragma once

#include <cstddef>

// Raw memory for `Deque`: kept out of the template so that the allocator's interface stays in
// one source file.

namespace carrow::detail {

/// A heap block and the number of bytes the allocator really provides (at least the request).
struct DequeBlock {
  void* address;
  std::size_t usableBytes;
};

/// Allocates at least `bytes` aligned to `alignment`. The whole usable size may be written.
/// Allocation failure stops the process.
DequeBlock allocateDequeBlock(std::size_t bytes, std::size_t alignment);

/// Frees a block from `allocateDequeBlock`.
void freeDequeBlock(void* address) noexcept;

/// The capacity a deque grows to when it needs `required` slots:
/// max(ceil(capacity × 1.5), required), computed in double precision. A product that is not
/// finite or does not fit stops the process.
std::ptrdiff_t dequeGrowthCapacity(std::ptrdiff_t capacity, std::ptrdiff_t required);

}  // namespace carrow::detail
