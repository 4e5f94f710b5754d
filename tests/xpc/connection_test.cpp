#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <vector>

#include <gtest/gtest.h>

#include "xpc/service_harness.h"

namespace carrow::testing {
namespace {

using Proxy = XPCProxy<TestProtocol>;

class XPCConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    logger_ = installRecordingLogger();
    TestConnection::directory = folder_.path();
    TestConnection::name = "test";
  }

  std::shared_ptr<XPCConnection> connect() { return makeConnection<TestConnection>(); }

  std::shared_ptr<RecordingLogger> logger_;
  TemporaryFolder folder_;
};

TEST_F(XPCConnectionTest, CallsRoundTripWithValuesErrorsAndThePeersIdentity) {
  InProcessService service(folder_.path(), "test");
  auto connection = connect();
  Proxy proxy = proxyFromConnection<TestConnection>(connection);
  runMain([proxy]() -> Async<void> {
    const std::string echoed = co_await proxy.call(Echo{}, std::string("hello"));
    EXPECT_EQ(echoed, "hello");
    const std::int64_t uid = co_await proxy.call(WhoAmI{});
    EXPECT_EQ(uid, static_cast<std::int64_t>(::geteuid()));
    int failure = 0;
    try {
      co_await proxy.call(Fail{}, std::int64_t{ENOENT});
    } catch (const std::system_error& error) {
      failure = error.code().value();
    }
    EXPECT_EQ(failure, ENOENT);
    const std::int64_t size =
        co_await proxy.call(Measure{}, std::vector<std::uint8_t>(900 * 1024, 7));
    EXPECT_EQ(size, 900 * 1024);
    int tooLarge = 0;
    try {
      co_await proxy.call(Measure{}, std::vector<std::uint8_t>(2 << 20, 7));
    } catch (const std::system_error& error) {
      tooLarge = error.code().value();
    }
    EXPECT_EQ(tooLarge, EMSGSIZE);
    const std::string after = co_await proxy.call(Echo{}, std::string("still up"));
    EXPECT_EQ(after, "still up");
  });
  ASSERT_TRUE(connection->peerCredentials().has_value());
  EXPECT_EQ(connection->peerCredentials()->pid, ::getpid());
  connection->invalidate();
}

TEST_F(XPCConnectionTest, ADisallowedClassIsDroppedUnbuiltAndTheCallerGetsAnError) {
  InProcessService service(folder_.path(), "test");
  auto connection = connect();
  Proxy proxy = proxyFromConnection<TestConnection>(connection);
  Hostile::decoded = 0;
  runMain([proxy]() -> Async<void> {
    int refused = 0;
    try {
      std::variant<Safe, Hostile> hostile = Hostile{"payload"};
      co_await proxy.call(Take{}, hostile);
    } catch (const std::system_error& error) {
      refused = error.code().value();
    }
    EXPECT_EQ(refused, EACCES);
    std::variant<Safe, Hostile> safe = Safe{"fine"};
    const std::string taken = co_await proxy.call(Take{}, safe);
    EXPECT_EQ(taken, "fine");
  });
  EXPECT_EQ(Hostile::decoded, 0);
  const auto records = logger_->recordsContaining("class Hostile is not allowed");
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records.front().category, "XPC");
  EXPECT_EQ(records.front().level, CRLogLevel::error);
  connection->invalidate();
}

TEST_F(XPCConnectionTest, InvalidateRunsItsHandlerOnceWithNoInterruptionAfter) {
  auto service = std::make_unique<InProcessService>(folder_.path(), "test");
  auto connection = connect();
  auto interruptions = std::make_shared<std::atomic<int>>(0);
  auto invalidations = std::make_shared<std::atomic<int>>(0);
  connection->setInterruptionHandler([interruptions] { ++*interruptions; });
  connection->setInvalidationHandler([invalidations] { ++*invalidations; });
  Proxy proxy = proxyFromConnection<TestConnection>(connection);
  runMain([proxy]() -> Async<void> { co_await proxy.call(Echo{}, std::string("up")); });
  connection->invalidate();
  connection->invalidate();
  ASSERT_TRUE(waitUntil([&] { return *invalidations == 1; }));
  service.reset();  // the peer goes away too
  EXPECT_EQ(errnoOfCall([proxy] { return proxy.call(Echo{}, std::string("x")); }), ECONNABORTED);
  EXPECT_EQ(*invalidations, 1);
  EXPECT_EQ(*interruptions, 0);
}

