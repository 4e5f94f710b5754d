#pragma once

// What the producer of a stream learns: how the stream ended, and what became of a yielded
// element. Both are plain values that may be copied to and read on any thread.

#include <exception>
#include <utility>

namespace carrow {

/// How a stream ended, as its termination handler is told.
class StreamTermination {
 public:
  enum class Kind { finished, cancelled };

  /// The producer finished the stream, with `error` (null for a normal end).
  static StreamTermination finished(std::exception_ptr error = nullptr) noexcept {
    return StreamTermination(Kind::finished, std::move(error));
  }
  /// The consumer went away: its iterator (and every copy of the stream) was dropped, or its task
  /// was cancelled while reading.
  static StreamTermination cancelled() noexcept { return StreamTermination(Kind::cancelled, {}); }

  Kind kind() const noexcept { return kind_; }
  bool isCancelled() const noexcept { return kind_ == Kind::cancelled; }
  /// The error the stream was finished with; null for a normal end or a cancellation.
  std::exception_ptr error() const noexcept { return error_; }

 private:
  StreamTermination(Kind kind, std::exception_ptr error) noexcept
      : kind_(kind), error_(std::move(error)) {}

  Kind kind_;
  std::exception_ptr error_;
};

/// What became of a yielded element.
enum class StreamYieldResult {
  enqueued,    ///< handed to the waiting consumer or buffered for it
  terminated,  ///< dropped: the stream had already ended
};

}  // namespace carrow
