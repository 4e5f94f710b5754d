#pragma once

// The socket of one established XPC connection, as the reactor and the senders see it.
//
// Sending has its own small lock, apart from the connection's: a caller, a worker that finished
// a request and the reactor's flush each write whole messages straight to the socket and never
// wait for the connection's bookkeeping, nor make it wait for a system call.

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include <carrow/concurrency/unfair_lock.h>

#include "../platform/reactor.h"
#include "../platform/seqpacket.h"
#include "connection_core.h"

namespace carrow {

class XPCConnection::Core::Socket final : public platform::ReactorWatcher {
 public:
  Socket(platform::FileDescriptor fd, std::shared_ptr<XPCConnection> owner)
      : fd_(std::move(fd)), owner_(std::move(owner)) {}

  int fd() const noexcept { return fd_.get(); }

  /// The reactor registration; set once, before any message can be sent or received.
  std::uint64_t token = 0;

  void onEvents(std::uint32_t events) noexcept override;

  /// Breaks the cycle between the connection and its registered socket.
  void detach() noexcept;

  /// Writes `message` now when the socket has room and nothing queued is waiting before it;
  /// otherwise queues it behind the others. Messages go out in the order their senders took the
  /// send lock. False when the socket was closed: nothing meant for it may reach a later socket
  /// of the connection. Throws std::system_error when the peer is gone (EPIPE, ECONNRESET) or
  /// for an oversized message. Any thread.
  bool send(std::span<const std::uint8_t> message);

  /// Writes what is queued (reactor thread, on EPOLLOUT) and stops watching for room once the
  /// queue is empty. Throws std::system_error when the peer is gone.
  void flush();

  /// Refuses every later `send` and drops what is queued. Called under the connection's lock,
  /// before the reactor registration ends.
  void close() noexcept;

 private:
  // Writes from the front of `queued_` until it is empty or the socket is full.
  void writeQueuedLocked();

  platform::FileDescriptor fd_;
  std::mutex ownerMutex_;
  std::shared_ptr<XPCConnection> owner_;

  // Guards what follows; held across the writes, so that messages keep their order.
  CRUnfairLock sendLock_;
  bool closed_ = false;
  // Not empty only while the reactor watches for room to write it.
  std::deque<std::vector<std::uint8_t>> queued_;
  bool watchingForRoom_ = false;
};

}  // namespace carrow
