#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>
#include <sys/epoll.h>
#include <system_error>
#include <unordered_map>
#include <utility>

#include <carrow/logging/log.h>
#include <carrow/runtime/actor.h>
#include <carrow/runtime/cancellation.h>
#include <carrow/runtime/continuation.h>
#include <carrow/runtime/detail/start_on.h>
#include <carrow/runtime/task.h>
#include <carrow/runtime/task_local.h>
#include <carrow/xpc/domain_error.h>
#include <carrow/xpc/xpc_connection.h>

#include "../platform/reactor.h"
#include "../platform/seqpacket.h"
#include "connection_core.h"
#include "connection_socket.h"

namespace carrow {

namespace xpc = detail::xpc;

namespace {

const TaskLocal<std::optional<PeerCredentials>>& peerLocal() {
  static const TaskLocal<std::optional<PeerCredentials>> local;
  return local;
}

std::exception_ptr posixError(int code, const std::string& what) {
  return std::make_exception_ptr(std::system_error(code, std::generic_category(), what));
}

constexpr std::uint32_t kReadEvents = EPOLLIN | EPOLLRDHUP;
// Bounds one connection's share of a reactor wake-up, so that a busy peer cannot starve the
// others: 64 messages.
constexpr int kBatchesPerWake = 64 / static_cast<int>(platform::ReceiveBatch::kSlots);

}  // namespace

XPCConnection::XPCConnection(std::unique_ptr<Core> core) : core_(std::move(core)) {}

XPCConnection::~XPCConnection() = default;

std::shared_ptr<XPCConnection> XPCConnection::make(XPCConnectionKind kind) {
  auto core = std::make_unique<Core>();
  core->kind = std::move(kind);
  return std::shared_ptr<XPCConnection>(new XPCConnection(std::move(core)));
}

std::shared_ptr<XPCConnection> XPCConnection::Core::makeAccepted(platform::FileDescriptor fd,
                                                                 PeerCredentials peer) {
  auto core = std::make_unique<Core>();
  core->accepted = true;
  core->peer = peer;
  Core& state = *core;
  auto connection = std::shared_ptr<XPCConnection>(new XPCConnection(std::move(core)));
  state.socket = std::make_shared<Socket>(std::move(fd), connection);
  state.generation = 1;
  return connection;
}

void XPCConnection::setRemoteObjectInterface(XPCInterface interface) {
  std::lock_guard guard(core_->mutex);
  core_->remote = std::make_shared<const XPCInterface>(std::move(interface));
}

void XPCConnection::setExportedInterface(XPCInterface interface) {
  std::lock_guard guard(core_->mutex);
  core_->exported = std::make_shared<const XPCInterface>(std::move(interface));
}

void XPCConnection::setExportedObject(std::shared_ptr<XPCExportedObject> object) {
  std::lock_guard guard(core_->mutex);
  if (core_->phase != Core::Phase::invalidated) core_->exportedObject = std::move(object);
}

void XPCConnection::setInterruptionHandler(std::function<void()> handler) {
  std::lock_guard guard(core_->mutex);
  if (core_->phase != Core::Phase::invalidated) core_->interruptionHandler = std::move(handler);
}

void XPCConnection::setInvalidationHandler(std::function<void()> handler) {
  std::lock_guard guard(core_->mutex);
  if (core_->phase != Core::Phase::invalidated) core_->invalidationHandler = std::move(handler);
}

void XPCConnection::resume() {
  std::lock_guard guard(core_->mutex);
  if (core_->phase != Core::Phase::created) return;
  core_->phase = Core::Phase::resumed;
  if (core_->accepted && core_->socket) {
    try {
      core_->socket->token =
          platform::Reactor::shared().add(core_->socket->fd(), core_->socket, kReadEvents);
    } catch (const std::exception& error) {
      CRLog::error("XPC", std::string("Couldn't watch an accepted connection: ") + error.what());
      core_->invalidateLocked(ECONNABORTED, "XPC connection invalidated");
    }
  }
}

void XPCConnection::invalidate() {
  std::lock_guard guard(core_->mutex);
  core_->invalidateLocked(ECONNABORTED, "XPC connection invalidated");
}

std::shared_ptr<XPCRemoteObjectProxy> XPCConnection::remoteObjectProxy() {
  const XPCProtocolDescription* protocol = nullptr;
  {
    std::lock_guard guard(core_->mutex);
    if (core_->remote) protocol = &core_->remote->protocol();
  }
  return std::make_shared<XPCRemoteObjectProxy>(shared_from_this(), protocol);
}

std::optional<XPCInterface> XPCConnection::remoteObjectInterface() const {
  std::lock_guard guard(core_->mutex);
  if (!core_->remote) return std::nullopt;
  return *core_->remote;
}

std::optional<PeerCredentials> XPCConnection::peerCredentials() const {
  std::lock_guard guard(core_->mutex);
  return core_->peer;
}

std::optional<PeerCredentials> XPCConnection::currentPeer() {
  return peerLocal().get();
}

Executor& XPCConnection::executor() noexcept {
  return core_->queue->executor();
}

// ---- Calls ----

Async<std::vector<XPCValue>> XPCConnection::sendCall(std::shared_ptr<XPCConnection> connection,
                                                     std::string selector,
                                                     std::vector<XPCValue> arguments) {
  auto call = std::make_shared<Core::CallState>();
  auto operation = [connection, call, selector = std::move(selector),
                    arguments = std::move(arguments)]() mutable -> Async<std::vector<XPCValue>> {
    auto start = [&](CheckedContinuation<std::vector<XPCValue>> continuation) {
      Core::startCall(connection, call, selector, arguments, std::move(continuation));
    };
    co_return co_await withCheckedThrowingContinuation<std::vector<XPCValue>>("XPC call", start);
  };
  auto onCancel = [connection, call]() noexcept { connection->core_->cancelCall(*call); };
  co_return co_await withTaskCancellationHandler(std::move(operation), std::move(onCancel));
}

void XPCConnection::Core::startCall(std::shared_ptr<XPCConnection> self,
                                    std::shared_ptr<CallState> call, std::string& selector,
                                    std::vector<XPCValue>& arguments,
                                    CheckedContinuation<std::vector<XPCValue>> continuation) {
  Core& core = *self->core_;
  const std::uint64_t id = core.nextCallID.fetch_add(1, std::memory_order_relaxed) + 1;
  std::vector<std::uint8_t> message;
  try {
    message = xpc::encodeCall(id, selector, std::move(arguments));
    if (message.size() > platform::kMaxSeqpacketMessage) {
      throw std::system_error(EMSGSIZE, std::generic_category(),
                              "a call of " + std::to_string(message.size())
                                  + " bytes is over the limit of "
                                  + std::to_string(platform::kMaxSeqpacketMessage) + " bytes");
    }
  } catch (...) {
    continuation.resumeThrowing(std::current_exception());
    return;
  }
  std::exception_ptr refused;
  std::shared_ptr<Socket> target;
  {
    std::lock_guard guard(core.mutex);
    if (call->cancelled) {
      refused = std::make_exception_ptr(CancellationError());
    } else if (core.phase == Phase::invalidated) {
      refused = posixError(ECONNABORTED, "XPC connection invalidated");
    } else if (core.phase == Phase::created) {
      refused = posixError(ENOTCONN, "XPC connection not resumed");
    } else {
      // Registered first: if connecting ends the connection, the call fails with the others,
      // after the handler has run.
      call->id = id;
      auto& entry =
          core.pending.emplace(id, Pending{std::move(selector), continuation, 0}).first->second;
      try {
        core.ensureConnectedLocked(*self);
        entry.generation = core.generation;
        target = core.socket;
      } catch (...) {
        refused = std::current_exception();
      }
    }
  }
  if (!refused) {
    try {
      // Written at once: the caller's thread has nothing else to do for this call, and a
      // job to write it would cost a hand-off (often a wake-up) on every round trip. A socket
      // closed meanwhile took the call with it: it has failed with the connection.
      if (!target->send(message)) return;
      if (call->sendState.exchange(CallState::sent) == CallState::cancelWanted) {
        target->send(xpc::encodeCancel(id));
      }
      return;
    } catch (const std::system_error& error) {
      // A peer that has just closed: the reading side learns why (a reject, or the end) and ends
      // the call with the connection.
      const int code = error.code().value();
      if (code == EPIPE || code == ECONNRESET) return;
      refused = std::current_exception();
    } catch (...) {
      refused = std::current_exception();
    }
  }
  std::optional<Pending> taken;
  bool registered = false;
  {
    std::lock_guard guard(core.mutex);
    registered = call->id == id;
    if (registered) taken = core.takePendingLocked(id);
  }
  // Failed before it was registered: this continuation is the only one. Once registered, the
  // entry holds the one claim on it, and a connection that ended took it already.
  if (!registered) {
    continuation.resumeThrowing(refused);
  } else if (taken) {
    taken->continuation.resumeThrowing(refused);
  }
}

std::optional<XPCConnection::Core::Pending> XPCConnection::Core::takePendingLocked(
    std::uint64_t id) {
  auto found = pending.find(id);
  if (found == pending.end()) return std::nullopt;
  std::optional<Pending> taken(std::move(found->second));
  pending.erase(found);
  return taken;
}

void XPCConnection::Core::cancelCall(CallState& call) noexcept {
  std::optional<Pending> taken;
  std::shared_ptr<Socket> target;
  {
    std::lock_guard guard(mutex);
    call.cancelled = true;
    if (call.id == 0) return;
    taken = takePendingLocked(call.id);
    if (!taken) return;
    if (taken->generation == generation) target = socket;
  }
  if (target) {
    auto expected = CallState::unsent;
    // Still being written: its sender writes the cancel after it.
    if (!call.sendState.compare_exchange_strong(expected, CallState::cancelWanted)) {
      try {
        target->send(xpc::encodeCancel(call.id));
      } catch (...) {
        // The peer is gone; its end of the call ends with the connection.
      }
    }
  }
  taken->continuation.resumeThrowing(CancellationError());
}

void XPCConnection::Core::ensureConnectedLocked(XPCConnection& self) {
  if (socket) return;
  platform::FileDescriptor fd;
  try {
    fd = platform::connectSeqpacket(kind.socketPath());
  } catch (const std::system_error& error) {
    // No such service at the first connection is final; after an interruption the service may
    // be restarting, so only this call fails.
    if (!everConnected) invalidateLocked(error.code().value(), "no service " + kind.name());
    throw;
  }
  const auto seen = platform::peerOf(fd.get());
  const PeerCredentials credentials{seen.pid, seen.uid, seen.gid};
  if (credentials.uid != kind.requiredPeerUID()) {
    const std::string what = "the service " + kind.name() + " runs as uid "
                             + std::to_string(credentials.uid) + ", not "
                             + std::to_string(kind.requiredPeerUID());
    CRLog::error("XPC", "Refused XPC connection: " + what);
    invalidateLocked(EPERM, what);
    throw std::system_error(EPERM, std::generic_category(), what);
  }
  auto watcher = std::make_shared<Socket>(std::move(fd), self.shared_from_this());
  watcher->token = platform::Reactor::shared().add(watcher->fd(), watcher, kReadEvents);
  socket = std::move(watcher);
  ++generation;
  everConnected = true;
  peer = credentials;
  if (remote) sendLocked(xpc::encodeHello(remote->protocol()));
}

void XPCConnection::Core::sendLocked(const std::vector<std::uint8_t>& message) {
  if (!socket || !socket->send(message)) {
    throw std::system_error(ENOTCONN, std::generic_category(), "not connected");
  }
}

// ---- Endings ----

void XPCConnection::Core::closeSocketLocked() {
  if (!socket) return;
  socket->close();
  platform::Reactor::shared().remove(socket->token, socket->fd());
  // Closing a Unix socket with unread messages makes the peer's next read fail with ECONNRESET
  // before it has read what was sent to it (a reject, the last replies): read them away first.
  // Not the reactor's batch: the reactor thread may be reading into it right now.
  std::vector<std::uint8_t> discarded;
  std::size_t length = 0;
  for (int count = 0; count < 1024; ++count) {
    try {
      if (platform::receiveMessage(socket->fd(), discarded, length)
          != platform::ReceiveOutcome::message) {
        break;
      }
    } catch (const std::system_error&) {
      // An oversized message is discarded all the same.
    }
  }
  socket->detach();
  socket.reset();
}

void XPCConnection::Core::endLocked(std::function<void()> handler, int code, std::string what,
                                    std::shared_ptr<XPCExportedObject> dropped) {
  // The handler runs first, then the pending calls fail: a caller that learns of the end from a
  // handler (as `withProxy` does) hears of it before the failed call.
  auto taken = std::make_shared<std::unordered_map<std::uint64_t, Pending>>(std::move(pending));
  pending.clear();
  queue->post([handler = std::move(handler), taken, code, what = std::move(what),
               dropped = std::move(dropped)]() mutable {
    if (handler) handler();
    handler = nullptr;
    // One exception per call: the callers run on several threads and each ends its own.
    for (auto& [id, call] : *taken) call.continuation.resumeThrowing(posixError(code, what));
    taken->clear();
    // The exported object and the handlers may refer back to the connection: they go here, on
    // the serial executor, never under the connection's lock.
    dropped.reset();
  });
}

void XPCConnection::Core::interruptLocked() {
  if (!socket || phase == Phase::invalidated) return;
  closeSocketLocked();
  endLocked(interruptionHandler, ECONNRESET, "XPC connection interrupted", nullptr);
  // An accepted connection cannot be made again: it ends here.
  if (accepted) invalidateLocked(ECONNABORTED, "XPC connection invalidated");
}

void XPCConnection::Core::invalidateLocked(int code, const std::string& what) {
  if (phase == Phase::invalidated) return;
  phase = Phase::invalidated;
  closeSocketLocked();
  auto handler = std::exchange(invalidationHandler, nullptr);
  interruptionHandler = nullptr;
  endLocked(std::move(handler), code, what, std::move(exportedObject));
  exportedObject = nullptr;
}

// ---- Received messages (reactor thread) ----

void XPCConnection::Core::handleEvents(XPCConnection& self, Socket& source, std::uint32_t events) {
  if (events & EPOLLOUT) {
    try {
      source.flush();
    } catch (...) {
      writeFailed(source);
      return;
    }
  }
  bool closed = false;
  if (events & (EPOLLIN | EPOLLHUP | EPOLLRDHUP | EPOLLERR)) {
    // The interfaces are kept alive by these copies while the messages of this wake-up are
    // checked; they are set before the connection resumes, so one look serves them all.
    std::shared_ptr<const XPCInterface> exportedCopy, remoteCopy;
    {
      std::lock_guard guard(mutex);
      if (socket.get() != &source) return;  // a late event for a socket already closed
      exportedCopy = exported;
      remoteCopy = remote;
    }
    xpc::FrameContext context;
    context.exported = exportedCopy.get();
    context.remote = remoteCopy.get();
    // Only the reactor thread reads, so one batch serves every connection of the process.
    thread_local platform::ReceiveBatch batch;
    for (int round = 0; round < kBatchesPerWake; ++round) {
      platform::ReceiveOutcome outcome;
      try {
        outcome = batch.receive(source.fd());
      } catch (const std::system_error& error) {
        protocolError(source, std::string("Unreadable XPC message: ") + error.what());
        return;
      }
      if (outcome == platform::ReceiveOutcome::wouldBlock) break;
      if (outcome == platform::ReceiveOutcome::closed) {
        closed = true;
        break;
      }
      for (std::size_t index = 0; index < batch.count(); ++index) {
        if (batch.oversized(index)) {
          protocolError(source, "Unreadable XPC message: a received message is over the limit of "
                                    + std::to_string(platform::kMaxSeqpacketMessage) + " bytes");
          return;
        }
        if (!handleMessage(self, source, batch.message(index), context)) return;
      }
      if (batch.peerClosed()) {
        closed = true;
        break;
      }
      // A short batch emptied the socket: the read that would only say so is left out. The
      // watch is level-triggered, so what arrives meanwhile wakes the reactor again.
      if (batch.count() < platform::ReceiveBatch::kSlots) break;
    }
  }
  if (closed) {
    std::lock_guard guard(mutex);
    if (socket.get() == &source) interruptLocked();
  }
}

void XPCConnection::Core::writeFailed(Socket& source) noexcept {
  std::lock_guard guard(mutex);
  if (socket.get() == &source) interruptLocked();
}

void XPCConnection::Core::protocolError(Socket& source, const std::string& problem,
                                        std::optional<std::pair<std::uint64_t, Pending>> taken) {
  CRLog::error("XPC", problem);
  std::optional<Pending> orphan;
  {
    std::lock_guard guard(mutex);
    if (socket.get() == &source) {
      if (taken) pending.emplace(taken->first, std::move(taken->second));
      invalidateLocked(EBADMSG, problem);
    } else if (taken) {
      orphan = std::move(taken->second);
    }
  }
  // A socket closed meanwhile has ended the other calls already.
  if (orphan) orphan->continuation.resumeThrowing(posixError(EBADMSG, problem));
}

bool XPCConnection::Core::handleMessage(XPCConnection& self, Socket& source,
                                        std::span<const std::uint8_t> bytes,
                                        xpc::FrameContext& context) {
  // A reply's pending call is taken off the books as the checking pass asks for its selector:
  // that one look under the lock is all a reply costs it.
  struct Lookup {
    Core& core;
    Socket& source;
    std::optional<Pending> taken;
    std::uint64_t takenID = 0;
    bool stale = false;
  } lookup{*this, source, std::nullopt};
  auto& taken = lookup.taken;
  // One pointer: small enough for std::function to hold without allocating.
  context.pendingSelector = [found = &lookup](std::uint64_t id) -> std::optional<std::string> {
    std::lock_guard guard(found->core.mutex);
    if (found->core.socket.get() != &found->source) {
      found->stale = true;
      return std::nullopt;
    }
    found->taken = found->core.takePendingLocked(id);
    if (!found->taken) return std::nullopt;
    found->takenID = id;
    return found->taken->selector;
  };
  const auto checked = xpc::checkFrame(bytes, context);
  context.pendingSelector = nullptr;
  if (lookup.stale) return false;
  auto giveBack = [&]() -> std::optional<std::pair<std::uint64_t, Pending>> {
    if (!taken) return std::nullopt;
    return std::make_pair(lookup.takenID, std::move(*taken));
  };
  if (checked.verdict == xpc::CheckResult::Verdict::malformed) {
    protocolError(source, "Malformed XPC message: " + checked.problem, giveBack());
    return false;
  }
  if (checked.verdict == xpc::CheckResult::Verdict::disallowed) {
    const auto& violation = *checked.violation;
    const std::string what = "Dropped XPC message for " + violation.selector + ": class "
                             + violation.className + " is not allowed for "
                             + (violation.ofReply ? "reply " : "") + "argument "
                             + std::to_string(violation.argumentIndex);
    CRLog::error("XPC", what);
    if (checked.kind == xpc::FrameKind::call && checked.id != 0) {
      std::shared_ptr<Socket> target;
      {
        std::lock_guard guard(mutex);
        if (socket.get() == &source) target = socket;
      }
      try {
        if (target) target->send(xpc::encodeError(checked.id, DomainError::kPOSIXDomain, EACCES));
      } catch (...) {
      }
    } else if (taken) {
      taken->continuation.resumeThrowing(posixError(EACCES, what));
    }
    return true;
  }
  xpc::Frame frame;
  try {
    frame = xpc::decodeFrame(bytes);
  } catch (const std::exception& error) {
    // The pass accepted it, so this is not expected; still, a reader's surprise ends this
    // connection only.
    protocolError(source, std::string("Malformed XPC message: ") + error.what(), giveBack());
    return false;
  }
  if (frame.kind == xpc::FrameKind::reply || frame.kind == xpc::FrameKind::error) {
    if (!taken) {
      std::lock_guard guard(mutex);
      if (socket.get() != &source) return false;
      taken = takePendingLocked(frame.id);
    }
    if (!taken) return true;  // cancelled meanwhile
    if (frame.kind == xpc::FrameKind::reply) {
      taken->continuation.resume(std::move(frame.values));
    } else {
      taken->continuation.resumeThrowing(
          DomainError::toException(DomainError(frame.text, frame.number)));
    }
    return true;
  }
  std::lock_guard guard(mutex);
  if (socket.get() != &source) return false;
  switch (frame.kind) {
    case xpc::FrameKind::hello:
      return greetLocked(frame);
    case xpc::FrameKind::reject: {
      if (accepted) return protocolErrorLocked("an XPC client sent a reject");
      const std::string what = "the service " + kind.name() + " does not export the protocol "
                               + (remote ? remote->protocol().name : std::string("(none)"));
      CRLog::error("XPC", "Refused XPC connection: " + what);
      invalidateLocked(EPROTONOSUPPORT, what);
      return false;
    }
    case xpc::FrameKind::call:
      if (accepted && !greeted) return protocolErrorLocked("an XPC call before the hello");
      startRequestLocked(self, frame);
      return true;
    case xpc::FrameKind::reply:
    case xpc::FrameKind::error:
      return true;  // handled above
    case xpc::FrameKind::cancel: {
      const std::uint64_t id = frame.id;
      auto weak = self.weak_from_this();
      queue->post([weak, id] {
        auto connection = weak.lock();
        if (!connection) return;
        std::optional<Task<void>> task;
        {
          std::lock_guard guard(connection->core_->mutex);
          auto found = connection->core_->serving.find(id);
          if (found != connection->core_->serving.end()) task = found->second;
        }
        if (task) task->cancel();
      });
      return true;
    }
  }
  return true;
}

bool XPCConnection::Core::protocolErrorLocked(const std::string& problem) {
  CRLog::error("XPC", problem);
  invalidateLocked(EBADMSG, problem);
  return false;
}

bool XPCConnection::Core::greetLocked(const xpc::Frame& hello) {
  if (!accepted || greeted) return protocolErrorLocked("an unexpected XPC hello");
  const bool matches = exported && hello.text == exported->protocol().name
                       && hello.digest == exported->protocol().digest;
  if (!matches) {
    CRLog::error("XPC", "Refused XPC client: it asks for the protocol " + hello.text
                            + ", which this connection does not export as such");
    try {
      sendLocked(xpc::encodeReject(exported ? xpc::RejectReason::interfaceMismatch
                                            : xpc::RejectReason::notExported));
    } catch (...) {
    }
    invalidateLocked(EPROTONOSUPPORT, "interface mismatch");
    return false;
  }
  greeted = true;
  return true;
}

// ---- Serving requests ----

void XPCConnection::Core::startRequestLocked(XPCConnection& self, xpc::Frame& frame) {
  auto connection = self.shared_from_this();
  const std::uint64_t id = frame.id;
  auto request = std::make_shared<Request>(
      Request{id, std::move(frame.text), std::move(frame.values), peer, socket});
  // Started right on the serial executor, from here: one queueing (one worker woken) per request
  // rather than a post, a start on the global executor and a hop back. The serial executor keeps
  // the requests, the handlers and the cancellations of this connection in arrival order.
  auto body = [connection, request] { return serveRequest(connection, request); };
  auto task = detail::startTaskOn<void>(queue->executor(), std::move(body));
  // Under the lock, so a cancellation (or the reply, which erases it) finds it registered.
  if (id != 0) serving.insert_or_assign(id, std::move(task));
}

Async<void> XPCConnection::Core::serveRequest(std::shared_ptr<XPCConnection> connection,
                                              std::shared_ptr<Request> request) {
  Core& core = *connection->core_;
  co_await hopTo(core.queue->executor());
  std::shared_ptr<XPCExportedObject> object;
  {
    std::lock_guard guard(core.mutex);
    object = core.exportedObject;
  }
  std::vector<XPCValue> reply;
  std::optional<DomainError> failure;
  if (!object) {
    failure = DomainError(std::string(DomainError::kPOSIXDomain), ENXIO);
  } else {
    try {
      auto invoke = [object, request]() {
        return object->invoke(request->selector, std::move(request->arguments));
      };
      auto work = peerLocal().withValue(request->peer, std::move(invoke));
      reply = co_await std::move(work);
    } catch (...) {
      failure = DomainError::reduce(std::current_exception());
    }
  }
  object.reset();
  if (request->id == 0) co_return;
  {
    std::lock_guard guard(core.mutex);
    core.serving.erase(request->id);
  }
  // The socket the call came on, if the connection still has it: a closed socket refuses the
  // reply, so nothing meant for it reaches a later one.
  auto target = request->socket.lock();
  if (!target) co_return;
  try {
    std::vector<std::uint8_t> message;
    if (failure) {
      message = xpc::encodeError(request->id, failure->domain(), failure->code());
    } else {
      message = xpc::encodeReply(request->id, std::move(reply));
      if (message.size() > platform::kMaxSeqpacketMessage) {
        CRLog::error("XPC", "The reply to " + request->selector + " is over the size limit");
        message = xpc::encodeError(request->id, DomainError::kPOSIXDomain, EMSGSIZE);
      }
    }
    // Written at once, by this worker: a job that gathered the replies of the requests queued
    // behind this one into one `sendmmsg` saved system calls but, by sending them in bursts,
    // made both readers sleep and wake more often, and lost throughput.
    target->send(message);
  } catch (const std::exception& error) {
    CRLog::error("XPC", std::string("Couldn't send an XPC reply: ") + error.what());
  }
}

}  // namespace carrow
