#include "reactor.h"

#include <array>
#include <cerrno>
#include <mutex>
#include <sys/epoll.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <unordered_map>

#include <carrow/platform/fatal_error.h>

namespace carrow::platform {

namespace {

thread_local bool onReactorThread = false;

}  // namespace

class Reactor::Impl {
 public:
  Impl() {
    epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
    if (epoll_ < 0) throw std::system_error(errno, std::generic_category(), "epoll_create1");
    std::thread([this] { run(); }).detach();
  }

  std::uint64_t add(int fd, std::shared_ptr<ReactorWatcher> watcher, std::uint32_t events) {
    std::uint64_t token = 0;
    {
      std::lock_guard guard(mutex_);
      token = ++lastToken_;
      watchers_.emplace(token, std::move(watcher));
    }
    epoll_event event{};
    event.events = events;
    event.data.u64 = token;
    if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) != 0) {
      const int error = errno;
      std::lock_guard guard(mutex_);
      watchers_.erase(token);
      throw std::system_error(error, std::generic_category(), "epoll_ctl(ADD)");
    }
    return token;
  }

  void modify(std::uint64_t token, int fd, std::uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = token;
    if (::epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &event) != 0) {
      throw std::system_error(errno, std::generic_category(), "epoll_ctl(MOD)");
    }
  }

  void remove(std::uint64_t token, int fd) noexcept {
    ::epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
    std::shared_ptr<ReactorWatcher> dropped;
    {
      std::lock_guard guard(mutex_);
      auto found = watchers_.find(token);
      if (found == watchers_.end()) return;
      dropped = std::move(found->second);
      watchers_.erase(found);
    }
    // `dropped` may be the last reference: its descriptor closes here, after EPOLL_CTL_DEL.
  }

 private:
  void run() noexcept {
    onReactorThread = true;
    std::array<epoll_event, 64> events{};
    for (;;) {
      const int ready = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), -1);
      if (ready < 0) {
        if (errno == EINTR) continue;
        fatalError("CarrowPrivate/XPC", __LINE__, "epoll_wait failed");
      }
      for (int index = 0; index < ready; ++index) {
        const std::uint64_t token = events[static_cast<std::size_t>(index)].data.u64;
        std::shared_ptr<ReactorWatcher> watcher;
        {
          std::lock_guard guard(mutex_);
          auto found = watchers_.find(token);
          if (found != watchers_.end()) watcher = found->second;
        }
        if (watcher) watcher->onEvents(events[static_cast<std::size_t>(index)].events);
      }
    }
  }

  int epoll_ = -1;
  std::mutex mutex_;
  std::uint64_t lastToken_ = 0;
  std::unordered_map<std::uint64_t, std::shared_ptr<ReactorWatcher>> watchers_;
};

Reactor::Reactor() : impl_(new Impl()) {}

Reactor& Reactor::shared() {
  // Made once and never destroyed: the thread runs until the process ends.
  static Reactor* reactor = new Reactor();
  return *reactor;
}

std::uint64_t Reactor::add(int fd, std::shared_ptr<ReactorWatcher> watcher, std::uint32_t events) {
  return impl_->add(fd, std::move(watcher), events);
}

void Reactor::modify(std::uint64_t token, int fd, std::uint32_t events) {
  impl_->modify(token, fd, events);
}

void Reactor::remove(std::uint64_t token, int fd) noexcept {
  impl_->remove(token, fd);
}

bool Reactor::isReactorThread() noexcept {
  return onReactorThread;
}

}  // namespace carrow::platform
