#pragma once

// The transport under the XPC connections: Unix sequenced-packet sockets, one whole message per
// send, bound to socket files (never abstract names, which anyone could claim first).

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

namespace carrow::platform {

/// The largest message that goes through; a larger one is refused before anything is sent.
inline constexpr std::size_t kMaxSeqpacketMessage = std::size_t{1} << 20;

/// The peer of a connected socket, as the kernel recorded it when the connection was made.
struct SocketPeer {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
};

/// Owns one descriptor and closes it once.
class FileDescriptor {
 public:
  FileDescriptor() noexcept = default;
  explicit FileDescriptor(int fd) noexcept : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor();

  int get() const noexcept { return fd_; }
  int release() noexcept;
  explicit operator bool() const noexcept { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

/// Binds and listens on `path`. A socket file left by a dead process (nothing accepts on it) is
/// replaced; a live one is left alone and EADDRINUSE is thrown. Throws std::system_error.
FileDescriptor listenSeqpacket(const std::string& path);

/// Connects to the socket file `path` (non-blocking, close-on-exec, buffers raised). Throws
/// std::system_error with the errno of the failure (ENOENT, ECONNREFUSED, ...).
FileDescriptor connectSeqpacket(const std::string& path);

/// Accepts one pending connection (non-blocking, close-on-exec, buffers raised); an invalid
/// descriptor when none is pending. Throws std::system_error on other failures.
FileDescriptor acceptSeqpacket(int listener);

/// Raises the send and receive buffers so that a message of `kMaxSeqpacketMessage` bytes fits.
void raiseBuffers(int fd);

/// SO_PEERCRED of a connected socket.
SocketPeer peerOf(int fd);

enum class SendOutcome { sent, wouldBlock };

/// Sends one whole message without blocking and without SIGPIPE. EMSGSIZE (before sending) for
/// a message over the limit; other failures (EPIPE, ECONNRESET) as std::system_error.
SendOutcome sendMessage(int fd, std::span<const std::uint8_t> message);

enum class ReceiveOutcome { message, wouldBlock, closed };

/// Receives one whole message without blocking into the first `length` bytes of `buffer`, which
/// is sized to the limit once and keeps that size (so that no message pays for clearing it). A
/// message larger than the limit is reported as EMSGSIZE (the kernel's MSG_TRUNC); ECONNRESET
/// counts as closed.
ReceiveOutcome receiveMessage(int fd, std::vector<std::uint8_t>& buffer, std::size_t& length);

/// Several whole messages taken with one system call (`recvmmsg`), for the thread that reads
/// every connection of the process: a wake-up then costs one read for all the messages waiting.
/// Every slot holds a message of the limit, so nothing is ever cut short; the slots are reserved
/// address space of which only the pages that messages reach become memory. Not thread-safe: one
/// batch per reading thread. The messages stay valid until the next `receive`.
class ReceiveBatch {
 public:
  static constexpr std::size_t kSlots = 16;

  ReceiveBatch();
  ~ReceiveBatch();
  ReceiveBatch(const ReceiveBatch&) = delete;
  ReceiveBatch& operator=(const ReceiveBatch&) = delete;

  /// Takes up to `kSlots` waiting messages without blocking: `message` when at least one came
  /// (`count()` of them, in order), `wouldBlock` when none waited, `closed` when the peer is gone
  /// (or reset the connection) and nothing came before. Throws std::system_error otherwise.
  ReceiveOutcome receive(int fd);

  std::size_t count() const noexcept { return count_; }
  /// The `index`th message. One marked `oversized` was larger than the limit: the kernel cut it
  /// (MSG_TRUNC) and only its start is here.
  std::span<const std::uint8_t> message(std::size_t index) const noexcept;
  bool oversized(std::size_t index) const noexcept { return oversized_[index]; }
  /// True when the peer's end came right after the messages of this batch.
  bool peerClosed() const noexcept { return peerClosed_; }

 private:
  std::uint8_t* slots_ = nullptr;
  std::size_t count_ = 0;
  std::size_t lengths_[kSlots] = {};
  bool oversized_[kSlots] = {};
  bool peerClosed_ = false;
};

/// The sequenced-packet listening sockets passed by a socket-activating service manager
/// (LISTEN_PID is this process, LISTEN_FDS counts them from descriptor 3). Each is made
/// close-on-exec, and the variables are removed so that children do not take them too.
std::vector<int> activationListeners();

}  // namespace carrow::platform
