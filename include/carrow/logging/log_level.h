#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace carrow {

/// The severity of a log record, in increasing order. Exposed as `CRLog::Level`.
enum class CRLogLevel : std::uint8_t { debug = 0, info = 1, error = 2 };

/// The level's raw value, which is also how it is printed: "Debug", "Info", "Error".
constexpr std::string_view rawValue(CRLogLevel level) noexcept {
  switch (level) {
    case CRLogLevel::debug:
      return "Debug";
    case CRLogLevel::info:
      return "Info";
    case CRLogLevel::error:
      return "Error";
  }
  return "Error";
}

/// The level whose raw value is exactly `raw` (case-sensitive), or nothing.
constexpr std::optional<CRLogLevel> logLevel(std::string_view raw) noexcept {
  for (auto level : {CRLogLevel::debug, CRLogLevel::info, CRLogLevel::error}) {
    if (rawValue(level) == raw) return level;
  }
  return std::nullopt;
}

}  // namespace carrow
