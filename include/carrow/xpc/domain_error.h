#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

namespace carrow {

/// An error reduced to a domain and a code, with no further information: what crosses an XPC
/// connection, and what `XPCTaskGroup::withXPCTask` throws for a failed request.
///
/// `reduce` maps errors as follows:
/// - `std::system_error` of the generic or system category: `kPOSIXDomain` and the errno;
///   of another category: that category's name and the code;
/// - `CancellationError`: `kCancellationDomain`, code 1;
/// - `DomainError`: itself; `std::bad_alloc`: `kPOSIXDomain`, ENOMEM;
/// - anything else: the domain "carrow.Error" and code 1.
class DomainError : public std::exception {
 public:
  static constexpr std::string_view kPOSIXDomain = "NSPOSIXErrorDomain";
  static constexpr std::string_view kCancellationDomain = "carrow.CancellationError";
  static constexpr std::string_view kGenericDomain = "carrow.Error";

  DomainError(std::string domain, std::int64_t code);

  const std::string& domain() const noexcept { return domain_; }
  std::int64_t code() const noexcept { return code_; }
  /// "domain code", for diagnostics.
  const char* what() const noexcept override { return text_.c_str(); }

  /// The domain and code of `error` (not null).
  static DomainError reduce(std::exception_ptr error);

  /// The error a client rethrows for a remote error: `std::system_error` (generic category) for
  /// the POSIX domain, `CancellationError` for the cancellation domain, else the DomainError.
  static std::exception_ptr toException(const DomainError& error);

  friend bool operator==(const DomainError& lhs, const DomainError& rhs) noexcept {
    return lhs.domain_ == rhs.domain_ && lhs.code_ == rhs.code_;
  }

 private:
  std::string domain_;
  std::int64_t code_;
  std::string text_;
};

}  // namespace carrow
