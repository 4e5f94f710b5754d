// XPC connections between two processes against raw sequenced-packet sockets between the same two
// processes: round trips, pipelined throughput, and the cost of checking and decoding one call.
//
// The program is its own peer: started with `--serve DIR` it is the XPC service, with
// `--raw-echo PATH` the raw echo server; the benchmarks start those children themselves.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>

#include <carrow/logging/log.h>
#include <carrow/runtime/runtime.h>
#include <carrow/xpc/xpc.h>

#include "xpc/frame.h"

extern char** environ;

namespace carrow {
namespace {

struct Ping : XPCMethod<"ping", void()> {};
struct Echo : XPCMethod<"echo:", std::string(std::string)> {};
struct BenchProtocol : XPCProtocol<"BenchProtocol", Ping, Echo> {};

struct BenchConnection {
  using ProxyProtocol = BenchProtocol;
  using Kind = XPCConnectionKind;
  static const XPCProtocolDescription& interfaceProtocol() { return BenchProtocol::description(); }
  static Kind kind() { return Kind::userService("bench", directory); }
  static std::vector<ArgumentExpectation> argumentExpectations() { return {}; }
  static inline std::string directory;
};

class BenchService {
 public:
  Async<void> serve(Ping) { co_return; }
  Async<std::string> serve(Echo, std::string text) { co_return text; }
};

class QuietLogger final : public CRLogger {
 public:
  bool shouldLog(std::optional<std::string_view>) override { return false; }
  void log(std::string_view, CRLogLevel, std::optional<std::string_view>, const char*,
           std::uint32_t) override {}
};

const std::string kPayload(64, 'x');

// Repetitions on a shared machine spread widely: report their range with the median.
void withExtremes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ComputeStatistics("min", [](const std::vector<double>& values) {
    return *std::min_element(values.begin(), values.end());
  });
  benchmark->ComputeStatistics("max", [](const std::vector<double>& values) {
    return *std::max_element(values.begin(), values.end());
  });
}

// ---- the peer processes ----

[[noreturn]] void serveXPC(const std::string& directory) {
  auto listener = XPCListener::make("bench", directory);
  listener->setNewConnectionHandler([](std::shared_ptr<XPCConnection> connection) {
    connection->setExportedInterface(XPCInterface::withProtocol<BenchProtocol>());
    connection->setExportedObject(exportObject<BenchProtocol>(std::make_shared<BenchService>()));
    connection->resume();
    return true;
  });
  listener->resume();
  std::printf("ready\n");
  std::fflush(stdout);
  for (;;) ::pause();
}

// Echoes every message; in one-way mode a message starting with 'A' is the only one answered.
[[noreturn]] void serveRawEcho(const std::string& path) {
  int listener = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ::unlink(path.c_str());
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0
      || ::listen(listener, 8) != 0) {
    std::perror("raw echo");
    std::exit(1);
  }
  std::printf("ready\n");
  std::fflush(stdout);
  for (;;) {
    const int peer = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (peer < 0) continue;
    std::vector<char> buffer(1 << 16);
    for (;;) {
      const ssize_t n = ::recv(peer, buffer.data(), buffer.size(), 0);
      if (n <= 0) break;
      if (buffer[0] == 'O') continue;  // one-way
      ::send(peer, buffer.data(), static_cast<std::size_t>(n), MSG_NOSIGNAL);
    }
    ::close(peer);
  }
}

class Peer {
 public:
  explicit Peer(std::vector<std::string> arguments) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) std::abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, "/proc/self/exe", &actions, nullptr, argv.data(), environ) != 0) {
      std::abort();
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    char line[16] = {};
    pollfd entry{out[0], POLLIN, 0};
    if (::poll(&entry, 1, 10000) != 1 || ::read(out[0], line, sizeof line) <= 0) std::abort();
    ::close(out[0]);
  }
  ~Peer() {
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }

 private:
  pid_t pid_ = -1;
};

