#include "seqpacket.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace carrow::platform {

namespace {

[[noreturn]] void throwErrno(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  // A path that does not fit would be cut, binding a different name: refuse it instead. An
  // empty path or one starting with NUL would be an abstract name.
  if (path.empty() || path.size() >= sizeof(address.sun_path) || path.front() == '\0') {
    throwErrno(ENAMETOOLONG, "socket path '" + path + "' is empty or too long");
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

FileDescriptor newSocket() {
  FileDescriptor fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) throwErrno(errno, "socket");
  return fd;
}

// True when something accepts connections on `path` right now.
bool isLive(const sockaddr_un& address) {
  FileDescriptor probe(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!probe) return false;
  if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return true;
  }
  return errno == EAGAIN;  // a full backlog: somebody listens
}

}  // namespace

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this != &other) {
    FileDescriptor old(std::exchange(fd_, other.release()));
  }
  return *this;
}

FileDescriptor::~FileDescriptor() {
  if (fd_ >= 0) ::close(fd_);
}

int FileDescriptor::release() noexcept {
  return std::exchange(fd_, -1);
}

void raiseBuffers(int fd) {
  // The kernel doubles the value for its bookkeeping and caps it at net.core.[wr]mem_max; a
  // sequenced-packet message must fit in the sender's buffer as a whole.
  const int size = static_cast<int>(2 * kMaxSeqpacketMessage);
  if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size) != 0) {
    throwErrno(errno, "setsockopt(SO_SNDBUF)");
  }
  if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0) {
    throwErrno(errno, "setsockopt(SO_RCVBUF)");
  }
}

FileDescriptor listenSeqpacket(const std::string& path) {
  const sockaddr_un address = addressOf(path);
  FileDescriptor fd = newSocket();
  raiseBuffers(fd.get());
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    if (error != EADDRINUSE) throwErrno(error, "bind " + path);
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) throwErrno(errno, "lstat " + path);
    if (!S_ISSOCK(status.st_mode)) throwErrno(EADDRINUSE, path + " exists and is not a socket");
    if (isLive(address)) throwErrno(EADDRINUSE, "a service already listens on " + path);
    // Left by a dead service: replace it.
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) throwErrno(errno, "unlink " + path);
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throwErrno(errno, "bind " + path);
    }
  }
  if (::listen(fd.get(), SOMAXCONN) != 0) throwErrno(errno, "listen " + path);
  return fd;
}

FileDescriptor connectSeqpacket(const std::string& path) {
  const sockaddr_un address = addressOf(path);
  FileDescriptor fd = newSocket();
  raiseBuffers(fd.get());
  // A Unix socket connects at once or fails at once; EAGAIN means a full backlog.
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throwErrno(errno, "connect " + path);
  }
  return fd;
}

FileDescriptor acceptSeqpacket(int listener) {
  FileDescriptor fd(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!fd) {
    const int error = errno;
    if (error == EAGAIN || error == EWOULDBLOCK || error == ECONNABORTED || error == EINTR) {
      return FileDescriptor();
    }
    throwErrno(error, "accept4");
  }
  raiseBuffers(fd.get());
  return fd;
}

SocketPeer peerOf(int fd) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
    throwErrno(errno, "getsockopt(SO_PEERCRED)");
  }
  return SocketPeer{credentials.pid, credentials.uid, credentials.gid};
}

SendOutcome sendMessage(int fd, std::span<const std::uint8_t> message) {
  if (message.size() > kMaxSeqpacketMessage) {
    throwErrno(EMSGSIZE, "a message of " + std::to_string(message.size())
                             + " bytes is over the limit of " + std::to_string(kMaxSeqpacketMessage)
                             + " bytes");
  }
  for (;;) {
    const ssize_t sent =
        ::send(fd, message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT | MSG_EOR);
    if (sent >= 0) return SendOutcome::sent;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return SendOutcome::wouldBlock;
    throwErrno(errno, "send");
  }
}

