#pragma once

// Declarative service descriptions. A client describes a service once, as a type:
//
//   struct VolumeServiceConnection {
//     using ProxyProtocol = VolumeProtocol;
//     using Kind = carrow::XPCConnectionKind;
//     static const carrow::XPCProtocolDescription& interfaceProtocol() {
//       return VolumeProtocol::description();
//     }
//     static Kind kind() { return Kind::privilegedMachService("volumes"); }
//     static std::vector<carrow::ArgumentExpectation> argumentExpectations() { return {}; }
//   };
//
// and then runs calls with the connection's lifetime tied to each call:
//
//   auto body = [](carrow::XPCProxy<VolumeProtocol> proxy) -> carrow::Async<Volumes> {
//     co_return co_await proxy.call(MountedVolumes{});
//   };
//   Volumes volumes = co_await carrow::withProxy<VolumeServiceConnection>(body);

#include <cerrno>
#include <concepts>
#include <exception>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <variant>
#include <vector>

#include <carrow/runtime/async_throwing_stream.h>
#include <carrow/runtime/cancellation_error.h>
#include <carrow/runtime/result.h>
#include <carrow/runtime/task.h>
#include <carrow/xpc/argument_expectation.h>
#include <carrow/xpc/xpc_connection.h>
#include <carrow/xpc/xpc_connection_kind.h>
#include <carrow/xpc/xpc_proxy.h>

namespace carrow {

/// A service description: every requirement belongs to the type.
template <class C>
concept Connection = requires {
  typename C::ProxyProtocol;
  typename C::Kind;
  requires std::same_as<typename C::Kind, XPCConnectionKind>;
  requires XPCProtocolType<typename C::ProxyProtocol>;
  { C::interfaceProtocol() } -> std::same_as<const XPCProtocolDescription&>;
  { C::kind() } -> std::convertible_to<XPCConnectionKind>;
  { C::argumentExpectations() } -> std::convertible_to<std::vector<ArgumentExpectation>>;
};

/// The errno `proxyFromConnection` throws for a proxy of the wrong type. The original platform
/// uses EBADRPC (72, "RPC struct is bad"), which Linux lacks; EPROTO ("protocol error") carries
/// the same meaning here.
inline constexpr int kWrongProxyErrno = EPROTO;

namespace detail {

/// The type's name without namespaces or enclosing classes.
std::string unqualifiedTypeName(const std::type_info& type);

/// Logs "Couldn't create XPC proxy of type: NAME" (category "XPC", error) and throws
/// std::system_error(kWrongProxyErrno) in the generic category.
[[noreturn]] void throwWrongProxy(const std::type_info& proxyType);

}  // namespace detail

/// A new, resumed connection for `C`: its kind, its remote interface made from
/// `interfaceProtocol()`, and the class table of `argumentExpectations()` applied in list order
/// (each entry replaces its position's set; repeated classes collapse). No handler is set.
/// Throws std::invalid_argument for an expectation naming a position the protocol lacks.
template <Connection C>
std::shared_ptr<XPCConnection> makeConnection() {
  auto connection = XPCConnection::make(C::kind());
  XPCInterface interface(C::interfaceProtocol());
  for (const ArgumentExpectation& expectation : C::argumentExpectations()) {
    std::set<std::string> classes(expectation.expectedClasses.begin(),
                                  expectation.expectedClasses.end());
    interface.setClasses(std::move(classes), expectation.selector, expectation.argumentIndex,
                         expectation.ofReply);
  }
  connection->setRemoteObjectInterface(std::move(interface));
  connection->resume();
  return connection;
}

/// The connection's remote object proxy as `C::ProxyProtocol`. When the connection's remote
/// interface is of another protocol, logs "Couldn't create XPC proxy of type: " and the
/// protocol type's unqualified name (category "XPC", level error) and throws
/// std::system_error(kWrongProxyErrno).
template <Connection C>
XPCProxy<typename C::ProxyProtocol> proxyFromConnection(
    const std::shared_ptr<XPCConnection>& connection) {
  using P = typename C::ProxyProtocol;
  auto proxy = connection->remoteObjectProxy();
  if (proxy->protocol() != &P::description()) detail::throwWrongProxy(typeid(P));
  return XPCProxy<P>(proxy->connection());
}

/// Runs `body(proxy)` (an async function returning `Async<T>`) on a connection made for this
/// call alone, and returns its value.
///
/// The body runs in a task of its own. Its first value is returned; its error is thrown. If the
/// connection is interrupted or invalidated first (the service exits, refuses the client, or
/// does not exist), the body's task is cancelled and `CancellationError` is thrown; so it is
/// when the caller is cancelled. The connection is invalidated in every outcome. If no proxy
/// can be made, that error is thrown after the connection is invalidated.
template <Connection C, class Body>
Async<AsyncResultOf<Body, XPCProxy<typename C::ProxyProtocol>>> withProxy(Body body) {
  using T = AsyncResultOf<Body, XPCProxy<typename C::ProxyProtocol>>;
  using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;
  // The body's error travels as an element rather than as the stream's end, so that the stream
  // (which the connection's handlers may release on another thread) never holds the exception
  // the caller is handed: it ends the stream all the same, as the first element wins.
  using Element = Result<Value>;
  auto connection = makeConnection<C>();
  std::optional<XPCProxy<typename C::ProxyProtocol>> proxy;
  try {
    proxy.emplace(proxyFromConnection<C>(connection));
  } catch (...) {
    connection->invalidate();
    throw;
  }
  auto pair = AsyncThrowingStream<Element>::makeStream();
  auto continuation = pair.continuation;
  auto run = [body = std::move(body), proxy = *proxy, continuation]() -> Async<void> {
    std::optional<Element> outcome;
    try {
      if constexpr (std::is_void_v<T>) {
        auto work = body(proxy);
        co_await std::move(work);
        outcome.emplace(Element::success(std::monostate{}));
      } else {
        auto work = body(proxy);
        T value = co_await std::move(work);
        outcome.emplace(Element::success(std::move(value)));
      }
    } catch (...) {
      outcome.emplace(Element::failure(std::current_exception()));
    }
    continuation.yield(std::move(*outcome));
  };
  Task<void> task = Task<void>::start(std::move(run));
  auto endStream = [continuation] { continuation.finishThrowing(CancellationError()); };
  connection->setInterruptionHandler(endStream);
  connection->setInvalidationHandler(endStream);
  auto cancelBody = [task](StreamTermination) { task.cancel(); };
  continuation.setOnTermination(cancelBody);

  std::optional<Element> element;
  bool ended = false;
  auto iterator = pair.stream.makeAsyncIterator();
  try {
    element = co_await iterator.next();
  } catch (const CancellationError&) {
    ended = true;
  }
  connection->invalidate();
  if (ended || !element) throw CancellationError();
  if constexpr (std::is_void_v<T>) {
    element->get();
  } else {
    co_return std::move(*element).get();
  }
}

}  // namespace carrow
