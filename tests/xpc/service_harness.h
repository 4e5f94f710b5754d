#pragma once

// Services for the connection tests: socket files in a temporary folder, served either in this
// process or by xpc_test_service in a process of its own. Every wait is bounded.

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

#include "logging/recording_logger.h"
#include "xpc/test_protocol.h"

extern char** environ;

namespace carrow::testing {

inline constexpr auto kPatience = std::chrono::seconds(10);

/// Polls `condition` until it holds or the patience runs out; returns whether it held.
inline bool waitUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "carrow-xpc-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    path_ = pattern;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

/// A test service in this process; it keeps the connections it accepted.
class InProcessService {
 public:
  /// `configured`: set up each connection with `configure` (declared classes only) instead of
  /// the test interface, whose `take:` admits only Safe.
  InProcessService(const std::string& directory, const std::string& name, bool configured = false) {
    listener_ = XPCListener::make(name, directory);
    listener_->setNewConnectionHandler(
        [this, configured](std::shared_ptr<XPCConnection> connection) {
          // Held while the connection starts, so that whoever reads the lists after a reply sees
          // it.
          std::lock_guard guard(mutex_);
          std::shared_ptr<TestEndpoint> endpoint;
          if (configured) {
            endpoint = std::make_shared<TestEndpoint>(connection.get());
            configure(connection, endpoint, TestProtocol{});
          } else {
            endpoint = serveTestProtocol(connection);
          }
          connections_.push_back(connection);
          endpoints_.push_back(endpoint);
          return true;
        });
    listener_->resume();
  }
  ~InProcessService() {
    listener_->invalidate();
    std::lock_guard guard(mutex_);
    for (auto& connection : connections_) connection->invalidate();
  }
  std::vector<std::shared_ptr<XPCConnection>> connections() const {
    std::lock_guard guard(mutex_);
    return connections_;
  }
  std::vector<std::weak_ptr<TestEndpoint>> endpoints() const {
    std::lock_guard guard(mutex_);
    return endpoints_;
  }

 private:
  std::shared_ptr<XPCListener> listener_;
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<XPCConnection>> connections_;
  std::vector<std::weak_ptr<TestEndpoint>> endpoints_;
};

/// A process running `argv` whose first line of output ("ready") says it serves. Killed when
/// dropped.
class ServiceProcess {
 public:
  explicit ServiceProcess(std::vector<std::string> arguments) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category());
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    const int failed = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (failed != 0) {
      ::close(out[0]);
      throw std::system_error(failed, std::generic_category(), "posix_spawn");
    }
    output_ = out[0];
  }
  ~ServiceProcess() {
    kill();
    if (output_ >= 0) ::close(output_);
  }

  /// Waits (bounded) for the "ready" line.
  bool waitReady() {
    std::string seen;
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (seen.find("ready\n") == std::string::npos) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      pollfd entry{output_, POLLIN, 0};
      if (::poll(&entry, 1, static_cast<int>(left.count())) <= 0) return false;
      char chunk[64];
      const ssize_t n = ::read(output_, chunk, sizeof chunk);
      if (n <= 0) return false;
      seen.append(chunk, static_cast<std::size_t>(n));
    }
    return true;
  }

  void kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
  }

  pid_t pid() const noexcept { return pid_; }

 private:
  pid_t pid_ = -1;
  int output_ = -1;
};

/// Installs a recording logger for the test program once.
inline std::shared_ptr<RecordingLogger> installRecordingLogger() {
  static auto logger = [] {
    auto made = std::make_shared<RecordingLogger>();
    CRLog::setLogger(made);
    return made;
  }();
  return logger;
}

/// The errno of the std::system_error that `operation` throws (0 when it does not throw one).
template <class Operation>
int errnoOf(Operation operation) {
  try {
    operation();
  } catch (const std::system_error& error) {
    return error.code().value();
  }
  return 0;
}

/// Runs `call()` (returning an `Async`) in a task and returns the errno of the std::system_error
/// it throws (0 when it throws none). The error is read inside the task that caught it, so that
/// no exception object is shared with another thread.
template <class Call>
int errnoOfCall(Call call) {
  return runMain([call]() -> Async<int> {
    try {
      auto work = call();
      co_await std::move(work);
    } catch (const std::system_error& error) {
      co_return error.code().value();
    }
    co_return 0;
  });
}

}  // namespace carrow::testing
