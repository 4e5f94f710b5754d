#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <signal.h>
#include <span>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "platform/reactor.h"
#include "platform/seqpacket.h"

extern char** environ;

namespace carrow::platform {
namespace {

class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "carrow-xpc-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
      throw std::system_error(errno, std::generic_category());
    path_ = pattern;
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

int errnoOf(const auto& operation) {
  try {
    operation();
  } catch (const std::system_error& error) {
    return error.code().value();
  }
  return 0;
}

// A connected pair with the library's buffer sizes.
std::pair<FileDescriptor, FileDescriptor> connectedPair() {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  raiseBuffers(fds[0]);
  raiseBuffers(fds[1]);
  return {FileDescriptor(fds[0]), FileDescriptor(fds[1])};
}

TEST(Transport, AWriteToADeadPeerFailsWithoutSignal) {
  struct sigaction current {};
  ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &current), 0);
  ASSERT_EQ(current.sa_handler, SIG_DFL);  // a SIGPIPE would end this process
  auto [mine, theirs] = connectedPair();
  theirs = FileDescriptor();
  const std::vector<std::uint8_t> message(16, 1);
  EXPECT_EQ(errnoOf([&] { sendMessage(mine.get(), message); }), EPIPE);
  ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &current), 0);
  EXPECT_EQ(current.sa_handler, SIG_DFL);
}

TEST(Transport, AMessageOfTheLimitGoesThroughAndALargerOneIsRefusedBeforeSending) {
  auto [sender, receiver] = connectedPair();
  const std::vector<std::uint8_t> largest(kMaxSeqpacketMessage, 0x5A);
  ASSERT_EQ(sendMessage(sender.get(), largest), SendOutcome::sent);
  std::vector<std::uint8_t> buffer;
  std::size_t length = 0;
  ASSERT_EQ(receiveMessage(receiver.get(), buffer, length), ReceiveOutcome::message);
  ASSERT_EQ(length, largest.size());
  EXPECT_EQ(std::vector<std::uint8_t>(buffer.begin(), buffer.begin() + length), largest);

  const std::vector<std::uint8_t> tooLarge(kMaxSeqpacketMessage + 1, 0x5A);
  EXPECT_EQ(errnoOf([&] { sendMessage(sender.get(), tooLarge); }), EMSGSIZE);
  EXPECT_EQ(receiveMessage(receiver.get(), buffer, length), ReceiveOutcome::wouldBlock);
}

