#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "xpc/service_harness.h"

namespace carrow::testing {
namespace {

using Proxy = XPCProxy<TestProtocol>;

class TwoProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    installRecordingLogger();
    TestConnection::directory = folder_.path();
    TestConnection::name = "test";
  }

  std::unique_ptr<ServiceProcess> startService(std::vector<std::string> extra = {}) {
    std::vector<std::string> arguments = {XPC_TEST_SERVICE, folder_.path(), "test"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    auto service = std::make_unique<ServiceProcess>(arguments);
    if (!service->waitReady()) return nullptr;
    return service;
  }

  TemporaryFolder folder_;
};

std::string echo(const Proxy& proxy, std::string text) {
  return runMain(
      [proxy, text]() -> Async<std::string> { co_return co_await proxy.call(Echo{}, text); });
}

TEST_F(TwoProcessTest, AKilledServiceFailsEachCallOnceAndTheNextCallReconnects) {
  auto service = startService();
  ASSERT_TRUE(service);
  auto connection = makeConnection<TestConnection>();
  auto interruptions = std::make_shared<std::atomic<int>>(0);
  auto invalidations = std::make_shared<std::atomic<int>>(0);
  connection->setInterruptionHandler([interruptions] { ++*interruptions; });
  connection->setInvalidationHandler([invalidations] { ++*invalidations; });
  Proxy proxy = proxyFromConnection<TestConnection>(connection);

  constexpr int kCalls = 8;
  auto ended = std::make_shared<std::atomic<int>>(0);
  std::vector<Task<int>> calls;
  for (int index = 0; index < kCalls; ++index) {
    calls.push_back(Task<int>::start([proxy, ended]() -> Async<int> {
      int code = 0;
      try {
        co_await proxy.call(SleepFor{}, 30.0);
      } catch (const std::system_error& error) {
        code = error.code().value();
      }
      ++*ended;
      co_return code;
    }));
  }
  // The service answers in order, so once this is back, every sleep has reached it.
  ASSERT_TRUE(waitUntil([&] {
    return runMain([proxy]() -> Async<std::int64_t> { co_return co_await proxy.call(WhoAmI{}); })
           >= 0;
  }));
  const pid_t first = connection->peerCredentials()->pid;
  EXPECT_EQ(first, service->pid());
  EXPECT_EQ(*ended, 0);

  service->kill();
  for (auto& call : calls) {
    const int code = runMain([call]() -> Async<int> { co_return co_await call.value(); });
    EXPECT_EQ(code, ECONNRESET);
  }
  EXPECT_EQ(*ended, kCalls);
  ASSERT_TRUE(waitUntil([&] { return *interruptions == 1; }));

  service = startService();  // replaces the socket file the killed one left
  ASSERT_TRUE(service);
  EXPECT_EQ(echo(proxy, "again"), "again");
  EXPECT_EQ(connection->peerCredentials()->pid, service->pid());
  EXPECT_EQ(*interruptions, 1);
  EXPECT_EQ(*invalidations, 0);
  connection->invalidate();
}

TEST_F(TwoProcessTest, AClientsCancellationReachesTheServicesTask) {
  auto service = startService();
  ASSERT_TRUE(service);
  auto connection = makeConnection<TestConnection>();
  Proxy proxy = proxyFromConnection<TestConnection>(connection);
  auto call =
      Task<void>::start([proxy]() -> Async<void> { co_await proxy.call(SleepFor{}, 30.0); });
  ASSERT_EQ(echo(proxy, "barrier"), "barrier");
  call.cancel();
  const bool cancelled = runMain([call]() -> Async<bool> {
    try {
      co_await call.value();
    } catch (const CancellationError&) {
      co_return true;
    }
    co_return false;
  });
  EXPECT_TRUE(cancelled);
  EXPECT_TRUE(waitUntil([&] {
    return runMain([proxy]() -> Async<std::int64_t> {
             co_return co_await proxy.call(CancelledCount{});
           })
           == 1;
  }));
  connection->invalidate();
}

TEST_F(TwoProcessTest, APrivilegedConnectionRefusesAServiceThatIsNotRoot) {
  // As root, the service gives up its rights; otherwise it runs as this (non-root) user anyway.
  std::vector<std::string> extra;
  if (::geteuid() == 0) {
    extra = {"--uid", "65534"};
    std::filesystem::permissions(folder_.path(), std::filesystem::perms::all);
  }
  auto service = startService(extra);
  ASSERT_TRUE(service);
  auto connection =
      XPCConnection::make(XPCConnectionKind::privilegedMachService("test", folder_.path()));
  connection->setRemoteObjectInterface(XPCInterface::withProtocol<TestProtocol>());
  auto invalidations = std::make_shared<std::atomic<int>>(0);
  connection->setInvalidationHandler([invalidations] { ++*invalidations; });
  connection->resume();
  Proxy proxy(connection);
  EXPECT_EQ(errnoOfCall([proxy] { return proxy.call(Echo{}, std::string("hello")); }), EPERM);
  EXPECT_TRUE(waitUntil([&] { return *invalidations == 1; }));
  EXPECT_FALSE(installRecordingLogger()->recordsContaining("Refused XPC connection").empty());
}

TEST_F(TwoProcessTest, ASocketActivatedServiceTakesItsListenerFromTheManager) {
  const std::string activate = "/usr/bin/systemd-socket-activate";
  if (!std::filesystem::exists(activate)) GTEST_SKIP() << "systemd-socket-activate is missing";
  const std::string path = folder_.path() + "/test.sock";
  ServiceProcess manager({activate, "--seqpacket", "-l", path, XPC_TEST_SERVICE, "--activated"});
  ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(path); }));
  auto connection = makeConnection<TestConnection>();
  Proxy proxy = proxyFromConnection<TestConnection>(connection);
  EXPECT_EQ(echo(proxy, "activated"), "activated");
  EXPECT_EQ(connection->peerCredentials()->pid, manager.pid());
  connection->invalidate();
}

}  // namespace
}  // namespace carrow::testing
