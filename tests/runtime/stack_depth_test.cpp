// Built without optimisation on purpose: symmetric transfer and tail calls cannot be relied on
// there, so this shows that the await handshake alone keeps the stack flat.

#include <cstdint>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/run_main.h>

namespace carrow {
namespace {

Async<std::uintptr_t> stackAddress() {
  int marker = 0;
  co_return reinterpret_cast<std::uintptr_t>(&marker);
}

Async<int> one() {
  co_return 1;
}

TEST(AsyncStack, AMillionSynchronousAwaitsDoNotGrowTheStack) {
  const bool flat = runMain([]() -> Async<bool> {
    const std::uintptr_t before = co_await stackAddress();
    long total = 0;
    for (int i = 0; i < 1'000'000; ++i) total += co_await one();
    const std::uintptr_t after = co_await stackAddress();
    EXPECT_EQ(total, 1'000'000);
    co_return before == after;
  });
  EXPECT_TRUE(flat);
}

}  // namespace
}  // namespace carrow
