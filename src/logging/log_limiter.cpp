#include "log_limiter.h"

#include <mutex>
#include <string>

#include <carrow/logging/log.h>

namespace carrow::detail {

LogLimiter& LogLimiter::shared() {
  // Never destroyed: records may still be logged while static objects are torn down.
  static auto* limiter = new LogLimiter();
  return *limiter;
}

std::int64_t LogLimiter::count(const HashableValue& key) {
  std::lock_guard guard(lock_);
  auto found = countedOccurrences_.find(key);
  if (found == countedOccurrences_.end()) {
    countedOccurrences_.emplace(AnyHashable::retaining(key), 1);
    return 1;
  }
  return ++found->second;
}

void LogLimiter::limit(const HashableValue& key, LogLimit limit, const char* file) {
  std::lock_guard guard(lock_);
  if (alreadyLimited_.contains(key)) return;
  alreadyLimited_.insert(AnyHashable::retaining(key));
  std::string notice = "Limiting logging for limit: ";
  notice.append(rawValue(limit)).append(" key: \"").append(key.description()).append("\"");
  CRLog::logger()->log(notice, CRLogLevel::info, "LogLimits", file, 136);
}

}  // namespace carrow::detail
