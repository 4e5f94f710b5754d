#include <cerrno>
#include <mutex>
#include <sys/epoll.h>
#include <system_error>
#include <unistd.h>

#include <carrow/logging/log.h>
#include <carrow/xpc/xpc_listener.h>

#include "../platform/reactor.h"
#include "../platform/seqpacket.h"
#include "connection_core.h"
#include "serial_queue.h"

namespace carrow {

struct XPCListener::Core {
  class Socket;

  void acceptPending(Socket& source);

  std::mutex mutex;
  std::string path;
  bool ownsPath = false;
  bool resumed = false;
  bool invalidated = false;
  platform::FileDescriptor pendingFD;  // until resume()
  std::shared_ptr<Socket> socket;
  std::function<bool(std::shared_ptr<XPCConnection>)> handler;
  std::shared_ptr<detail::xpc::SerialQueue> queue = std::make_shared<detail::xpc::SerialQueue>();
};

class XPCListener::Core::Socket final : public platform::ReactorWatcher {
 public:
  Socket(platform::FileDescriptor fd, std::shared_ptr<XPCListener> owner)
      : fd_(std::move(fd)), owner_(std::move(owner)) {}
  int fd() const noexcept { return fd_.get(); }
  std::uint64_t token = 0;

  void onEvents(std::uint32_t) noexcept override {
    std::shared_ptr<XPCListener> owner;
    {
      std::lock_guard guard(mutex_);
      owner = owner_;
    }
    if (owner) owner->core_->acceptPending(*this);
  }
  void detach() noexcept {
    std::shared_ptr<XPCListener> dropped;
    std::lock_guard guard(mutex_);
    dropped = std::move(owner_);
  }

 private:
  platform::FileDescriptor fd_;
  std::mutex mutex_;
  std::shared_ptr<XPCListener> owner_;
};

void XPCListener::Core::acceptPending(Socket& source) {
  for (int count = 0; count < 64; ++count) {
    platform::FileDescriptor fd;
    try {
      fd = platform::acceptSeqpacket(source.fd());
    } catch (const std::exception& error) {
      CRLog::error("XPC", std::string("Couldn't accept an XPC connection: ") + error.what());
      return;
    }
    if (!fd) return;
    std::shared_ptr<XPCConnection> connection;
    try {
      const auto seen = platform::peerOf(fd.get());
      connection = XPCConnection::Core::makeAccepted(std::move(fd),
                                                     PeerCredentials{seen.pid, seen.uid, seen.gid});
    } catch (const std::exception& error) {
      CRLog::error("XPC", std::string("Couldn't accept an XPC connection: ") + error.what());
      continue;
    }
    std::function<bool(std::shared_ptr<XPCConnection>)> accept;
    {
      std::lock_guard guard(mutex);
      if (invalidated) return;
      accept = handler;
    }
    queue->post([accept = std::move(accept), connection] {
      bool accepted = false;
      try {
        accepted = accept && accept(connection);
      } catch (const std::exception& error) {
        CRLog::error("XPC", std::string("The new-connection handler threw: ") + error.what());
      }
      if (!accepted) connection->invalidate();
    });
  }
}

XPCListener::XPCListener(std::unique_ptr<Core> core) : core_(std::move(core)) {}

XPCListener::~XPCListener() = default;

std::shared_ptr<XPCListener> XPCListener::make(const std::string& name,
                                               const std::string& directory) {
  auto core = std::make_unique<Core>();
  core->path = serviceSocketPath(name, directory);
  core->pendingFD = platform::listenSeqpacket(core->path);
  core->ownsPath = true;
  return std::shared_ptr<XPCListener>(new XPCListener(std::move(core)));
}

std::shared_ptr<XPCListener> XPCListener::fromSocketActivation() {
  auto listeners = platform::activationListeners();
  if (listeners.empty()) {
    throw std::system_error(ENOENT, std::generic_category(),
                            "no sequenced-packet socket was passed by the service manager");
  }
  // One service, one socket: any further ones are closed rather than leaked.
  for (std::size_t index = 1; index < listeners.size(); ++index) ::close(listeners[index]);
  auto core = std::make_unique<Core>();
  core->pendingFD = platform::FileDescriptor(listeners.front());
  return std::shared_ptr<XPCListener>(new XPCListener(std::move(core)));
}

void XPCListener::setNewConnectionHandler(
    std::function<bool(std::shared_ptr<XPCConnection>)> handler) {
  std::lock_guard guard(core_->mutex);
  core_->handler = std::move(handler);
}

void XPCListener::resume() {
  std::lock_guard guard(core_->mutex);
  if (core_->resumed || core_->invalidated) return;
  core_->resumed = true;
  auto socket = std::make_shared<Core::Socket>(std::move(core_->pendingFD), shared_from_this());
  socket->token = platform::Reactor::shared().add(socket->fd(), socket, EPOLLIN);
  core_->socket = std::move(socket);
}

void XPCListener::invalidate() {
  std::lock_guard guard(core_->mutex);
  if (core_->invalidated) return;
  core_->invalidated = true;
  if (core_->socket) {
    platform::Reactor::shared().remove(core_->socket->token, core_->socket->fd());
    core_->socket->detach();
    core_->socket.reset();
  }
  core_->pendingFD = platform::FileDescriptor();
  if (core_->ownsPath) ::unlink(core_->path.c_str());
}

const std::string& XPCListener::path() const noexcept {
  return core_->path;
}

}  // namespace carrow