TEST(Transport, AReceivedMessageOverTheLimitIsAnErrorNotATruncation) {
  auto [sender, receiver] = connectedPair();
  const std::vector<std::uint8_t> tooLarge(kMaxSeqpacketMessage + 100, 0x5A);
  ASSERT_EQ(::send(sender.get(), tooLarge.data(), tooLarge.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(tooLarge.size()));
  std::vector<std::uint8_t> buffer;
  std::size_t length = 0;
  EXPECT_EQ(errnoOf([&] { receiveMessage(receiver.get(), buffer, length); }), EMSGSIZE);
}

TEST(Transport, ReceivingReportsTheEndOfThePeer) {
  auto [mine, theirs] = connectedPair();
  std::vector<std::uint8_t> buffer;
  std::size_t length = 0;
  EXPECT_EQ(receiveMessage(mine.get(), buffer, length), ReceiveOutcome::wouldBlock);
  const std::vector<std::uint8_t> last = {1, 2, 3};
  ASSERT_EQ(sendMessage(theirs.get(), last), SendOutcome::sent);
  theirs = FileDescriptor();
  ASSERT_EQ(receiveMessage(mine.get(), buffer, length), ReceiveOutcome::message);
  EXPECT_EQ(length, 3u);  // what was sent before the end is read first
  EXPECT_EQ(receiveMessage(mine.get(), buffer, length), ReceiveOutcome::closed);
}

std::vector<std::uint8_t> messageOf(std::size_t size, std::uint8_t fill) {
  return std::vector<std::uint8_t>(size, fill);
}

std::vector<std::uint8_t> copyOf(std::span<const std::uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

TEST(ReceiveBatch, TakesWaitingMessagesInOrderAFullBatchAtATime) {
  auto [sender, receiver] = connectedPair();
  ReceiveBatch batch;
  EXPECT_EQ(batch.receive(receiver.get()), ReceiveOutcome::wouldBlock);
  constexpr std::size_t kSent = ReceiveBatch::kSlots + 4;
  for (std::size_t index = 0; index < kSent; ++index) {
    const auto message = messageOf(1 + index * 7, static_cast<std::uint8_t>(index));
    ASSERT_EQ(sendMessage(sender.get(), message), SendOutcome::sent);
  }
  std::size_t next = 0;
  for (const std::size_t expected : {ReceiveBatch::kSlots, std::size_t{4}}) {
    ASSERT_EQ(batch.receive(receiver.get()), ReceiveOutcome::message);
    ASSERT_EQ(batch.count(), expected);
    EXPECT_FALSE(batch.peerClosed());
    for (std::size_t index = 0; index < batch.count(); ++index, ++next) {
      EXPECT_FALSE(batch.oversized(index));
      EXPECT_EQ(copyOf(batch.message(index)),
                messageOf(1 + next * 7, static_cast<std::uint8_t>(next)));
    }
  }
  EXPECT_EQ(batch.receive(receiver.get()), ReceiveOutcome::wouldBlock);
}

TEST(ReceiveBatch, EverySlotHoldsAMessageOfTheLimitAndALargerOneIsMarked) {
  auto [sender, receiver] = connectedPair();
  const auto small = messageOf(3, 1);
  const auto largest = messageOf(kMaxSeqpacketMessage, 2);
  const auto tooLarge = messageOf(kMaxSeqpacketMessage + 100, 3);
  ASSERT_EQ(sendMessage(sender.get(), small), SendOutcome::sent);
  ASSERT_EQ(sendMessage(sender.get(), largest), SendOutcome::sent);
  ReceiveBatch batch;
  ASSERT_EQ(batch.receive(receiver.get()), ReceiveOutcome::message);
  ASSERT_EQ(batch.count(), 2u);
  EXPECT_EQ(copyOf(batch.message(0)), small);
  EXPECT_EQ(copyOf(batch.message(1)), largest);
  EXPECT_FALSE(batch.oversized(1));
  // One at a time: the sender's buffer holds one message of the limit, not necessarily two.
  ASSERT_EQ(::send(sender.get(), tooLarge.data(), tooLarge.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(tooLarge.size()));
  ASSERT_EQ(batch.receive(receiver.get()), ReceiveOutcome::message);
  ASSERT_EQ(batch.count(), 1u);
  EXPECT_TRUE(batch.oversized(0));
}

TEST(ReceiveBatch, ThePeersEndComesAfterWhatItSent) {
  auto [mine, theirs] = connectedPair();
  ASSERT_EQ(sendMessage(theirs.get(), messageOf(5, 9)), SendOutcome::sent);
  theirs = FileDescriptor();
  ReceiveBatch batch;
  ASSERT_EQ(batch.receive(mine.get()), ReceiveOutcome::message);
  ASSERT_EQ(batch.count(), 1u);
  EXPECT_EQ(copyOf(batch.message(0)), messageOf(5, 9));
  EXPECT_TRUE(batch.peerClosed());
  EXPECT_EQ(batch.receive(mine.get()), ReceiveOutcome::closed);
}

TEST(Transport, AStaleSocketFileIsReplacedAndALiveOneIsNot) {
  TemporaryFolder folder;
  const std::string path = folder.file("svc.sock");
  { FileDescriptor dead = listenSeqpacket(path); }  // leaves its file behind
  ASSERT_TRUE(std::filesystem::exists(path));
  FileDescriptor live = listenSeqpacket(path);
  EXPECT_EQ(errnoOf([&] { listenSeqpacket(path); }), EADDRINUSE);
  FileDescriptor client = connectSeqpacket(path);
  EXPECT_TRUE(client);

  const std::string plain = folder.file("plain.sock");
  std::ofstream(plain) << "not a socket";
  EXPECT_EQ(errnoOf([&] { listenSeqpacket(plain); }), EADDRINUSE);
  EXPECT_EQ(errnoOf([&] { connectSeqpacket(folder.file("missing.sock")); }), ENOENT);
  EXPECT_NE(errnoOf([&] { listenSeqpacket(""); }), 0);  // never an abstract name
  EXPECT_EQ(errnoOf([&] { listenSeqpacket(folder.file(std::string(200, 'x'))); }), ENAMETOOLONG);
}

TEST(Transport, PeerCredentialsAreTheConnectingProcesses) {
  TemporaryFolder folder;
  FileDescriptor listener = listenSeqpacket(folder.file("svc.sock"));
  FileDescriptor client = connectSeqpacket(folder.file("svc.sock"));
  FileDescriptor accepted = acceptSeqpacket(listener.get());
  ASSERT_TRUE(accepted);
  const SocketPeer seenByService = peerOf(accepted.get());
  EXPECT_EQ(seenByService.pid, ::getpid());
  EXPECT_EQ(seenByService.uid, ::geteuid());
  EXPECT_EQ(seenByService.gid, ::getegid());
  EXPECT_FALSE(acceptSeqpacket(listener.get()));  // nothing else pending
}

class NoWatcher final : public ReactorWatcher {
 public:
  void onEvents(std::uint32_t) noexcept override {}
};

std::vector<int> openDescriptors() {
  std::vector<int> fds;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    fds.push_back(std::stoi(entry.path().filename().string()));
  }
  return fds;
}

TEST(Transport, NoDescriptorLeaksIntoAnExecutedChild) {
  TemporaryFolder folder;
  const auto before = openDescriptors();
  FileDescriptor listener = listenSeqpacket(folder.file("svc.sock"));
  FileDescriptor client = connectSeqpacket(folder.file("svc.sock"));
  FileDescriptor accepted = acceptSeqpacket(listener.get());
  const auto token = Reactor::shared().add(client.get(), std::make_shared<NoWatcher>(), 0);

  std::string numbers;
  for (int fd : openDescriptors()) {
    if (std::find(before.begin(), before.end(), fd) != before.end()) continue;
    const int flags = ::fcntl(fd, F_GETFD);
    if (flags < 0) continue;  // the directory listing's own descriptor
    EXPECT_TRUE(flags & FD_CLOEXEC) << "descriptor " << fd;
    numbers += " " + std::to_string(fd);
  }
  ASSERT_FALSE(numbers.empty());
  // The child reports which of those numbers are open in it: none should be.
  const std::string script =
      "for fd in" + numbers + "; do [ -e /proc/$$/fd/$fd ] && echo $fd; done; exit 0";
  int out[2];
  ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  const char* argv[] = {"/bin/sh", "-c", script.c_str(), nullptr};
  pid_t child = 0;
  ASSERT_EQ(posix_spawn(&child, "/bin/sh", &actions, nullptr, const_cast<char**>(argv), environ),
            0);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  std::string leaked;
  char chunk[256];
  for (ssize_t n; (n = ::read(out[0], chunk, sizeof chunk)) > 0;)
    leaked.append(chunk, static_cast<std::size_t>(n));
  ::close(out[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(leaked, "") << "open in the child; checked:" << numbers;
  Reactor::shared().remove(token, client.get());
}

}  // namespace
}  // namespace carrow::platform