ReceiveOutcome receiveMessage(int fd, std::vector<std::uint8_t>& buffer, std::size_t& length) {
  if (buffer.size() < kMaxSeqpacketMessage) buffer.resize(kMaxSeqpacketMessage);
  length = 0;
  for (;;) {
    iovec vector{buffer.data(), buffer.size()};
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    const ssize_t received = ::recvmsg(fd, &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (received > 0) {
      if (header.msg_flags & MSG_TRUNC) {
        throwErrno(EMSGSIZE, "a received message is over the limit of "
                                 + std::to_string(kMaxSeqpacketMessage) + " bytes");
      }
      length = static_cast<std::size_t>(received);
      return ReceiveOutcome::message;
    }
    if (received == 0) return ReceiveOutcome::closed;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return ReceiveOutcome::wouldBlock;
    if (errno == ECONNRESET) return ReceiveOutcome::closed;
    throwErrno(errno, "recvmsg");
  }
}

ReceiveBatch::ReceiveBatch() {
  void* reserved = ::mmap(nullptr, kSlots * kMaxSeqpacketMessage, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (reserved == MAP_FAILED) throwErrno(errno, "mmap of the receive slots");
  slots_ = static_cast<std::uint8_t*>(reserved);
}

ReceiveBatch::~ReceiveBatch() {
  ::munmap(slots_, kSlots * kMaxSeqpacketMessage);
}

std::span<const std::uint8_t> ReceiveBatch::message(std::size_t index) const noexcept {
  return {slots_ + index * kMaxSeqpacketMessage, lengths_[index]};
}

ReceiveOutcome ReceiveBatch::receive(int fd) {
  count_ = 0;
  peerClosed_ = false;
  iovec vectors[kSlots];
  mmsghdr headers[kSlots];
  std::memset(headers, 0, sizeof headers);
  for (std::size_t index = 0; index < kSlots; ++index) {
    vectors[index] = iovec{slots_ + index * kMaxSeqpacketMessage, kMaxSeqpacketMessage};
    headers[index].msg_hdr.msg_iov = &vectors[index];
    headers[index].msg_hdr.msg_iovlen = 1;
  }
  int received = 0;
  for (;;) {
    received = ::recvmmsg(fd, headers, kSlots, MSG_DONTWAIT | MSG_CMSG_CLOEXEC, nullptr);
    if (received >= 0) break;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return ReceiveOutcome::wouldBlock;
    if (errno == ECONNRESET) return ReceiveOutcome::closed;
    throwErrno(errno, "recvmmsg");
  }
  // The end of the peer reads as an empty message (and keeps doing so for the remaining slots).
  for (int index = 0; index < received; ++index) {
    const auto& header = headers[index];
    if (header.msg_len == 0) {
      peerClosed_ = true;
      break;
    }
    lengths_[count_] = header.msg_len;
    oversized_[count_] = (header.msg_hdr.msg_flags & MSG_TRUNC) != 0;
    ++count_;
  }
  if (count_ == 0) return received == 0 ? ReceiveOutcome::wouldBlock : ReceiveOutcome::closed;
  return ReceiveOutcome::message;
}

std::vector<int> activationListeners() {
  std::vector<int> listeners;
  const char* pid = std::getenv("LISTEN_PID");
  const char* count = std::getenv("LISTEN_FDS");
  if (pid == nullptr || count == nullptr) return listeners;
  char* end = nullptr;
  const long owner = std::strtol(pid, &end, 10);
  const bool forUs = *end == '\0' && owner == static_cast<long>(::getpid());
  const long fds = std::strtol(count, &end, 10);
  const bool counted = *end == '\0' && fds > 0 && fds < 1024;
  ::unsetenv("LISTEN_PID");
  ::unsetenv("LISTEN_FDS");
  ::unsetenv("LISTEN_FDNAMES");
  if (!forUs || !counted) return listeners;
  constexpr int kFirst = 3;
  for (int fd = kFirst; fd < kFirst + static_cast<int>(fds); ++fd) {
    const int flags = ::fcntl(fd, F_GETFD);
    if (flags < 0) continue;
    ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
    int type = 0;
    socklen_t length = sizeof type;
    if (::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_SEQPACKET) {
      continue;
    }
    const int status = ::fcntl(fd, F_GETFL);
    if (status >= 0) ::fcntl(fd, F_SETFL, status | O_NONBLOCK);
    raiseBuffers(fd);
    listeners.push_back(fd);
  }
  return listeners;
}

}  // namespace carrow::platform
