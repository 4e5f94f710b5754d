#include "serial_queue.h"

#include <carrow/logging/log.h>

namespace carrow::detail::xpc {

void SerialQueue::post(std::function<void()> work) {
  bool schedule = false;
  {
    std::lock_guard guard(mutex_);
    items_.push_back(std::move(work));
    if (!scheduled_) {
      scheduled_ = true;
      schedule = true;
      keepAlive_ = shared_from_this();
    }
  }
  if (schedule) executor_.enqueue(*this);
}

void SerialQueue::run() noexcept {
  std::deque<std::function<void()>> batch;
  {
    std::lock_guard guard(mutex_);
    batch.swap(items_);
  }
  for (auto& work : batch) {
    try {
      work();
    } catch (const std::exception& error) {
      CRLog::error("XPC", std::string("A connection handler threw: ") + error.what());
    } catch (...) {
      CRLog::error("XPC", "A connection handler threw");
    }
  }
  batch.clear();
  std::shared_ptr<SerialQueue> self;
  {
    std::lock_guard guard(mutex_);
    if (items_.empty()) {
      scheduled_ = false;
      self = std::move(keepAlive_);
    }
  }
  if (!self) executor_.enqueue(*this);
  // `self` may be the last reference: nothing of this object is touched after it goes.
}

}  // namespace carrow::detail::xpc
