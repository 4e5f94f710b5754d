#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

#include <carrow/runtime/cancellation_error.h>
#include <carrow/xpc/domain_error.h>

namespace carrow {

DomainError::DomainError(std::string domain, std::int64_t code)
    : domain_(std::move(domain)), code_(code), text_(domain_ + " " + std::to_string(code_)) {}

DomainError DomainError::reduce(std::exception_ptr error) {
  try {
    std::rethrow_exception(std::move(error));
  } catch (const DomainError& caught) {
    return DomainError(caught.domain(), caught.code());
  } catch (const std::system_error& caught) {
    const auto& category = caught.code().category();
    if (category == std::generic_category() || category == std::system_category()) {
      return DomainError(std::string(kPOSIXDomain), caught.code().value());
    }
    return DomainError(category.name(), caught.code().value());
  } catch (const CancellationError&) {
    return DomainError(std::string(kCancellationDomain), 1);
  } catch (const std::bad_alloc&) {
    return DomainError(std::string(kPOSIXDomain), ENOMEM);
  } catch (...) {
    return DomainError(std::string(kGenericDomain), 1);
  }
}

std::exception_ptr DomainError::toException(const DomainError& error) {
  if (error.domain() == kPOSIXDomain) {
    return std::make_exception_ptr(
        std::system_error(static_cast<int>(error.code()), std::generic_category()));
  }
  if (error.domain() == kCancellationDomain) return std::make_exception_ptr(CancellationError());
  return std::make_exception_ptr(error);
}

}  // namespace carrow
