// The service the two-process tests start: xpc_test_service DIR NAME [--uid N]
// or, under a socket-activating manager, xpc_test_service --activated.
// Prints "ready" on stdout once it accepts connections, then serves until it is killed.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <carrow/logging/log.h>

#include "test_protocol.h"

namespace {

class QuietLogger final : public carrow::CRLogger {
 public:
  bool shouldLog(std::optional<std::string_view>) override { return false; }
  void log(std::string_view, carrow::CRLogLevel, std::optional<std::string_view>, const char*,
           std::uint32_t) override {}
};

}  // namespace

int main(int argc, char** argv) {
  carrow::CRLog::setLogger(std::make_shared<QuietLogger>());
  std::shared_ptr<carrow::XPCListener> listener;
  try {
    if (argc >= 2 && std::strcmp(argv[1], "--activated") == 0) {
      listener = carrow::XPCListener::fromSocketActivation();
    } else if (argc >= 3) {
      if (argc >= 5 && std::strcmp(argv[3], "--uid") == 0) {
        // Given up before listening: the kernel records the listener's credentials then.
        const auto uid = static_cast<uid_t>(std::strtoul(argv[4], nullptr, 10));
        if (::setgid(uid) != 0 || ::setuid(uid) != 0) {
          std::perror("setuid");
          return 1;
        }
      }
      listener = carrow::XPCListener::make(argv[2], argv[1]);
    } else {
      std::fprintf(stderr, "usage: xpc_test_service DIR NAME [--uid N] | --activated\n");
      return 2;
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "xpc_test_service: %s\n", error.what());
    return 1;
  }
  listener->setNewConnectionHandler([](std::shared_ptr<carrow::XPCConnection> connection) {
    carrow::testing::serveTestProtocol(connection);
    return true;
  });
  listener->resume();
  std::printf("ready\n");
  std::fflush(stdout);
  for (;;) ::pause();
}
