#include <condition_variable>
#include <deque>
#include <mutex>
#include <pthread.h>
#include <thread>

#include <carrow/platform/dispatch_queue.h>
#include <carrow/platform/fatal_error.h>

namespace carrow::platform {

// Shared by the queue object and its thread, so that the thread may outlive the object when the
// object is destroyed by one of its own blocks.
struct DispatchQueue::State {
  std::mutex mutex;
  std::condition_variable wakeup;
  std::deque<std::unique_ptr<Work>> blocks;
  bool closing = false;
  std::thread::id threadID;

  void runUntilClosed() noexcept {
    std::unique_lock guard(mutex);
    for (;;) {
      if (blocks.empty()) {
        if (closing) return;
        wakeup.wait(guard);
        continue;
      }
      std::unique_ptr<Work> work = std::move(blocks.front());
      blocks.pop_front();
      guard.unlock();
      try {
        work->run();
      } catch (...) {
        fatalError("CarrowPrivate/Dispatch", __LINE__, "a block on a dispatch queue threw");
      }
      work.reset();
      guard.lock();
    }
  }
};

DispatchQueue::DispatchQueue(std::string label)
    : label_(std::move(label)), state_(std::make_shared<State>()) {
  std::thread thread([state = state_] { state->runUntilClosed(); });
  pthread_setname_np(thread.native_handle(), label_.substr(0, 15).c_str());
  {
    std::lock_guard guard(state_->mutex);
    state_->threadID = thread.get_id();
  }
  thread.detach();
}

DispatchQueue::~DispatchQueue() {
  {
    std::lock_guard guard(state_->mutex);
    state_->closing = true;
  }
  state_->wakeup.notify_one();
}

void DispatchQueue::submit(std::unique_ptr<Work> work) {
  // Notified under the lock: once it is released, the block may run and destroy this queue.
  std::lock_guard guard(state_->mutex);
  state_->blocks.push_back(std::move(work));
  state_->wakeup.notify_one();
}

bool DispatchQueue::isCurrent() const noexcept {
  std::lock_guard guard(state_->mutex);
  return state_->threadID == std::this_thread::get_id();
}

}  // namespace carrow::platform