TEST_F(XPCConnectionTest, InvalidatingFromInsideItsHandlersDoesNotDeadlock) {
  auto service = std::make_unique<InProcessService>(folder_.path(), "test");
  auto connection = connect();
  auto interruptions = std::make_shared<std::atomic<int>>(0);
  auto invalidations = std::make_shared<std::atomic<int>>(0);
  std::weak_ptr<XPCConnection> weak = connection;
  connection->setInterruptionHandler([weak, interruptions] {
    ++*interruptions;
    if (auto self = weak.lock()) self->invalidate();
  });
  connection->setInvalidationHandler([weak, invalidations] {
    ++*invalidations;
    if (auto self = weak.lock()) self->invalidate();
  });
  Proxy proxy = proxyFromConnection<TestConnection>(connection);
  runMain([proxy]() -> Async<void> { co_await proxy.call(Echo{}, std::string("up")); });
  service.reset();  // interrupts the connection
  ASSERT_TRUE(waitUntil([&] { return *invalidations == 1; }));
  EXPECT_EQ(*interruptions, 1);
}

TEST_F(XPCConnectionTest, ExportedObjectsAreReleasedAfterInvalidation) {
  InProcessService service(folder_.path(), "test");
  auto connection = connect();
  // A cycle: the client exports an object that holds its own connection.
  struct Holder {
    std::shared_ptr<XPCConnection> connection;
    Async<std::string> serve(Echo, std::string text) { co_return text; }
  };
  struct EchoOnly : XPCProtocol<"EchoOnly", Echo> {};
  auto holder = std::make_shared<Holder>(Holder{connection});
  std::weak_ptr<Holder> clientSide = holder;
  connection->setExportedObject(exportObject<EchoOnly>(std::move(holder)));
  connection->setInvalidationHandler([connection] {});  // a cycle through the handler too

  Proxy proxy = proxyFromConnection<TestConnection>(connection);
  runMain([proxy]() -> Async<void> { co_await proxy.call(Echo{}, std::string("up")); });
  auto serviceSide = service.endpoints();
  ASSERT_EQ(serviceSide.size(), 1u);
  EXPECT_FALSE(serviceSide[0].expired());

  std::weak_ptr<XPCConnection> weakConnection = connection;
  connection->invalidate();
  connection.reset();
  proxy = Proxy(nullptr);
  EXPECT_TRUE(waitUntil([&] { return clientSide.expired(); }));
  EXPECT_TRUE(waitUntil([&] { return weakConnection.expired(); }));
  // The service's connection saw its client go: interrupted, then invalidated.
  EXPECT_TRUE(waitUntil([&] { return serviceSide[0].expired(); }));
}

TEST_F(XPCConnectionTest, AServiceThatDoesNotExportTheProtocolRefusesTheClient) {
  InProcessService service(folder_.path(), "test");
  auto connection = XPCConnection::make(TestConnection::kind());
  connection->setRemoteObjectInterface(XPCInterface::withProtocol<ImpostorProtocol>());
  auto invalidations = std::make_shared<std::atomic<int>>(0);
  auto interruptions = std::make_shared<std::atomic<int>>(0);
  connection->setInvalidationHandler([invalidations] { ++*invalidations; });
  connection->setInterruptionHandler([interruptions] { ++*interruptions; });
  connection->resume();
  XPCProxy<ImpostorProtocol> proxy(connection);
  EXPECT_EQ(errnoOfCall([proxy] { return proxy.call(Impostor{}, 5); }), EPROTONOSUPPORT);
  ASSERT_TRUE(waitUntil([&] { return *invalidations == 1; }));
  EXPECT_EQ(*interruptions, 0);
}

TEST_F(XPCConnectionTest, NoSuchServiceInvalidatesAtTheFirstCall) {
  auto connection = connect();
  auto invalidations = std::make_shared<std::atomic<int>>(0);
  connection->setInvalidationHandler([invalidations] { ++*invalidations; });
  Proxy proxy = proxyFromConnection<TestConnection>(connection);
  EXPECT_EQ(errnoOfCall([proxy] { return proxy.call(Echo{}, std::string("x")); }), ENOENT);
  EXPECT_TRUE(waitUntil([&] { return *invalidations == 1; }));
}

TEST_F(XPCConnectionTest, CancellingTheCallerEndsTheCallAndCancelsTheServingTask) {
  InProcessService service(folder_.path(), "test");
  auto connection = connect();
  Proxy proxy = proxyFromConnection<TestConnection>(connection);
  const auto cancelledBefore = TestEndpoint::cancelled_->load();
  auto call =
      Task<void>::start([proxy]() -> Async<void> { co_await proxy.call(SleepFor{}, 30.0); });
  ASSERT_TRUE(waitUntil([&] {
    auto endpoints = service.endpoints();
    auto endpoint = endpoints.empty() ? nullptr : endpoints[0].lock();
    return endpoint && !endpoint->taskGroup()->registeredTaskNumbers().empty();
  }));
  const auto started = std::chrono::steady_clock::now();
  call.cancel();
  bool cancelled = false;
  runMain([call, &cancelled]() -> Async<void> {
    try {
      co_await call.value();
    } catch (const CancellationError&) {
      cancelled = true;
    }
  });
  EXPECT_TRUE(cancelled);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
  EXPECT_TRUE(waitUntil([&] { return TestEndpoint::cancelled_->load() == cancelledBefore + 1; }));
  connection->invalidate();
}