std::string temporaryFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "carrow-bench-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) std::abort();
  return pattern;
}

int connectRaw(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) std::abort();
  return fd;
}

// ---- round trips ----

void BM_RawSeqpacketEcho64(benchmark::State& state) {
  const std::string folder = temporaryFolder();
  const std::string path = folder + "/raw.sock";
  Peer peer({"bench", "--raw-echo", path});
  const int fd = connectRaw(path);
  std::string message = "E" + kPayload.substr(1);
  char reply[128];
  for (auto _ : state) {
    ::send(fd, message.data(), message.size(), MSG_NOSIGNAL);
    benchmark::DoNotOptimize(::recv(fd, reply, sizeof reply, 0));
  }
  ::close(fd);
  std::filesystem::remove_all(folder);
}
BENCHMARK(BM_RawSeqpacketEcho64)->Apply(withExtremes)->UseRealTime();

template <class Call>
void xpcLoop(benchmark::State& state, Call call) {
  const std::string folder = temporaryFolder();
  BenchConnection::directory = folder;
  Peer peer({"bench", "--serve", folder});
  auto connection = makeConnection<BenchConnection>();
  auto proxy = proxyFromConnection<BenchConnection>(connection);
  runMain([&state, proxy, call]() -> Async<void> {
    auto warmUp = call(proxy);
    co_await std::move(warmUp);
    for (auto _ : state) {
      auto once = call(proxy);
      co_await std::move(once);
    }
  });
  connection->invalidate();
  std::filesystem::remove_all(folder);
}

void BM_XPCEmptyCall(benchmark::State& state) {
  xpcLoop(state, [](XPCProxy<BenchProtocol> proxy) { return proxy.call(Ping{}); });
}
BENCHMARK(BM_XPCEmptyCall)->Apply(withExtremes)->UseRealTime();

Async<void> echoOnce(XPCProxy<BenchProtocol> proxy) {
  std::string echoed = co_await proxy.call(Echo{}, kPayload);
  benchmark::DoNotOptimize(echoed.data());
}

void BM_XPCCall64(benchmark::State& state) {
  xpcLoop(state, echoOnce);
}
BENCHMARK(BM_XPCCall64)->Apply(withExtremes)->UseRealTime();

// ---- throughput ----

constexpr int kInFlight = 64;
constexpr int kCallsPerRound = 6400;

void BM_XPCPipelined64InFlight(benchmark::State& state) {
  const std::string folder = temporaryFolder();
  BenchConnection::directory = folder;
  Peer peer({"bench", "--serve", folder});
  auto connection = makeConnection<BenchConnection>();
  auto proxy = proxyFromConnection<BenchConnection>(connection);
  runMain([&state, proxy]() -> Async<void> {
    co_await echoOnce(proxy);
    for (auto _ : state) {
      auto body = [proxy](ThrowingTaskGroup<void>& group) -> Async<void> {
        for (int lane = 0; lane < kInFlight; ++lane) {
          group.addTask([proxy]() -> Async<void> {
            for (int index = 0; index < kCallsPerRound / kInFlight; ++index) {
              co_await echoOnce(proxy);
            }
          });
        }
        while (co_await group.next()) {
        }
      };
      co_await withThrowingTaskGroup<void>(body);
    }
  });
  state.SetItemsProcessed(state.iterations() * kCallsPerRound);
  connection->invalidate();
  std::filesystem::remove_all(folder);
}
BENCHMARK(BM_XPCPipelined64InFlight)
    ->Apply(withExtremes)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_RawSeqpacketOneWay64(benchmark::State& state) {
  const std::string folder = temporaryFolder();
  const std::string path = folder + "/raw.sock";
  Peer peer({"bench", "--raw-echo", path});
  const int fd = connectRaw(path);
  const std::string message = "O" + kPayload.substr(1);
  const std::string last = "E" + kPayload.substr(1);
  char reply[128];
  for (auto _ : state) {
    for (int index = 1; index < kCallsPerRound; ++index) {
      ::send(fd, message.data(), message.size(), MSG_NOSIGNAL);
    }
    ::send(fd, last.data(), last.size(), MSG_NOSIGNAL);  // answered once all went through
    benchmark::DoNotOptimize(::recv(fd, reply, sizeof reply, 0));
  }
  state.SetItemsProcessed(state.iterations() * kCallsPerRound);
  ::close(fd);
  std::filesystem::remove_all(folder);
}
BENCHMARK(BM_RawSeqpacketOneWay64)
    ->Apply(withExtremes)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// ---- checking and decoding one received call ----

