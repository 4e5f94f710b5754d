#include "connection_socket.h"

#include <cerrno>
#include <string>
#include <sys/epoll.h>
#include <system_error>

#include <carrow/logging/log.h>

namespace carrow {

namespace {

constexpr std::uint32_t kReadEvents = EPOLLIN | EPOLLRDHUP;

}  // namespace

void XPCConnection::Core::Socket::onEvents(std::uint32_t events) noexcept {
  std::shared_ptr<XPCConnection> owner;
  {
    std::lock_guard guard(ownerMutex_);
    owner = owner_;
  }
  if (owner) owner->core_->handleEvents(*owner, *this, events);
}

void XPCConnection::Core::Socket::detach() noexcept {
  std::shared_ptr<XPCConnection> dropped;
  std::lock_guard guard(ownerMutex_);
  dropped = std::move(owner_);
}

bool XPCConnection::Core::Socket::send(std::span<const std::uint8_t> message) {
  std::lock_guard guard(sendLock_);
  if (closed_) return false;
  if (queued_.empty()) {
    if (platform::sendMessage(fd_.get(), message) == platform::SendOutcome::sent) return true;
    platform::Reactor::shared().modify(token, fd_.get(), kReadEvents | EPOLLOUT);
    watchingForRoom_ = true;
  } else if (message.size() > platform::kMaxSeqpacketMessage) {
    throw std::system_error(
        EMSGSIZE, std::generic_category(),
        "a message of " + std::to_string(message.size()) + " bytes is over the limit");
  }
  queued_.emplace_back(message.begin(), message.end());
  return true;
}

bool XPCConnection::Core::Socket::sendSoon(std::vector<std::uint8_t> message, Executor& executor) {
  {
    std::lock_guard guard(sendLock_);
    if (closed_) return false;
    queued_.push_back(std::move(message));
    if (jobQueued_ || watchingForRoom_) return true;
    jobQueued_ = true;
    keepAlive_ = shared_from_this();
  }
  executor.enqueue(*this);
  return true;
}

void XPCConnection::Core::Socket::run() noexcept {
  std::shared_ptr<Socket> self;
  std::string failure;
  {
    std::lock_guard guard(sendLock_);
    jobQueued_ = false;
    self = std::move(keepAlive_);
    if (closed_ || watchingForRoom_) return;
    try {
      writeQueuedLocked();
    } catch (const std::exception& error) {
      // The peer is gone: the reading side ends the connection.
      queued_.clear();
      failure = error.what();
    }
  }
  if (!failure.empty()) {
    CRLog::error("XPC", "Couldn't send an XPC message: " + failure);
    std::shared_ptr<XPCConnection> owner;
    {
      std::lock_guard guard(ownerMutex_);
      owner = owner_;
    }
    if (owner) owner->core_->writeFailed(*this);
  }
  // `self` may be the last reference: nothing of this object is touched after it goes.
}

void XPCConnection::Core::Socket::writeQueuedLocked() {
  const std::size_t sent = platform::sendMessages(fd_.get(), queued_);
  queued_.erase(queued_.begin(), queued_.begin() + static_cast<std::ptrdiff_t>(sent));
  if (!queued_.empty() && !watchingForRoom_) {
    platform::Reactor::shared().modify(token, fd_.get(), kReadEvents | EPOLLOUT);
    watchingForRoom_ = true;
  }
}

void XPCConnection::Core::Socket::flush() {
  std::lock_guard guard(sendLock_);
  if (closed_) return;
  writeQueuedLocked();
  if (queued_.empty() && watchingForRoom_) {
    platform::Reactor::shared().modify(token, fd_.get(), kReadEvents);
    watchingForRoom_ = false;
  }
}

void XPCConnection::Core::Socket::close() noexcept {
  std::vector<std::vector<std::uint8_t>> dropped;
  std::lock_guard guard(sendLock_);
  closed_ = true;
  dropped.swap(queued_);
}

}  // namespace carrow
