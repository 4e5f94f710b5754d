// Counts every allocation of the process by replacing the global operator new, for tests that
// show some code allocates nothing (or exactly what it should).
//
// The replacement operators below are definitions, not declarations: include this header from
// exactly one source file of a test program, and build that program on its own (ThreadSanitizer's
// runtime owns operator new and cannot share it).

#pragma once

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<long> allocations{0};
}  // namespace

void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}

namespace {

/// How many times operator new ran while `work` ran.
long allocationsDuring(auto&& work) {
  const long before = allocations.load();
  work();
  return allocations.load() - before;
}

}  // namespace
