#include <array>
#include <cerrno>
#include <map>
#include <mutex>
#include <poll.h>
#include <sys/timerfd.h>
#include <system_error>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <carrow/runtime/timer_service.h>

namespace carrow {
namespace {

// One deadline queue per clock, each with a timerfd of that clock armed at its earliest deadline.
// Letting the kernel track each clock keeps continuous-clock deadlines exact across a sleep of the
// machine, which a single monotonic wait could not.
constexpr std::array<clockid_t, 2> kClocks{CLOCK_BOOTTIME, CLOCK_MONOTONIC};
constexpr int kContinuous = 0;
constexpr int kSuspending = 1;

[[noreturn]] void throwErrno(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::int64_t readNow(int clock) noexcept {
  timespec now{};
  clock_gettime(kClocks[clock], &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

}  // namespace

struct TimerService::Impl {
  using Key = std::pair<std::int64_t, std::uint64_t>;  // deadline, sequence

  mutable std::mutex mutex;
  std::array<std::map<Key, std::function<void()>>, 2> queues;
  std::array<int, 2> timerFds{-1, -1};
  std::uint64_t nextSequence = 0;

  Impl() {
    for (int clock = 0; clock < 2; ++clock) {
      timerFds[clock] = timerfd_create(kClocks[clock], TFD_NONBLOCK | TFD_CLOEXEC);
      if (timerFds[clock] < 0) {
        const int error = errno;
        if (clock == 1) close(timerFds[0]);
        errno = error;
        throwErrno("timerfd_create");
      }
    }
  }

  // Called with `mutex` held.
  void arm(int clock, std::int64_t deadline) const noexcept {
    itimerspec spec{};
    // An all-zero value would disarm the timer; a deadline at or before the epoch is simply due.
    if (deadline <= 0) deadline = 1;
    spec.it_value.tv_sec = deadline / 1'000'000'000;
    spec.it_value.tv_nsec = deadline % 1'000'000'000;
    timerfd_settime(timerFds[clock], TFD_TIMER_ABSTIME, &spec, nullptr);
  }

  [[noreturn]] void run() {
    std::array<pollfd, 2> fds{};
    for (int clock = 0; clock < 2; ++clock) fds[clock] = pollfd{timerFds[clock], POLLIN, 0};
    std::vector<std::function<void()>> due;
    for (;;) {
      if (poll(fds.data(), fds.size(), -1) < 0) continue;  // EINTR
      for (int clock = 0; clock < 2; ++clock) {
        if ((fds[clock].revents & POLLIN) == 0) continue;
        std::uint64_t expirations = 0;
        // May find nothing when the timer was re-armed after it fired; the queue decides anyway.
        [[maybe_unused]] auto ignored = read(timerFds[clock], &expirations, sizeof expirations);
        collectDue(clock, due);
      }
      // Callbacks run without the lock, so they may schedule or cancel entries.
      for (auto& callback : due) callback();
      due.clear();
    }
  }

  void collectDue(int clock, std::vector<std::function<void()>>& due) {
    std::lock_guard guard(mutex);
    auto& queue = queues[clock];
    const std::int64_t now = readNow(clock);
    auto it = queue.begin();
    for (; it != queue.end() && it->first.first <= now; ++it) due.push_back(std::move(it->second));
    queue.erase(queue.begin(), it);
    if (!queue.empty()) arm(clock, queue.begin()->first.first);
  }
};

TimerService::TimerService() : impl_(new Impl) {
  try {
    std::thread([impl = impl_] { impl->run(); }).detach();
  } catch (...) {
    for (int fd : impl_->timerFds) close(fd);
    delete impl_;
    throw;
  }
}

TimerService& TimerService::shared() {
  // Never destroyed: the detached timer thread may run until the very end of the process.
  static TimerService* const service = new TimerService;
  return *service;
}

TimerService::Entry TimerService::schedule(ContinuousClock::time_point deadline,
                                           std::function<void()> callback) {
  return add(kContinuous, deadline.time_since_epoch().count(), std::move(callback));
}

TimerService::Entry TimerService::schedule(SuspendingClock::time_point deadline,
                                           std::function<void()> callback) {
  return add(kSuspending, deadline.time_since_epoch().count(), std::move(callback));
}

TimerService::Entry TimerService::add(int clock, std::int64_t deadline,
                                      std::function<void()> callback) {
  std::lock_guard guard(impl_->mutex);
  const Entry entry{clock, deadline, impl_->nextSequence++};
  auto& queue = impl_->queues[clock];
  auto [position, inserted] =
      queue.emplace(Impl::Key{deadline, entry.sequence}, std::move(callback));
  if (position == queue.begin()) impl_->arm(clock, deadline);
  return entry;
}

bool TimerService::cancel(const Entry& entry) {
  std::function<void()> removed;  // Destroyed after the lock is released.
  {
    std::lock_guard guard(impl_->mutex);
    auto& queue = impl_->queues[entry.clock];
    auto position = queue.find(Impl::Key{entry.deadline, entry.sequence});
    if (position == queue.end()) return false;
    removed = std::move(position->second);
    queue.erase(position);
    // The timer may stay armed for the removed deadline; the spurious wake-up finds nothing due.
  }
  return true;
}

std::size_t TimerService::pendingCount() const {
  std::lock_guard guard(impl_->mutex);
  return impl_->queues[0].size() + impl_->queues[1].size();
}

}  // namespace carrow
