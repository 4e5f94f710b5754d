#pragma once

#include <cstdint>
#include <unordered_map>
#include <unordered_set>

#include <carrow/concurrency/unfair_lock.h>
#include <carrow/logging/any_hashable.h>
#include <carrow/logging/log_limit.h>
#include <carrow/logging/logger.h>

namespace carrow::detail {

/// Counts records per key for the life of the process and writes one notice per limited key.
class LogLimiter {
 public:
  /// The process-wide limiter, made on first use.
  static LogLimiter& shared();

  /// Counts one more record of `key` and returns the new count (the first record gives 1).
  std::int64_t count(const HashableValue& key);

  /// Records that `key` went past `limit`. The first time for a key, hands the installed logger
  /// the notice while the lock is held, so that no second notice for the key can overtake it.
  void limit(const HashableValue& key, LogLimit limit, const char* file);

 private:
  CRUnfairLock lock_;
  std::unordered_map<AnyHashable, std::int64_t, AnyHashableHash, AnyHashableEqual>
      countedOccurrences_;
  std::unordered_set<AnyHashable, AnyHashableHash, AnyHashableEqual> alreadyLimited_;
};

}  // namespace carrow::detail
