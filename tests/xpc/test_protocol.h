#pragma once

// The protocol the connection tests speak, and the endpoint that serves it (in the test process
// itself, or in the service program the two-process tests start).

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <unistd.h>
#include <variant>
#include <vector>

#include <carrow/runtime/runtime.h>
#include <carrow/xpc/xpc.h>

namespace carrow::testing {

struct Safe {
  static constexpr std::string_view xpcClassName = "Safe";
  std::string text;
};
inline void to_json(nlohmann::json& json, const Safe& value) {
  json = value.text;
}
inline void from_json(const nlohmann::json& json, Safe& value) {
  value.text = json.get<std::string>();
}

/// A class no allow-list of the service admits; counts how often one is decoded.
struct Hostile {
  static constexpr std::string_view xpcClassName = "Hostile";
  static inline std::atomic<int> decoded{0};
  std::string text;
};
inline void to_json(nlohmann::json& json, const Hostile& value) {
  json = value.text;
}
inline void from_json(const nlohmann::json& json, Hostile& value) {
  Hostile::decoded.fetch_add(1);
  value.text = json.get<std::string>();
}

struct Echo : XPCMethod<"echo:", std::string(std::string)> {};
/// Sleeps; a cancelled sleep is counted by the service.
struct SleepFor : XPCMethod<"sleepFor:", void(double)> {};
struct CancelledCount : XPCMethod<"cancelledCount", std::int64_t()> {};
/// The caller's uid as the service sees it.
struct WhoAmI : XPCMethod<"whoAmI", std::int64_t()> {};
/// Throws std::system_error with the given errno.
struct Fail : XPCMethod<"fail:", void(std::int64_t)> {};
struct Take : XPCMethod<"take:", std::string(std::variant<Safe, Hostile>)> {};
struct Measure : XPCMethod<"measure:", std::int64_t(std::vector<std::uint8_t>)> {};

struct TestProtocol
    : XPCProtocol<"TestProtocol", Echo, SleepFor, CancelledCount, WhoAmI, Fail, Take, Measure> {};

/// Another protocol of the same name but other methods: the service refuses it.
struct Impostor : XPCMethod<"echo:", std::int64_t(std::int64_t)> {};
struct ImpostorProtocol : XPCProtocol<"TestProtocol", Impostor> {};

/// The interface a test service exports: `take:` admits only Safe.
inline XPCInterface testServiceInterface() {
  auto interface = XPCInterface::withProtocol<TestProtocol>();
  interface.setClasses({"Safe"}, "take:", 0, false);
  return interface;
}

/// The service description of the tests: a privileged service when the tests run as root (the
/// service they start runs as root too), a service of the same user otherwise.
struct TestConnection {
  using ProxyProtocol = TestProtocol;
  using Kind = XPCConnectionKind;
  static const XPCProtocolDescription& interfaceProtocol() { return TestProtocol::description(); }
  static Kind kind() {
    return ::geteuid() == 0 ? Kind::privilegedMachService(name, directory)
                            : Kind::userService(name, directory);
  }
  static std::vector<ArgumentExpectation> argumentExpectations() { return {}; }
  static inline std::string directory = "/nonexistent";
  static inline std::string name = "test";
};

class TestEndpoint {
 public:
  using ConnectionType = TestConnection;

  explicit TestEndpoint(const void* connectionID)
      : taskGroup_(std::make_shared<XPCTaskGroup>(connectionID)) {}

  std::shared_ptr<XPCTaskGroup> taskGroup() const { return taskGroup_; }

  Async<std::string> serve(Echo, std::string text) { co_return text; }

  Async<void> serve(SleepFor, double seconds) {
    auto counter = cancelled_;
    auto nap = [seconds, counter]() -> Async<bool> {
      try {
        co_await sleep(std::chrono::duration_cast<ContinuousClock::duration>(
            std::chrono::duration<double>(seconds)));
      } catch (const CancellationError&) {
        counter->fetch_add(1);
        throw;
      }
      co_return true;
    };
    co_await taskGroup_->withXPCTask({}, "sleepFor:", nap);
  }

  Async<std::int64_t> serve(CancelledCount) { co_return cancelled_->load(); }

  Async<std::int64_t> serve(WhoAmI) {
    auto peer = XPCConnection::currentPeer();
    co_return peer ? static_cast<std::int64_t>(peer->uid) : -1;
  }

  Async<void> serve(Fail, std::int64_t code) {
    throw std::system_error(static_cast<int>(code), std::generic_category(), "asked to fail");
    co_return;
  }

  Async<std::string> serve(Take, std::variant<Safe, Hostile> value) {
    co_return std::visit([](const auto& held) { return held.text; }, value);
  }

  Async<std::int64_t> serve(Measure, std::vector<std::uint8_t> bytes) {
    co_return static_cast<std::int64_t>(bytes.size());
  }

  /// Shared by every endpoint of one process.
  static inline std::shared_ptr<std::atomic<std::int64_t>> cancelled_ =
      std::make_shared<std::atomic<std::int64_t>>(0);

 private:
  std::shared_ptr<XPCTaskGroup> taskGroup_;
};

/// Exports a TestEndpoint on `connection`, with the interface of `testServiceInterface()`, and
/// routes its events to the endpoint's task group. Returns the endpoint.
inline std::shared_ptr<TestEndpoint> serveTestProtocol(
    const std::shared_ptr<XPCConnection>& connection) {
  auto endpoint = std::make_shared<TestEndpoint>(connection.get());
  auto group = endpoint->taskGroup();
  connection->setExportedInterface(testServiceInterface());
  connection->setExportedObject(exportObject<TestProtocol>(endpoint));
  connection->setInterruptionHandler([group] { group->connectionInterrupted(); });
  connection->setInvalidationHandler([group] { group->connectionInvalidated(); });
  connection->resume();
  return endpoint;
}

}  // namespace carrow::testing
