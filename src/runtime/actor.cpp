#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <thread>

#include <carrow/platform/cpu_relax.h>
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
    bool wake = false;
    {
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
      wake = sleeping_;
      signals_.fetch_add(1, std::memory_order_release);
    }
    // A spinning driver sees the signal count move; only a sleeping one costs a system call.
    if (wake) wakeup_.notify_all();
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
      // Work for the main actor tends to come in bursts of hops from other threads (a hop there
      // and back per step of a poll stream, say): waiting a little before sleeping catches the
      // next one without a futex wake-up on either side.
      const std::uint64_t seen = signals_.load(std::memory_order_relaxed);
      guard.unlock();
      const bool signalled = spinForSignal(seen);
      guard.lock();
      if (signalled) continue;
      sleeping_ = true;
      while (jobs_.empty() && !done) wakeup_.wait(guard);
      sleeping_ = false;
    }
  }

  /// Sets `done` and wakes the driving thread.
  void finish(bool& done) noexcept {
    bool wake = false;
    {
      std::lock_guard guard(mutex_);
      done = true;
      wake = sleeping_;
      signals_.fetch_add(1, std::memory_order_release);
    }
    if (wake) wakeup_.notify_all();
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

  // True when the signal count moved within the spin; yields now and then so that the thread
  // about to hand work over can run on a busy machine.
  bool spinForSignal(std::uint64_t seen) const noexcept {
    for (int round = 0; round < kSpinRounds; ++round) {
      if (signals_.load(std::memory_order_acquire) != seen) return true;
      if (round % 16 == 15) {
        std::this_thread::yield();
      } else {
        platform::cpuRelax();
      }
    }
    return false;
  }

  // As long as the global executor's workers spin (about ten microseconds): a burst of hops
  // took 15% longer without it, and spinning longer gained nothing.
  static constexpr int kSpinRounds = 200;

  std::mutex mutex_;
  std::condition_variable wakeup_;
  detail::JobQueue jobs_;  // guarded by mutex_, which the driving thread also sleeps on
  bool sleeping_ = false;  // the driver waits on wakeup_; guarded by mutex_
  // Moves at every enqueue and finish: what a spinning driver watches instead of the lock.
  std::atomic<std::uint64_t> signals_{0};
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
