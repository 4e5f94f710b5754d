#include "connection_socket.h"

#include <cerrno>
#include <string>
#include <sys/epoll.h>
#include <system_error>

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

void XPCConnection::Core::Socket::writeQueuedLocked() {
  while (!queued_.empty()) {
    if (platform::sendMessage(fd_.get(), queued_.front()) != platform::SendOutcome::sent) return;
    queued_.pop_front();
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
  std::deque<std::vector<std::uint8_t>> dropped;
  std::lock_guard guard(sendLock_);
  closed_ = true;
  dropped.swap(queued_);
}

}  // namespace carrow