void BM_CheckAndDecodeCall64(benchmark::State& state) {
  const auto interface = XPCInterface::withProtocol<BenchProtocol>();
  const auto bytes = detail::xpc::encodeCall(1, "echo:", {encodeXPCValue(kPayload)});
  detail::xpc::FrameContext context;
  context.exported = &interface;
  for (auto _ : state) {
    auto checked = detail::xpc::checkFrame(bytes, context);
    benchmark::DoNotOptimize(checked.verdict);
    auto frame = detail::xpc::decodeFrame(bytes);
    std::string text =
        XPCCoding<std::string>::decode(frame.values[0].className, frame.values[0].value);
    benchmark::DoNotOptimize(text.data());
  }
}
BENCHMARK(BM_CheckAndDecodeCall64)->Apply(withExtremes);

// The baseline: nlohmann's CBOR reader alone on the same bytes, no checks.
void BM_FromCBORCall64(benchmark::State& state) {
  const auto bytes = detail::xpc::encodeCall(1, "echo:", {encodeXPCValue(kPayload)});
  for (auto _ : state) {
    auto json = nlohmann::json::from_cbor(bytes);
    benchmark::DoNotOptimize(json.size());
  }
}
BENCHMARK(BM_FromCBORCall64)->Apply(withExtremes);

// `--fixed-calls pipelined|serial N`: N calls and nothing else (no benchmark framework, no
// estimation runs), so that `perf stat` of the whole program counts system calls, context
// switches and CPU time per call.
[[noreturn]] void fixedCalls(const std::string& mode, int count) {
  const std::string folder = temporaryFolder();
  BenchConnection::directory = folder;
  {
    Peer peer({"bench", "--serve", folder});
    auto connection = makeConnection<BenchConnection>();
    auto proxy = proxyFromConnection<BenchConnection>(connection);
    const bool pipelined = mode == "pipelined";
    runMain([proxy, pipelined, count]() -> Async<void> {
      if (!pipelined) {
        for (int index = 0; index < count; ++index) co_await echoOnce(proxy);
        co_return;
      }
      auto body = [proxy, count](ThrowingTaskGroup<void>& group) -> Async<void> {
        for (int lane = 0; lane < kInFlight; ++lane) {
          group.addTask([proxy, count]() -> Async<void> {
            for (int index = 0; index < count / kInFlight; ++index) co_await echoOnce(proxy);
          });
        }
        while (co_await group.next()) {
        }
      };
      co_await withThrowingTaskGroup<void>(body);
    });
    connection->invalidate();
  }
  std::filesystem::remove_all(folder);
  std::exit(0);
}

}  // namespace
}  // namespace carrow

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--fixed-calls") == 0) {
    carrow::CRLog::setLogger(std::make_shared<carrow::QuietLogger>());
    carrow::fixedCalls(argv[2], std::atoi(argv[3]));
  }
  carrow::CRLog::setLogger(std::make_shared<carrow::QuietLogger>());
  if (argc == 3 && std::strcmp(argv[1], "--serve") == 0) carrow::serveXPC(argv[2]);
  if (argc == 3 && std::strcmp(argv[1], "--raw-echo") == 0) carrow::serveRawEcho(argv[2]);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
