#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include <carrow/runtime/executor.h>

namespace carrow::detail::xpc {

/// Runs posted functions one at a time, in order, on its own serial executor: the events of one
/// connection (handlers, the start of each request). Posting never runs anything inline, so it
/// is safe under any lock and from the reactor thread.
class SerialQueue final : public Job, public std::enable_shared_from_this<SerialQueue> {
 public:
  void post(std::function<void()> work);
  SerialExecutor& executor() noexcept { return executor_; }
  void run() noexcept override;

 private:
  SerialExecutor executor_;
  std::mutex mutex_;
  std::deque<std::function<void()>> items_;
  bool scheduled_ = false;
  // Held while the job is queued, so that the queue outlives its own run.
  std::shared_ptr<SerialQueue> keepAlive_;
};

}  // namespace carrow::detail::xpc
