#pragma once

// The state of one XPC connection, shared by the connection's public operations, its reactor
// callbacks and the tasks serving its requests. The bookkeeping is guarded by `mutex`, which is
// held only for that: never while user code runs (handlers and exported methods run on `queue`),
// nor across a system call on the hot paths, an encoding or the resume of a caller. Writing to
// the socket has the socket's own lock (see connection_socket.h).

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <carrow/runtime/continuation.h>
#include <carrow/runtime/task.h>
#include <carrow/xpc/xpc_connection.h>

#include "../platform/seqpacket.h"
#include "frame.h"
#include "serial_queue.h"

namespace carrow {

struct XPCConnection::Core {
  enum class Phase : std::uint8_t { created, resumed, invalidated };

  class Socket;

  // One call of this side waiting for its reply.
  struct Pending {
    std::string selector;
    CheckedContinuation<std::vector<XPCValue>> continuation;
    std::uint64_t generation;
  };

  // Shared by a call and its cancellation handler.
  struct CallState {
    enum SendState : std::uint8_t { unsent, sent, cancelWanted };
    std::uint64_t id = 0;    // guarded by `mutex`
    bool cancelled = false;  // guarded by `mutex`
    // The call is written outside the lock, so a cancellation that comes first leaves its cancel
    // message to the sender, which writes it after the call: the service never sees them
    // reversed.
    std::atomic<SendState> sendState{unsent};
  };

  // One call of the peer being served.
  struct Request {
    std::uint64_t id;
    std::string selector;
    std::vector<XPCValue> arguments;
    std::optional<PeerCredentials> peer;
    // The socket the call came on: its reply goes there or nowhere.
    std::weak_ptr<Socket> socket;
  };

  static std::shared_ptr<XPCConnection> makeAccepted(platform::FileDescriptor fd,
                                                     PeerCredentials peer);

  // Both keep `self` and `call` alive themselves: the caller's frame, which holds them too, may
  // go as soon as the continuation is resumed on another thread.
  static void startCall(std::shared_ptr<XPCConnection> self, std::shared_ptr<CallState> call,
                        std::string& selector, std::vector<XPCValue>& arguments,
                        CheckedContinuation<std::vector<XPCValue>> continuation);
  void cancelCall(CallState& call) noexcept;

  void ensureConnectedLocked(XPCConnection& self);
  // Writes on the current socket, under the lock: only for the rare messages whose order
  // against the connection's state matters (the hello, a reject).
  void sendLocked(const std::vector<std::uint8_t>& message);
  // Takes the pending call `id` off the books; std::nullopt when it ended meanwhile.
  std::optional<Pending> takePendingLocked(std::uint64_t id);
  void closeSocketLocked();
  // Queues `handler`, then the failure of every pending call (a std::system_error of `code`
  // each), then the release of `dropped`, on the serial executor.
  void endLocked(std::function<void()> handler, int code, std::string what,
                 std::shared_ptr<XPCExportedObject> dropped);
  void interruptLocked();
  // Ends the connection for good; pending calls fail with std::system_error(code, what).
  void invalidateLocked(int code, const std::string& what);

  void handleEvents(XPCConnection& self, Socket& source, std::uint32_t events);
  // A write to `source` failed: the connection is interrupted, as when the peer closes.
  void writeFailed(Socket& source) noexcept;
  // False when the connection ended and reading must stop.
  bool handleMessage(XPCConnection& self, Socket& source, std::span<const std::uint8_t> bytes,
                     detail::xpc::FrameContext& context);
  // Puts `taken` (a pending call whose reply turned out malformed) back first, so that it ends
  // with the others, after the handler.
  void protocolError(Socket& source, const std::string& problem,
                     std::optional<std::pair<std::uint64_t, Pending>> taken = std::nullopt);
  bool protocolErrorLocked(const std::string& problem);
  bool greetLocked(const detail::xpc::Frame& hello);
  void startRequestLocked(XPCConnection& self, detail::xpc::Frame& frame);
  static Async<void> serveRequest(std::shared_ptr<XPCConnection> connection,
                                  std::shared_ptr<Request> request);

  std::mutex mutex;
  Phase phase = Phase::created;
  bool accepted = false;
  bool greeted = false;
  bool everConnected = false;
  XPCConnectionKind kind = XPCConnectionKind::userService("unnamed", "/");
  std::shared_ptr<const XPCInterface> remote;
  std::shared_ptr<const XPCInterface> exported;
  std::shared_ptr<XPCExportedObject> exportedObject;
  std::function<void()> interruptionHandler;
  std::function<void()> invalidationHandler;
  std::shared_ptr<Socket> socket;
  // Counts the sockets this connection has had, so that nothing meant for one reaches the next.
  std::uint64_t generation = 0;
  std::optional<PeerCredentials> peer;
  std::atomic<std::uint64_t> nextCallID{0};
  std::unordered_map<std::uint64_t, Pending> pending;
  std::unordered_map<std::uint64_t, Task<void>> serving;
  std::shared_ptr<detail::xpc::SerialQueue> queue = std::make_shared<detail::xpc::SerialQueue>();
};

}  // namespace carrow