TEST(XPCConnectionKindTest, NamesAreFileNamesInTheServiceFolder) {
  const auto privileged = XPCConnectionKind::privilegedMachService("com.example.svc", "/tmp/x");
  EXPECT_EQ(privileged.socketPath(), "/tmp/x/com.example.svc.sock");
  EXPECT_EQ(privileged.requiredPeerUID(), 0u);
  EXPECT_TRUE(privileged.isPrivileged());
  const auto user = XPCConnectionKind::userService("svc", "/tmp/x");
  EXPECT_EQ(user.requiredPeerUID(), ::geteuid());
  EXPECT_FALSE(user.isPrivileged());
  for (const char* bad : {"", ".", "..", "a/b", "../etc"}) {
    EXPECT_THROW(XPCConnectionKind::userService(bad, "/tmp/x"), std::invalid_argument) << bad;
  }
  ::setenv("CARROW_XPC_SERVICE_DIR", "/tmp/elsewhere", 1);
  EXPECT_EQ(XPCConnectionKind::privilegedMachService("svc").directory(), "/tmp/elsewhere");
  ::unsetenv("CARROW_XPC_SERVICE_DIR");
  EXPECT_EQ(XPCConnectionKind::privilegedMachService("svc").directory(), "/run/carrow");
}

struct WrongProxyConnection {
  using ProxyProtocol = ImpostorProtocol;
  using Kind = XPCConnectionKind;
  static const XPCProtocolDescription& interfaceProtocol() { return TestProtocol::description(); }
  static Kind kind() { return TestConnection::kind(); }
  static std::vector<ArgumentExpectation> argumentExpectations() { return {}; }
};

TEST_F(XPCConnectionTest, AProxyOfTheWrongTypeIsLoggedAndRefused) {
  auto connection = makeConnection<WrongProxyConnection>();
  // The logger is the process's, kept across tests and their repetitions: count what this one
  // adds.
  const std::string prefix = "Couldn't create XPC proxy of type: ";
  const std::size_t before = logger_->recordsContaining(prefix).size();
  EXPECT_EQ(errnoOf([&] { proxyFromConnection<WrongProxyConnection>(connection); }),
            kWrongProxyErrno);
  const auto records = logger_->recordsContaining(prefix);
  ASSERT_EQ(records.size(), before + 1);
  EXPECT_EQ(records.back().message, "Couldn't create XPC proxy of type: ImpostorProtocol");
  EXPECT_EQ(records.back().category, "XPC");
  EXPECT_EQ(records.back().level, CRLogLevel::error);
  connection->invalidate();
}

struct ExpectingConnection {
  using ProxyProtocol = TestProtocol;
  using Kind = XPCConnectionKind;
  static const XPCProtocolDescription& interfaceProtocol() { return TestProtocol::description(); }
  static Kind kind() { return TestConnection::kind(); }
  static std::vector<ArgumentExpectation> argumentExpectations() {
    return {
        {"take:", {"Safe", "Hostile", "Safe"}, 0, false},
        {"echo:", {"String", "String"}, 0, true},
        {"echo:", {"Text"}, 0, false},
        {"take:", {"Safe"}, 0, false},  // a later entry for the same position wins
    };
  }
};

TEST_F(XPCConnectionTest, MakeConnectionAppliesTheExpectationsInListOrder) {
  auto connection = makeConnection<ExpectingConnection>();
  const auto interface = connection->remoteObjectInterface();
  ASSERT_TRUE(interface.has_value());
  using Set = std::set<std::string>;
  EXPECT_EQ(*interface->classes("take:", 0, false), Set{"Safe"});
  EXPECT_EQ(*interface->classes("echo:", 0, true), Set{"String"});
  EXPECT_EQ(*interface->classes("echo:", 0, false), Set{"Text"});
  EXPECT_EQ(*interface->classes("whoAmI", 0, true), Set{"Int"});  // untouched: declared
  connection->invalidate();

  struct BadConnection : ExpectingConnection {
    static std::vector<ArgumentExpectation> argumentExpectations() {
      return {{"echo:", {"String"}, 3, false}};
    }
  };
  EXPECT_THROW(makeConnection<BadConnection>(), std::invalid_argument);
}

