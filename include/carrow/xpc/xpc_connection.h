#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include <carrow/runtime/async.h>
#include <carrow/runtime/executor.h>
#include <carrow/xpc/xpc_class.h>
#include <carrow/xpc/xpc_connection_kind.h>
#include <carrow/xpc/xpc_exported_object.h>
#include <carrow/xpc/xpc_interface.h>

namespace carrow {

/// Who is at the other end of a connection, as the kernel recorded it when the connection was
/// made (SO_PEERCRED). Authorise by `uid`; the `pid` may be reused once that process has ended.
struct PeerCredentials {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  friend bool operator==(const PeerCredentials&, const PeerCredentials&) = default;
};

class XPCRemoteObjectProxy;

/// A connection between a client and a named service over a Unix sequenced-packet socket.
///
/// **Client side** (`make(kind)`): configure it (remote interface, handlers), then `resume()`.
/// Nothing connects until the first call; the peer's uid is checked then (see
/// `XPCConnectionKind`), and the client introduces its protocol, which the service compares
/// with what it exports.
///
/// **Service side**: `XPCListener` hands each accepted connection to its handler, which sets the
/// exported interface and object (for example with `configure`) and resumes it.
///
/// **Interruption**: the peer closed or reset an established connection. Every pending call
/// resumes exactly once with `std::system_error(ECONNRESET)`, then the interruption handler runs.
/// A client's next call connects again. An accepted connection cannot reconnect: it is
/// invalidated right after its interruption.
///
/// **Invalidation** is final: `invalidate()`, no such service at the first connection, a service
/// that runs as the wrong user (EPERM), a service that does not export the client's protocol
/// (EPROTONOSUPPORT), or a malformed message. Pending calls fail with ECONNABORTED (or the reason
/// above), the invalidation handler runs once, and no interruption follows. The connection then
/// drops its exported object and its handlers, so cycles through them cannot leak.
///
/// A message whose argument class the allow-list refuses is dropped with an error record
/// (category "XPC"), and its caller receives EACCES; the connection stays up.
///
/// **Threads**: every operation may be called from any thread, including from the connection's
/// own handlers. Handlers, exported methods and the new-connection handler of a listener run on
/// the connection's serial executor (one at a time, in order), never on the thread that reads the
/// socket. A resumed connection stays alive while it is connected or has work queued: call
/// `invalidate()` when done with it.
class XPCConnection : public std::enable_shared_from_this<XPCConnection> {
 public:
  /// A client connection to the service `kind` describes.
  static std::shared_ptr<XPCConnection> make(XPCConnectionKind kind);

  ~XPCConnection();
  XPCConnection(const XPCConnection&) = delete;
  XPCConnection& operator=(const XPCConnection&) = delete;

  /// The interface of the remote object: what calls may be made and which reply classes are
  /// accepted. Set before `resume()`.
  void setRemoteObjectInterface(XPCInterface interface);
  /// The interface of the object this side exports: which calls and argument classes are
  /// accepted. Set before `resume()`.
  void setExportedInterface(XPCInterface interface);
  /// The object that serves calls. Set before `resume()`.
  void setExportedObject(std::shared_ptr<XPCExportedObject> object);
  /// Runs on the serial executor after each interruption. May be set at any time.
  void setInterruptionHandler(std::function<void()> handler);
  /// Runs on the serial executor once, after invalidation. May be set at any time.
  void setInvalidationHandler(std::function<void()> handler);

  /// Starts the connection; calling it again does nothing.
  void resume();
  /// Ends the connection for good (see the type's notes). Never blocks and never runs a handler
  /// inline, so it may be called from a handler or an exported method.
  void invalidate();

  /// The remote object interface set, if any (a copy).
  std::optional<XPCInterface> remoteObjectInterface() const;

  /// A proxy for calls to the remote object (see `proxyFromConnection` for a typed one).
  std::shared_ptr<XPCRemoteObjectProxy> remoteObjectProxy();

  /// The peer of the current (or last) established connection.
  std::optional<PeerCredentials> peerCredentials() const;
  /// Inside an exported method: the peer that made the call; std::nullopt elsewhere.
  static std::optional<PeerCredentials> currentPeer();

  /// The executor that runs this connection's handlers and exported methods.
  Executor& executor() noexcept;

  /// The untyped call behind proxies: sends `arguments` to `selector` and waits for the reply
  /// values. Cancelling the awaiting task ends the call at once with `CancellationError` and
  /// asks the service to cancel the task serving it. Errors the service threw arrive reduced to
  /// their domain and code (see `DomainError::toException`).
  static Async<std::vector<XPCValue>> sendCall(std::shared_ptr<XPCConnection> connection,
                                               std::string selector,
                                               std::vector<XPCValue> arguments);

  struct Core;

 private:
  friend class XPCListener;
  friend struct Core;
  explicit XPCConnection(std::unique_ptr<Core> core);
  std::unique_ptr<Core> core_;
};

/// The untyped proxy of a connection's remote object: the connection and the protocol of its
/// remote interface (null when none was set). `XPCProxy<P>` is the typed view.
class XPCRemoteObjectProxy {
 public:
  XPCRemoteObjectProxy(std::shared_ptr<XPCConnection> connection,
                       const XPCProtocolDescription* protocol) noexcept
      : connection_(std::move(connection)), protocol_(protocol) {}
  const std::shared_ptr<XPCConnection>& connection() const noexcept { return connection_; }
  const XPCProtocolDescription* protocol() const noexcept { return protocol_; }

 private:
  std::shared_ptr<XPCConnection> connection_;
  const XPCProtocolDescription* protocol_;
};

}  // namespace carrow
