#pragma once

// The one thread per process that owns the XPC descriptors. It waits in epoll, reads and writes,
// and hands events on; it never runs code that a user of the library supplied.

#include <cstdint>
#include <memory>

namespace carrow::platform {

/// Receives the readiness events of one descriptor, on the reactor thread. Implementations only
/// read, write and queue work elsewhere; they must not block.
class ReactorWatcher {
 public:
  virtual ~ReactorWatcher() = default;
  /// `events` are epoll bits (EPOLLIN, EPOLLOUT, EPOLLHUP, ...).
  virtual void onEvents(std::uint32_t events) noexcept = 0;
};

/// The process-wide reactor, started on first use and never stopped.
class Reactor {
 public:
  static Reactor& shared();

  /// Watches `fd` for `events` (level-triggered). The reactor keeps `watcher` alive until
  /// `remove`; the caller keeps `fd` open until then. Returns the registration's token.
  std::uint64_t add(int fd, std::shared_ptr<ReactorWatcher> watcher, std::uint32_t events);
  /// Changes the events watched for a registration.
  void modify(std::uint64_t token, int fd, std::uint32_t events);
  /// Ends a registration and drops the reactor's reference to the watcher. A delivery already
  /// under way on the reactor thread still finishes, so watchers ignore events that come after
  /// they consider themselves closed; they close their descriptor only when destroyed.
  void remove(std::uint64_t token, int fd) noexcept;

  /// True on the reactor thread.
  static bool isReactorThread() noexcept;

 private:
  Reactor();
  class Impl;
  Impl* impl_;
};

}  // namespace carrow::platform
