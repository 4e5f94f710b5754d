#pragma once

namespace carrow {

/// Anything that can be asked to stop: every `Task` and the XPC task group's entries.
///
/// Cancelling is a request, never pre-emptive: it sets a flag that the work observes at its
/// suspension points and runs the cancellation handlers the work has installed. `cancel()` may be
/// called any number of times from any thread, including while holding a lock of one's own.
class CancellableTask {
 public:
  virtual ~CancellableTask() = default;

  /// Asks the work to stop. Cancelling twice is the same as cancelling once.
  virtual void cancel() const noexcept = 0;

 protected:
  CancellableTask() = default;
  CancellableTask(const CancellableTask&) = default;
  CancellableTask& operator=(const CancellableTask&) = default;
};

}  // namespace carrow
