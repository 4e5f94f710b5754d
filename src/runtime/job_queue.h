#pragma once

#include <carrow/runtime/executor.h>

namespace carrow::detail {

/// The intrusive first-in, first-out list of jobs behind every executor of the runtime. It links
/// jobs through `Job::nextJob`, so queueing never allocates and cannot fail. Not thread-safe:
/// each executor guards its queue with its own lock.
class JobQueue {
 public:
  /// Appends `job`, which must not be queued anywhere else.
  void push(Job& job) noexcept {
    job.nextJob = nullptr;
    if (tail_ != nullptr) {
      tail_->nextJob = &job;
    } else {
      head_ = &job;
    }
    tail_ = &job;
  }

  /// Unlinks and returns the oldest job, or null when the queue is empty.
  Job* pop() noexcept {
    Job* job = head_;
    if (job != nullptr) {
      head_ = job->nextJob;
      if (head_ == nullptr) tail_ = nullptr;
    }
    return job;
  }

  bool empty() const noexcept { return head_ == nullptr; }

 private:
  Job* head_ = nullptr;
  Job* tail_ = nullptr;
};

}  // namespace carrow::detail
