#include <atomic>
#include <cstddef>
#include <mutex>
#include <utility>

#include <carrow/concurrency/unfair_lock.h>
#include <carrow/runtime/detail/task_context.h>
#include <carrow/runtime/executor.h>

#include "job_queue.h"

namespace carrow {

// The queue of a serial executor. Reference counted: the executor holds one reference and a
// scheduled drain holds another, so the executor may go away while its drain runs.
class SerialExecutor::Queue final : public Job {
 public:
  explicit Queue(Executor& target) noexcept : target_(target) {}

  void retain() noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
  void release() noexcept {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  void push(Job& job) noexcept {
    bool startDrain = false;
    {
      std::lock_guard guard(lock_);
      jobs_.push(job);
      startDrain = !std::exchange(scheduled_, true);
    }
    if (startDrain) {
      retain();
      target_.enqueue(*this);
    }
  }

  // The drain: runs a batch of jobs one after the other, then hands the thread back.
  void run() noexcept override {
    {
      detail::CurrentExecutorScope scope(this);
      for (std::size_t count = 0; count < kBatch; ++count) {
        Job* job = pop();
        if (job == nullptr) {
          release();
          return;
        }
        job->run();
      }
    }
    // More may remain: queue the drain again behind the target's other work (the drain keeps
    // its reference). If the queue turned out empty, pop() already cleared `scheduled_`.
    if (hasMore()) {
      target_.enqueue(*this);
    } else {
      release();
    }
  }

 private:
  static constexpr std::size_t kBatch = 64;

  Job* pop() noexcept {
    std::lock_guard guard(lock_);
    Job* job = jobs_.pop();
    if (job == nullptr) scheduled_ = false;
    return job;
  }

  bool hasMore() noexcept {
    std::lock_guard guard(lock_);
    const bool more = !jobs_.empty();
    if (!more) scheduled_ = false;
    return more;
  }

  ~Queue() = default;

  Executor& target_;
  std::atomic<std::uint32_t> references_{1};
  CRUnfairLock lock_;
  detail::JobQueue jobs_;
  bool scheduled_ = false;
};

SerialExecutor::SerialExecutor() : SerialExecutor(globalExecutor()) {}

SerialExecutor::SerialExecutor(Executor& target) : Executor(nullptr), queue_(new Queue(target)) {
  identity_ = queue_;
}

SerialExecutor::~SerialExecutor() {
  queue_->release();
}

void SerialExecutor::enqueue(Job& job) noexcept {
  queue_->push(job);
}

}  // namespace carrow
