#include <algorithm>
#include <mutex>
#include <vector>

#include <carrow/runtime/detail/start_on.h>
#include <carrow/runtime/detail/task_state.h>
#include <carrow/runtime/executor.h>
#include <carrow/runtime/task_group.h>

namespace carrow::detail {

namespace {

// Initial-exec, as the runtime's other thread-locals (see task_context.cpp).
[[gnu::tls_model("initial-exec")]] thread_local Executor* launchOverride = nullptr;

}  // namespace

LaunchTargetScope::LaunchTargetScope(Executor& target) noexcept
    : previous_(std::exchange(launchOverride, &target)) {}

LaunchTargetScope::~LaunchTargetScope() {
  launchOverride = previous_;
}

Executor& launchTarget() noexcept {
  return launchOverride != nullptr ? *launchOverride : globalExecutor();
}

bool TaskStateCore::addWaiter(TaskWaiter& waiter) noexcept {
  TaskWaiter* head = waiters_.load(std::memory_order_acquire);
  do {
    if (head == finishedMark()) return false;
    waiter.next = head;
  } while (!waiters_.compare_exchange_weak(head, &waiter, std::memory_order_acq_rel,
                                           std::memory_order_acquire));
  return true;
}

void TaskStateCore::launch(std::coroutine_handle<> body) noexcept {
  executor = &launchTarget();
  schedule(body);
}

void TaskStateCore::publishFinished() noexcept {
  if (group != nullptr) {
    group->childFinished(*this);
  } else {
    TaskWaiter* waiter = waiters_.exchange(finishedMark(), std::memory_order_acq_rel);
    while (waiter != nullptr) {
      TaskWaiter* next = waiter->next;  // the waiter's frame may be gone once it is woken
      waiter->wake(*waiter);
      waiter = next;
    }
  }
  release();  // the reference the running body held
}

GroupCore::GroupCore(TaskContext& parent) noexcept : parent_(parent) {
  if (!parent_.addCancellationRecord(parentRecord_)) {
    cancelled_.store(true, std::memory_order_release);
  }
}

GroupCore::~GroupCore() {
  parent_.removeCancellationRecord(parentRecord_);
}

void GroupCore::onParentCancelled(CancellationRecord& record) noexcept {
  static_cast<ParentRecord&>(record).group.cancelAll();
}

bool GroupCore::isCancelled() const noexcept {
  return cancelled_.load(std::memory_order_acquire) || parent_.isCancelled();
}

bool GroupCore::isEmpty() const noexcept {
  std::lock_guard guard(lock_);
  return running_ == nullptr && finishedHead_ == nullptr;
}

void GroupCore::adopt(TaskStateCore& child) noexcept {
  child.retain();  // the group's reference, handed to whoever takes the child from `next()`
  bool cancelNow = false;
  {
    std::lock_guard guard(lock_);
    child.groupPrev = nullptr;
    child.groupNext = running_;
    if (running_ != nullptr) running_->groupPrev = &child;
    running_ = &child;
    cancelNow = cancelled_.load(std::memory_order_acquire);
  }
  if (cancelNow) child.cancel();
}

void GroupCore::childFinished(TaskStateCore& child) noexcept {
  std::coroutine_handle<> waiter;
  {
    std::lock_guard guard(lock_);
    if (child.groupPrev != nullptr) {
      child.groupPrev->groupNext = child.groupNext;
    } else {
      running_ = child.groupNext;
    }
    if (child.groupNext != nullptr) child.groupNext->groupPrev = child.groupPrev;
    child.groupPrev = nullptr;
    child.groupNext = nullptr;
    if (finishedTail_ != nullptr) {
      finishedTail_->groupNext = &child;
    } else {
      finishedHead_ = &child;
    }
    finishedTail_ = &child;
    waiter = std::exchange(waiter_, {});
  }
  if (waiter) parent_.schedule(waiter);
}

void GroupCore::cancelAll() noexcept {
  cancelled_.store(true, std::memory_order_release);
  // Children's handlers run without the group's lock: hold references instead.
  std::vector<TaskStateCore*> children;
  {
    std::lock_guard guard(lock_);
    try {
      for (TaskStateCore* child = running_; child != nullptr; child = child->groupNext) {
        children.push_back(child);
        child->retain();
      }
    } catch (...) {
      // Out of memory: cancel the rest under the lock rather than not at all.
      for (TaskStateCore* child = running_; child != nullptr; child = child->groupNext) {
        if (std::find(children.begin(), children.end(), child) == children.end()) child->cancel();
      }
    }
  }
  for (TaskStateCore* child : children) {
    child->cancel();
    child->release();
  }
}

TaskStateCore* GroupCore::popFinishedLocked() noexcept {
  TaskStateCore* child = finishedHead_;
  if (child != nullptr) {
    finishedHead_ = child->groupNext;
    if (finishedHead_ == nullptr) finishedTail_ = nullptr;
    child->groupNext = nullptr;
  }
  return child;
}

TaskStateCore* GroupCore::takeFinished(bool& noneRunning) noexcept {
  std::lock_guard guard(lock_);
  TaskStateCore* child = popFinishedLocked();
  noneRunning = child == nullptr && running_ == nullptr;
  return child;
}

TaskStateCore* GroupCore::waitForChild(std::coroutine_handle<> handle) noexcept {
  std::lock_guard guard(lock_);
  TaskStateCore* child = popFinishedLocked();
  if (child == nullptr) waiter_ = handle;
  return child;
}

}  // namespace carrow::detail
