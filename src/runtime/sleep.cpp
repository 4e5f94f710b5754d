#include <limits>

#include <carrow/runtime/cancellation_error.h>
#include <carrow/runtime/sleep.h>

namespace carrow {
namespace {

// State bits of a sleep. The task resumes once the sleep is both armed (its set-up is finished
// and will not touch the awaiter again) and decided (the timer fired, or cancellation removed
// the timer entry); whoever sets the second of the two schedules the task.
constexpr std::uint32_t kArmed = 1;
constexpr std::uint32_t kDecided = 2;
constexpr std::uint32_t kFired = 4;
constexpr std::uint32_t kCancelled = 8;

bool currentTaskIsCancelled() {
  detail::TaskContext* context = detail::currentTaskContext();
  return context != nullptr && context->isCancelled();
}

}  // namespace

SleepAwaiter::SleepAwaiter(ClockKind clock, std::int64_t deadline, bool throwsOnCancel)
    : clock_(clock), throwsOnCancel_(throwsOnCancel), deadline_(deadline) {
  if (currentTaskIsCancelled()) {
    if (throwsOnCancel_) throw CancellationError();
    cancelledAtCreation_ = true;
    ready_ = true;  // ends without suspending, as false
    return;
  }
  const std::int64_t now = clock == ClockKind::continuous
                               ? ContinuousClock::now().time_since_epoch().count()
                               : SuspendingClock::now().time_since_epoch().count();
  ready_ = deadline <= now;
}

SleepAwaiter sleepUntil(ContinuousClock::time_point deadline) {
  return SleepAwaiter(SleepAwaiter::ClockKind::continuous, deadline.time_since_epoch().count());
}

SleepAwaiter sleepUntil(SuspendingClock::time_point deadline) {
  return SleepAwaiter(SleepAwaiter::ClockKind::suspending, deadline.time_since_epoch().count());
}

SleepAwaiter sleepUntilOrCancelled(ContinuousClock::time_point deadline) {
  return SleepAwaiter(SleepAwaiter::ClockKind::continuous, deadline.time_since_epoch().count(),
                      false);
}

SleepAwaiter sleep(ContinuousClock::duration duration) {
  const auto now = ContinuousClock::now();
  const auto limit = ContinuousClock::time_point::max() - now;
  return sleepUntil(duration >= limit ? ContinuousClock::time_point::max() : now + duration);
}

void SleepAwaiter::start(detail::TaskContext& context, std::coroutine_handle<> handle) {
  context_ = &context;
  handle_ = handle;
  if (!context.addCancellationRecord(record_)) {
    // Cancelled since the check at creation: end at once, through the executor.
    state_.store(kArmed | kDecided | kCancelled, std::memory_order_relaxed);
    context.schedule(handle);
    return;
  }
  registered_ = true;
  TimerService::Entry entry;
  try {
    auto callback = [this] { fired(); };
    entry = clock_ == ClockKind::continuous
                ? TimerService::shared().schedule(
                    ContinuousClock::time_point(ContinuousClock::duration(deadline_)), callback)
                : TimerService::shared().schedule(
                    SuspendingClock::time_point(SuspendingClock::duration(deadline_)), callback);
  } catch (...) {
    context.removeCancellationRecord(record_);
    registered_ = false;
    throw;  // The awaiting coroutine resumes with the error.
  }
  entry_ = entry;
  // Publishing point: after this exchange, another thread may resume the task at any moment, so
  // only locals are used below.
  const std::uint32_t before = state_.fetch_or(kArmed, std::memory_order_acq_rel);
  if ((before & kDecided) != 0) {
    context.schedule(handle);  // The timer fired during set-up and left the resumption to us.
    return;
  }
  if ((before & kCancelled) != 0) {
    // Cancelled during set-up; the handler saw the sleep unarmed and left the entry to us.
    if (TimerService::shared().cancel(entry)) {
      state_.fetch_or(kDecided, std::memory_order_acq_rel);
      context.schedule(handle);
    }
    // Otherwise the timer fired meanwhile and its callback, seeing the sleep armed, resumes it.
  }
}

void SleepAwaiter::fired() noexcept {
  const std::uint32_t before = state_.fetch_or(kDecided | kFired, std::memory_order_acq_rel);
  if ((before & kArmed) != 0) resume();
}

void SleepAwaiter::onCancel(detail::CancellationRecord& record) noexcept {
  // The task cannot finish this await while this handler runs: removing the record waits for it.
  SleepAwaiter& self = static_cast<Record&>(record).owner;
  const std::uint32_t before = self.state_.fetch_or(kCancelled, std::memory_order_acq_rel);
  if ((before & kArmed) == 0 || (before & kDecided) != 0) return;
  if (TimerService::shared().cancel(self.entry_)) {
    self.state_.fetch_or(kDecided, std::memory_order_acq_rel);
    self.resume();
  }
}

void SleepAwaiter::resume() noexcept {
  context_->schedule(handle_);
}

bool SleepAwaiter::await_resume() {
  if (registered_) context_->removeCancellationRecord(record_);
  if (ready_) return !cancelledAtCreation_;
  if ((state_.load(std::memory_order_acquire) & kFired) != 0) return true;
  if (throwsOnCancel_) throw CancellationError();
  return false;
}

}  // namespace carrow
