#include <cstdlib>
#include <stdexcept>
#include <unistd.h>
#include <utility>

#include <carrow/xpc/xpc_connection_kind.h>

namespace carrow {

std::string defaultServiceDirectory() {
  const char* configured = std::getenv("CARROW_XPC_SERVICE_DIR");
  if (configured != nullptr && *configured != '\0') return configured;
  return "/run/carrow";
}

std::string serviceSocketPath(const std::string& name, const std::string& directory) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos
      || name.find('\0') != std::string::npos) {
    throw std::invalid_argument("'" + name + "' is not a service name");
  }
  return directory + "/" + name + ".sock";
}

XPCConnectionKind::XPCConnectionKind(std::string name, std::string directory, bool privileged)
    : name_(std::move(name)), directory_(std::move(directory)), privileged_(privileged) {
  serviceSocketPath(name_, directory_);  // refuses a bad name at once
}

XPCConnectionKind XPCConnectionKind::privilegedMachService(std::string named) {
  return XPCConnectionKind(std::move(named), defaultServiceDirectory(), true);
}

XPCConnectionKind XPCConnectionKind::privilegedMachService(std::string named,
                                                           std::string directory) {
  return XPCConnectionKind(std::move(named), std::move(directory), true);
}

XPCConnectionKind XPCConnectionKind::userService(std::string named, std::string directory) {
  return XPCConnectionKind(std::move(named), std::move(directory), false);
}

std::string XPCConnectionKind::socketPath() const {
  return serviceSocketPath(name_, directory_);
}

uid_t XPCConnectionKind::requiredPeerUID() const noexcept {
  return privileged_ ? 0 : ::geteuid();
}

}  // namespace carrow
