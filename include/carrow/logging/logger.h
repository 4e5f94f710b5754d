#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <carrow/logging/log_level.h>

namespace carrow {

/// The receiver of every log record that passes the facade. A client program installs one with
/// `CRLog::setLogger`. It must accept calls from several threads at once, and must not log through
/// `CRLog` from inside `log` (the limiter may be calling it with its lock held).
class CRLogger {
 public:
  virtual ~CRLogger() = default;

  /// Asked only by `CRLog::debugIfEnabled`: false drops the record before it is even counted.
  virtual bool shouldLog(std::optional<std::string_view> category) = 0;

  /// Receives one record. `file` is valid only for the duration of the call.
  virtual void log(std::string_view message, CRLogLevel level,
                   std::optional<std::string_view> category, const char* file,
                   std::uint32_t line) = 0;
};

/// The text of a record as the library's loggers print it, without a newline:
/// "Info: Bank: message - file: /path.cpp line: 12 " (the category part only when given).
std::string formatRecord(std::string_view message, CRLogLevel level,
                         std::optional<std::string_view> category, const char* file,
                         std::uint32_t line);

/// Prints each record as one line on standard output.
class CRPrintLogger final : public CRLogger {
 public:
  bool shouldLog(std::optional<std::string_view>) override { return true; }
  void log(std::string_view message, CRLogLevel level, std::optional<std::string_view> category,
           const char* file, std::uint32_t line) override;
};

/// The logger in place until a client installs one: its first record stops the process with
/// "No Logger Set Up! - " and the record, so that a program that forgot to install a logger
/// finds out at once.
class CRFatalLogger final : public CRLogger {
 public:
  bool shouldLog(std::optional<std::string_view>) override { return true; }
  [[noreturn]] void log(std::string_view message, CRLogLevel level,
                        std::optional<std::string_view> category, const char* file,
                        std::uint32_t line) override;
};

}  // namespace carrow
