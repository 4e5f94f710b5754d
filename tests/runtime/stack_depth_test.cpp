// Built without optimisation on purpose: symmetric transfer and tail calls cannot be relied on
// there, so this shows that the await handshake alone keeps the stack flat.

#include <algorithm>
#include <cstdint>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/run_main.h>

namespace carrow {
namespace {

// Coroutine locals may live in the heap frame, so the stack is measured by an ordinary callee.
std::uintptr_t deepestStack = UINTPTR_MAX;
std::uintptr_t shallowestStack = 0;

[[gnu::noinline]] void noteStack() {
  const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
  deepestStack = std::min(deepestStack, here);
  shallowestStack = std::max(shallowestStack, here);
}

Async<int> one() {
  noteStack();
  co_return 1;
}

TEST(AsyncStack, AMillionSynchronousAwaitsDoNotGrowTheStack) {
  const long total = runMain([]() -> Async<long> {
    long sum = 0;
    for (int i = 0; i < 1'000'000; ++i) sum += co_await one();
    co_return sum;
  });
  EXPECT_EQ(total, 1'000'000);
  // One nested frame per await would be tens of megabytes; the loop stays within a few frames.
  EXPECT_LT(shallowestStack - deepestStack, 1024u);
}

}  // namespace
}  // namespace carrow
