#include <limits>

#include <carrow/concurrency/atomic.h>
#include <carrow/logging/log.h>
#include <carrow/platform/fatal_error.h>

#include "log_limiter.h"

namespace carrow {
namespace {

Atomic<std::shared_ptr<CRLogger>>& installedLogger() {
  // Never destroyed, for the same reason as the limiter.
  static auto* logger = new Atomic<std::shared_ptr<CRLogger>>(std::make_shared<CRFatalLogger>());
  return *logger;
}

}  // namespace

std::shared_ptr<CRLogger> CRLog::logger() {
  return installedLogger().wrappedValue();
}

void CRLog::setLogger(std::shared_ptr<CRLogger> logger) {
  installedLogger().setWrappedValue(std::move(logger));
}

void CRLog::record(Level level, Category category, std::string_view message,
                   std::optional<LogLimit> limit, const detail::HashableValue* limitKey,
                   const char* file, std::uint64_t line) {
  const detail::TextValue<std::string_view> messageKey(message);
  const detail::HashableValue& key = limitKey != nullptr ? *limitKey : messageKey;

  auto& limiter = detail::LogLimiter::shared();
  const std::int64_t occurrences = limiter.count(key);
  if (limit && occurrences > passingRecords(*limit)) {
    limiter.limit(key, *limit, __FILE__);
    return;
  }

  if (line > std::numeric_limits<std::uint32_t>::max()) {
    fatalError("CarrowPrivate/CRLog", __LINE__, "Not enough bits to represent the passed value");
  }
  logger()->log(message, level, category, file, static_cast<std::uint32_t>(line));
}

}  // namespace carrow
