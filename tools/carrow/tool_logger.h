#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include <carrow/logging/logger.h>

namespace carrow::tool {

/// Where the tool sends the library's log records; none drops them.
struct LogDestinations {
  bool standardError = false;
  bool journal = false;
};

/// Parses the value of --log: a comma-separated list of "stderr" and "journal". Throws
/// UsageError for anything else.
LogDestinations parseLogDestinations(std::string_view list);

/// The tool's logger: writes each record to every destination asked for. The journal logger is
/// loaded only when asked for, so that the tool's ordinary start-up never maps libsystemd;
/// throws std::runtime_error when it cannot be loaded.
std::shared_ptr<CRLogger> makeToolLogger(LogDestinations destinations);

}  // namespace carrow::tool
