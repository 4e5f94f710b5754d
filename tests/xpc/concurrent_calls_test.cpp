// Many calls in flight on one connection, from many tasks at once: each reply reaches its own
// caller, large messages that fill the socket wait their turn behind each other, and
// cancellations that race the sending of their call end it exactly once.

#include <atomic>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "xpc/service_harness.h"

namespace carrow::testing {
namespace {

using Proxy = XPCProxy<TestProtocol>;

class XPCConcurrentCallsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    installRecordingLogger();
    TestConnection::directory = folder_.path();
    TestConnection::name = "test";
  }

  TemporaryFolder folder_;
};

constexpr int kLanes = 16;
constexpr int kCallsPerLane = 40;

TEST_F(XPCConcurrentCallsTest, EveryCallerGetsItsOwnReplyWhateverTheOrderOfSending) {
  InProcessService service(folder_.path(), "test");
  auto connection = makeConnection<TestConnection>();
  Proxy proxy = proxyFromConnection<TestConnection>(connection);
  std::atomic<int> matched{0};
  runMain([proxy, &matched]() -> Async<void> {
    auto body = [proxy, &matched](ThrowingTaskGroup<void>& group) -> Async<void> {
      for (int lane = 0; lane < kLanes; ++lane) {
        group.addTask([proxy, lane, &matched]() -> Async<void> {
          for (int index = 0; index < kCallsPerLane; ++index) {
            // Every fourth lane sends 600 KiB now and then: a few of those fill the socket's
            // buffer, so later messages queue behind them for the reactor to write.
            if (lane % 4 == 0 && index % 10 == 0) {
              std::vector<std::uint8_t> bulk(600 * 1024, static_cast<std::uint8_t>(lane));
              const std::int64_t size = co_await proxy.call(Measure{}, std::move(bulk));
              EXPECT_EQ(size, 600 * 1024);
            }
            const std::string text = std::to_string(lane) + "/" + std::to_string(index);
            const std::string echoed = co_await proxy.call(Echo{}, text);
            EXPECT_EQ(echoed, text);
            if (echoed == text) matched.fetch_add(1);
          }
        });
      }
      while (co_await group.next()) {
      }
    };
    co_await withThrowingTaskGroup<void>(body);
  });
  EXPECT_EQ(matched.load(), kLanes * kCallsPerLane);
  connection->invalidate();
}

TEST_F(XPCConcurrentCallsTest, ACancellationRacingItsCallEndsItOnceAndTheConnectionStaysUp) {
  InProcessService service(folder_.path(), "test");
  auto connection = makeConnection<TestConnection>();
  Proxy proxy = proxyFromConnection<TestConnection>(connection);
  ASSERT_EQ(runMain([proxy]() -> Async<std::string> {
              co_return co_await proxy.call(Echo{}, std::string("first"));
            }),
            "first");
  std::mt19937 random(20261123);
  constexpr int kCalls = 200;
  std::vector<Task<std::string>> calls;
  for (int index = 0; index < kCalls; ++index) {
    const std::string text = "call " + std::to_string(index);
    calls.push_back(Task<std::string>::start(
        [proxy, text]() -> Async<std::string> { co_return co_await proxy.call(Echo{}, text); }));
    // Cancelled at once (often before the call is written), a little later, or not at all.
    const auto choice = random() % 3;
    if (choice == 0) calls.back().cancel();
    if (choice == 1 && index > 0) calls[static_cast<std::size_t>(index) - 1].cancel();
  }
  int answered = 0;
  int cancelled = 0;
  runMain([&calls, &answered, &cancelled]() -> Async<void> {
    for (std::size_t index = 0; index < calls.size(); ++index) {
      try {
        const std::string echoed = co_await calls[index].value();
        EXPECT_EQ(echoed, "call " + std::to_string(index));
        ++answered;
      } catch (const CancellationError&) {
        ++cancelled;
      }
    }
  });
  EXPECT_EQ(answered + cancelled, kCalls);
  EXPECT_GT(answered, 0);
  // The service, which saw cancels for calls it may never have been sent or has answered,
  // still serves this connection.
  EXPECT_EQ(runMain([proxy]() -> Async<std::string> {
              co_return co_await proxy.call(Echo{}, std::string("still up"));
            }),
            "still up");
  connection->invalidate();
}

}  // namespace
}  // namespace carrow::testing
