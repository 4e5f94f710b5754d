#pragma once

#include <stdexcept>
#include <string>

namespace carrow {

/// Thrown when an encoded collection cannot be decoded: a required key is missing, or a field
/// has the wrong type or a number out of range. `codingPath()` names the field, for example
/// "total" or "store.bucketCount" (empty for the top-level object itself).
class DecodingError : public std::runtime_error {
 public:
  DecodingError(std::string codingPath, const std::string& reason);

  const std::string& codingPath() const noexcept { return codingPath_; }

 private:
  std::string codingPath_;
};

}  // namespace carrow
