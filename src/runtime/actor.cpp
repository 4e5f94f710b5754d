#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include <carrow/runtime/actor.h>
#include <carrow/runtime/detail/runtime_threads.h>
#include <carrow/runtime/detail/task_state.h>
#include <carrow/runtime/run_main.h>

#include "job_queue.h"

namespace carrow {

namespace {

// The thread behind the main actor: the thread that first drives it, or a thread of its own
// started when work arrives before anyone drove it. Only the main actor's drain job is queued
// here, but any job would do.
class MainThreadExecutor final : public Executor {
 public:
  enum class Mode { unbound, driven, ownThread };

  void enqueue(Job& job) noexcept override {
    std::lock_guard guard(mutex_);
    jobs_.push(job);
    if (mode_ == Mode::unbound) {
      mode_ = Mode::ownThread;
      try {
        std::thread([this] { runForever(); }).detach();
      } catch (...) {
        detail::runtimeFatal(__LINE__, "could not start the main actor's thread");
      }
    }
    wakeup_.notify_all();
  }

  /// Binds the main actor to the calling thread if it is free or already bound to it.
  bool bindToCallingThread() noexcept {
    std::lock_guard guard(mutex_);
    if (mode_ == Mode::unbound) {
      mode_ = Mode::driven;
      driver_ = std::this_thread::get_id();
    }
    return mode_ == Mode::driven && driver_ == std::this_thread::get_id();
  }

  /// True if the main actor runs on the calling thread: the thread that drives it, or its own.
  bool isBoundToCallingThread() noexcept {
    std::lock_guard guard(mutex_);
    return (mode_ == Mode::driven && driver_ == std::this_thread::get_id())
           || (mode_ == Mode::ownThread && ownThread_ == std::this_thread::get_id());
  }

  /// Runs queued jobs until none is left; returns whether any ran.
  bool drainNow() noexcept {
    bool ranAny = false;
    while (Job* job = pop()) {
      job->run();
      ranAny = true;
    }
    return ranAny;
  }

  /// Runs jobs as they come until `done` is set (under the executor's mutex, see `finish`).
  void driveUntil(const bool& done) noexcept {
    std::unique_lock guard(mutex_);
    for (;;) {
      if (Job* job = popLocked()) {
        guard.unlock();
        job->run();
        guard.lock();
        continue;
      }
      if (done) return;
      wakeup_.wait(guard);
    }
  }

  /// Sets `done` and wakes the driving thread.
  void finish(bool& done) noexcept {
    std::lock_guard guard(mutex_);
    done = true;
    wakeup_.notify_all();
  }

 private:
  Job* pop() noexcept {
    std::lock_guard guard(mutex_);
    return popLocked();
  }

  Job* popLocked() noexcept { return jobs_.pop(); }

  [[noreturn]] void runForever() noexcept {
    {
      std::lock_guard guard(mutex_);
      ownThread_ = std::this_thread::get_id();
    }
    const bool never = false;
    for (;;) driveUntil(never);
  }

  std::mutex mutex_;
  std::condition_variable wakeup_;
  detail::JobQueue jobs_;  // guarded by mutex_, which the driving thread also sleeps on
  Mode mode_ = Mode::unbound;
  std::thread::id driver_;
  std::thread::id ownThread_;
};

MainThreadExecutor& mainThreadExecutor() noexcept {
  static MainThreadExecutor* const executor = new MainThreadExecutor();
  return *executor;
}

// Wakes a thread blocked in blockUntilFinished.
struct BlockingWaiter : detail::TaskWaiter {
  BlockingWaiter() noexcept : TaskWaiter(&wakeUp) {}
  static void wakeUp(TaskWaiter& waiter) noexcept {
    auto& self = static_cast<BlockingWaiter&>(waiter);
    if (self.drivesMainActor) {
      mainThreadExecutor().finish(self.done);
    } else {
      std::lock_guard guard(self.mutex);
      self.done = true;
      self.wakeup.notify_all();
    }
  }

  bool drivesMainActor = false;
  bool done = false;
  std::mutex mutex;
  std::condition_variable wakeup;
};

}  // namespace

Actor::Actor() : executor_(new SerialExecutor()), ownsExecutor_(true) {}

Actor::Actor(SerialExecutor& executor) noexcept : executor_(&executor), ownsExecutor_(false) {}

Actor::~Actor() {
  if (ownsExecutor_) delete executor_;
}

void Actor::assertIsolated() const noexcept {
  if (!isIsolated()) detail::runtimeFatal(__LINE__, "expected to run on the actor's executor");
}

MainActor::MainActor() noexcept : Actor(*new SerialExecutor(mainThreadExecutor())) {}

MainActor::~MainActor() = default;

MainActor& MainActor::shared() noexcept {
  static MainActor* const actor = new MainActor();
  return *actor;
}

bool MainActor::drain() noexcept {
  MainThreadExecutor& executor = mainThreadExecutor();
  if (!executor.bindToCallingThread()) {
    detail::runtimeFatal(__LINE__, "the main actor is bound to another thread");
  }
  return executor.drainNow();
}

namespace detail {

bool isRuntimeThread() noexcept {
  return currentExecutorIdentity() != nullptr || mainThreadExecutor().isBoundToCallingThread();
}

void blockUntilFinished(TaskStateCore& task) noexcept {
  BlockingWaiter waiter;
  MainThreadExecutor& executor = mainThreadExecutor();
  waiter.drivesMainActor = executor.bindToCallingThread();
  if (!task.addWaiter(waiter)) return;
  if (waiter.drivesMainActor) {
    executor.driveUntil(waiter.done);
  } else {
    std::unique_lock guard(waiter.mutex);
    waiter.wakeup.wait(guard, [&] { return waiter.done; });
  }
}

}  // namespace detail

}  // namespace carrow
