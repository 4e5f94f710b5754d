#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

namespace carrow {

/// The folder of service sockets when none is given: the environment variable
/// `CARROW_XPC_SERVICE_DIR` when it is set and not empty (for tests and demos), otherwise the
/// root-owned runtime folder "/run/carrow". Read on every call.
std::string defaultServiceDirectory();

/// Where a service is reached. A service named N listens on the socket file `<directory>/N.sock`.
///
/// - `privilegedMachService(named)`: a service that runs as root. When a connection is made, the
///   kernel's record of the peer (SO_PEERCRED, taken once) must show uid 0; otherwise the
///   connection is invalidated and the call fails with EPERM. The folder may be moved (a
///   constructor argument, or `CARROW_XPC_SERVICE_DIR`); the uid check stays.
/// - `userService(named, directory)`: a service that runs as the same user as the caller (the
///   peer's uid must equal this process's effective uid).
///
/// Names are plain file names: no "/", not empty, not "." or "..". A regular value type.
class XPCConnectionKind {
 public:
  static XPCConnectionKind privilegedMachService(std::string named);
  static XPCConnectionKind privilegedMachService(std::string named, std::string directory);
  static XPCConnectionKind userService(std::string named, std::string directory);

  const std::string& name() const noexcept { return name_; }
  const std::string& directory() const noexcept { return directory_; }
  bool isPrivileged() const noexcept { return privileged_; }
  /// `<directory>/<name>.sock`.
  std::string socketPath() const;
  /// The uid the service must run as.
  uid_t requiredPeerUID() const noexcept;

  friend bool operator==(const XPCConnectionKind&, const XPCConnectionKind&) = default;

 private:
  XPCConnectionKind(std::string name, std::string directory, bool privileged);

  std::string name_;
  std::string directory_;
  bool privileged_;
};

/// `<directory>/<name>.sock`; throws std::invalid_argument for a name that is not a plain file
/// name.
std::string serviceSocketPath(const std::string& name, const std::string& directory);

}  // namespace carrow
