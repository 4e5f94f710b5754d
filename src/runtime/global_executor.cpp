#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>

#include <carrow/concurrency/unfair_lock.h>
#include <carrow/platform/cpu_relax.h>
#include <carrow/runtime/detail/task_context.h>
#include <carrow/runtime/executor.h>

#include "job_queue.h"

namespace carrow {

namespace {

// A pool of one worker per core around one FIFO queue. An idle worker spins briefly before it
// sleeps, and an enqueue wakes a sleeper only when no worker is spinning: a task that hands work
// to another and waits for the answer then costs no system call.
class GlobalExecutor final : public Executor {
 public:
  GlobalExecutor() {
    const std::size_t workers = std::max(2u, std::thread::hardware_concurrency());
    for (std::size_t index = 0; index < workers; ++index) {
      std::thread([this] { work(); }).detach();
    }
  }

  void enqueue(Job& job) noexcept override {
    bool wake = false;
    {
      std::lock_guard guard(queueLock_);
      jobs_.push(job);
      queued_.fetch_add(1, std::memory_order_relaxed);
      wake = sleepers_ > 0 && spinners_ == 0;
    }
    if (wake) {
      { std::lock_guard guard(sleepMutex_); }
      wakeup_.notify_one();
    }
  }

 private:
  // About ten microseconds: long enough for a task that handed work to another thread to get
  // its answer without sleeping (starting and awaiting a task, an actor hop), and a tenth of
  // the idle time that 2,000 rounds burned; longer spins measured no faster, here or across
  // processes.
  static constexpr int kSpinRounds = 200;

  Job* pop() noexcept {
    std::lock_guard guard(queueLock_);
    Job* job = jobs_.pop();
    if (job != nullptr) queued_.fetch_sub(1, std::memory_order_relaxed);
    return job;
  }

  // Spins for a while, if no other worker does; the queue is read without the lock first so that
  // spinning stays cheap. One spinner is enough to catch a handoff quickly, and leaving the
  // other cores free lets the thread that is about to hand work over run.
  Job* spinForJob() noexcept {
    bool spin = false;
    {
      std::lock_guard guard(queueLock_);
      spin = spinners_ == 0;
      if (spin) ++spinners_;
    }
    if (!spin) return nullptr;
    Job* job = nullptr;
    for (int round = 0; round < kSpinRounds && job == nullptr; ++round) {
      if (hasWork()) job = pop();
      if (job == nullptr) {
        if (round % 16 == 15) {
          std::this_thread::yield();
        } else {
          platform::cpuRelax();
        }
      }
    }
    changeCount(spinners_, -1);
    return job;
  }

  bool hasWork() const noexcept { return queued_.load(std::memory_order_relaxed) != 0; }

  void changeCount(int& count, int delta) noexcept {
    std::lock_guard guard(queueLock_);
    count += delta;
  }

  Job* sleepForJob() {
    std::unique_lock guard(sleepMutex_);
    changeCount(sleepers_, +1);
    Job* job = nullptr;
    // An enqueue that saw no sleeper happened before our count went up, so pop() sees its job;
    // one that came after sees the sleeper and notifies under sleepMutex_.
    while ((job = pop()) == nullptr) wakeup_.wait(guard);
    changeCount(sleepers_, -1);
    return job;
  }

  // Enqueues wake nobody while a worker spins; a worker that takes a job and leaves more behind
  // passes the baton, so a burst of work still spreads over every core.
  void wakeForBacklog() noexcept {
    if (!hasWork()) return;
    bool wake = false;
    {
      std::lock_guard guard(queueLock_);
      wake = !jobs_.empty() && sleepers_ > 0 && spinners_ == 0;
    }
    if (wake) {
      { std::lock_guard guard(sleepMutex_); }
      wakeup_.notify_one();
    }
  }

  [[noreturn]] void work() {
    detail::CurrentExecutorScope scope(this);
    for (;;) {
      Job* job = pop();
      if (job == nullptr) job = spinForJob();
      if (job == nullptr) job = sleepForJob();
      wakeForBacklog();
      job->run();
    }
  }

  CRUnfairLock queueLock_;
  detail::JobQueue jobs_;
  std::atomic<std::size_t> queued_{0};  // a hint for spinners; the queue itself is under the lock
  int sleepers_ = 0;
  int spinners_ = 0;
  std::mutex sleepMutex_;
  std::condition_variable wakeup_;
};

}  // namespace

Executor& globalExecutor() noexcept {
  // Never destroyed: detached workers may still run while the process exits.
  static GlobalExecutor* const executor = new GlobalExecutor();
  return *executor;
}

}  // namespace carrow
