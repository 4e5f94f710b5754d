#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace carrow {

/// How many records of one key pass before the key is limited.
enum class LogLimit : std::uint8_t {
  noFlood,    ///< the first 300 records pass
  aFewTimes,  ///< the first 5 records pass
};

/// The limit's raw value, which is also its printed name: "noFlood", "aFewTimes".
constexpr std::string_view rawValue(LogLimit limit) noexcept {
  return limit == LogLimit::noFlood ? "noFlood" : "aFewTimes";
}

/// The limit whose raw value is exactly `raw`, or nothing.
constexpr std::optional<LogLimit> logLimit(std::string_view raw) noexcept {
  if (raw == "noFlood") return LogLimit::noFlood;
  if (raw == "aFewTimes") return LogLimit::aFewTimes;
  return std::nullopt;
}

/// The number of records per key that pass under `limit`.
constexpr std::int64_t passingRecords(LogLimit limit) noexcept {
  return limit == LogLimit::noFlood ? 300 : 5;
}

}  // namespace carrow
