#pragma once

#include <functional>
#include <memory>
#include <string>

#include <carrow/xpc/xpc_connection.h>

namespace carrow {

/// The service side of a named service: listens on `<directory>/<name>.sock` and hands each
/// accepted connection to the new-connection handler.
///
/// The handler runs on the listener's serial executor (never on the thread that reads sockets)
/// with a connection whose peer credentials are already known. To accept, it configures the
/// connection (exported interface and object, handlers; `configure` does all of it) and resumes
/// it, then returns true; returning false invalidates the connection.
///
/// Thread-safe; `invalidate()` stops listening and removes a socket file the listener made.
class XPCListener : public std::enable_shared_from_this<XPCListener> {
 public:
  /// Listens on `serviceSocketPath(name, directory)` now, replacing a socket file left by a dead
  /// service (a live one makes it throw EADDRINUSE). The folder must exist. Throws
  /// std::system_error.
  static std::shared_ptr<XPCListener> make(
      const std::string& name, const std::string& directory = defaultServiceDirectory());

  /// The listening socket a socket-activating service manager passed (LISTEN_FDS, LISTEN_PID;
  /// a `.socket` unit with `ListenSequentialPacket=`). Throws std::system_error (ENOENT) when
  /// there is none.
  static std::shared_ptr<XPCListener> fromSocketActivation();

  ~XPCListener();
  XPCListener(const XPCListener&) = delete;
  XPCListener& operator=(const XPCListener&) = delete;

  /// Set before `resume()`.
  void setNewConnectionHandler(std::function<bool(std::shared_ptr<XPCConnection>)> handler);
  /// Starts accepting; calling it again does nothing.
  void resume();
  /// Stops accepting for good. Connections already accepted live on.
  void invalidate();

  /// The socket file ("" for an activated socket whose path is unknown).
  const std::string& path() const noexcept;

  struct Core;

 private:
  explicit XPCListener(std::unique_ptr<Core> core);
  std::unique_ptr<Core> core_;
};

}  // namespace carrow