TEST_F(XPCConnectionTest, WithProxyReturnsTheBodysValueOrErrorAndEndsTheConnection) {
  InProcessService service(folder_.path(), "test");
  auto value = runMain([]() -> Async<std::string> {
    auto body = [](Proxy proxy) -> Async<std::string> {
      co_return co_await proxy.call(Echo{}, std::string("through withProxy"));
    };
    co_return co_await withProxy<TestConnection>(body);
  });
  EXPECT_EQ(value, "through withProxy");
  EXPECT_EQ(errnoOfCall([] {
              auto body = [](Proxy proxy) -> Async<void> {
                co_await proxy.call(Fail{}, std::int64_t{EIO});
              };
              return withProxy<TestConnection>(body);
            }),
            EIO);
  // Each call's connection ends with it: the service sees its clients go.
  EXPECT_TRUE(waitUntil([&] {
    for (auto& endpoint : service.endpoints()) {
      if (!endpoint.expired()) return false;
    }
    return service.endpoints().size() == 2;
  }));
}

TEST_F(XPCConnectionTest, WithProxyThrowsCancellationWhenTheServiceGoesAway) {
  auto service = std::make_unique<InProcessService>(folder_.path(), "test");
  auto bodyCancelled = std::make_shared<std::atomic<bool>>(false);
  auto bodyEnded = std::make_shared<std::atomic<bool>>(false);
  auto call = Task<std::string>::start([bodyCancelled, bodyEnded]() -> Async<std::string> {
    auto body = [bodyCancelled, bodyEnded](Proxy proxy) -> Async<std::string> {
      try {
        co_await proxy.call(SleepFor{}, 30.0);
      } catch (...) {
        bodyCancelled->store(isCancelled());
        bodyEnded->store(true);
        throw;
      }
      co_return "slept";
    };
    co_return co_await withProxy<TestConnection>(body);
  });
  ASSERT_TRUE(waitUntil([&] {
    auto endpoints = service->endpoints();
    auto endpoint = endpoints.empty() ? nullptr : endpoints[0].lock();
    return endpoint && !endpoint->taskGroup()->registeredTaskNumbers().empty();
  }));
  service.reset();
  bool cancelled = false;
  runMain([call, &cancelled]() -> Async<void> {
    try {
      co_await call.value();
    } catch (const CancellationError&) {
      cancelled = true;
    }
  });
  EXPECT_TRUE(cancelled);
  ASSERT_TRUE(waitUntil([&] { return bodyEnded->load(); }));
  EXPECT_TRUE(bodyCancelled->load());
}

TEST_F(XPCConnectionTest, ConfigureRoutesTheClientsDisappearanceToTheTaskGroup) {
  InProcessService service(folder_.path(), "test", /*configured=*/true);
  auto connection = connect();
  Proxy proxy = proxyFromConnection<TestConnection>(connection);
  const auto cancelledBefore = TestEndpoint::cancelled_->load();
  auto call =
      Task<void>::start([proxy]() -> Async<void> { co_await proxy.call(SleepFor{}, 30.0); });
  ASSERT_TRUE(waitUntil([&] {
    auto endpoints = service.endpoints();
    auto endpoint = endpoints.empty() ? nullptr : endpoints[0].lock();
    return endpoint && !endpoint->taskGroup()->registeredTaskNumbers().empty();
  }));
  connection->invalidate();  // the service sees its client go
  EXPECT_TRUE(waitUntil([&] { return TestEndpoint::cancelled_->load() == cancelledBefore + 1; }));
  EXPECT_TRUE(waitUntil([&] {
    return !logger_->recordsContaining("Cancelling 1 tasks due to connection interruption.")
                .empty();
  }));
  EXPECT_FALSE(logger_->recordsContaining("XPC Connection, Interrupted").empty());
  EXPECT_TRUE(waitUntil([&] { return service.endpoints()[0].expired(); }));
}

TEST_F(XPCConnectionTest, AMalformedMessageEndsOnlyItsOwnConnection) {
  InProcessService service(folder_.path(), "test");
  auto good = connect();
  Proxy proxy = proxyFromConnection<TestConnection>(good);
  ASSERT_EQ(runMain([proxy]() -> Async<std::string> {
              co_return co_await proxy.call(Echo{}, std::string("before"));
            }),
            "before");
  // A peer that sends 200000 nested arrays.
  const int raw = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = folder_.path() + "/test.sock";
  std::memcpy(address.sun_path, path.c_str(), path.size());
  ASSERT_EQ(::connect(raw, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  std::vector<std::uint8_t> deep(200000, 0x81);
  deep.push_back(0x80);
  ASSERT_GT(::send(raw, deep.data(), deep.size(), MSG_NOSIGNAL), 0);
  char byte = 0;
  EXPECT_EQ(::recv(raw, &byte, 1, 0), 0);  // the service closed that connection
  ::close(raw);
  EXPECT_FALSE(logger_->recordsContaining("Malformed XPC message").empty());
  EXPECT_EQ(runMain([proxy]() -> Async<std::string> {
              co_return co_await proxy.call(Echo{}, std::string("after"));
            }),
            "after");
  good->invalidate();
}

}  // namespace
}  // namespace carrow::testing
