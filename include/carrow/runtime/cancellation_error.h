#pragma once

#include <exception>

namespace carrow {

/// The error that cancelled work throws: `checkCancellation()`, sleeps and streams throw it when
/// their task has been cancelled. Catch it by type to tell cancellation from failure.
class CancellationError : public std::exception {
 public:
  const char* what() const noexcept override;
};

}  // namespace carrow
