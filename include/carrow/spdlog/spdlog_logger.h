#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <spdlog/spdlog.h>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

#include <carrow/logging/logger.h>

namespace carrow {

/// A `CRLogger` that forwards each record to an `spdlog::logger`, so that a program already on
/// spdlog keeps its sinks, pattern and level for the library's records too. Header-only; link
/// spdlog as usual (CMake: `CarrowPrivate::spdlog`, component `spdlog`).
///
/// - Levels: debug -> `spdlog::level::debug`, info -> `info`, error -> `err`.
/// - Call site: the record's file and line are the spdlog source location (`%s`, `%#`, `%@`
///   in a pattern).
/// - Category: spdlog has no such field, so a record with a category reads "Category: message"
///   (as the library's print logger writes it); one without reads "message".
/// - `shouldLog` (asked by `CRLog::debugIfEnabled`) follows the spdlog logger's level, which the
///   program may change at any time: debug records pass when it is debug or trace.
///
///     auto app = spdlog::stdout_color_mt("app");
///     carrow::CRLog::setLogger(std::make_shared<carrow::CRSpdlogLogger>(app));
///
/// Thread safety: as safe as the spdlog logger (the `_mt` loggers accept any thread). Lifetime:
/// it keeps the spdlog logger alive. Asynchronous spdlog loggers format records later, on their
/// own thread, after `log` has returned, while spdlog keeps only a pointer to the file name; so
/// each distinct file name is copied once into storage that lives until the process ends.
class CRSpdlogLogger final : public CRLogger {
 public:
  /// Forwards to `logger`, which must not be null.
  explicit CRSpdlogLogger(std::shared_ptr<spdlog::logger> logger) : logger_(std::move(logger)) {}

  /// The spdlog logger that receives the records.
  const std::shared_ptr<spdlog::logger>& logger() const noexcept { return logger_; }

  /// The spdlog level of a record's level.
  static spdlog::level::level_enum level(CRLogLevel level) noexcept {
    switch (level) {
      case CRLogLevel::debug:
        return spdlog::level::debug;
      case CRLogLevel::info:
        return spdlog::level::info;
      case CRLogLevel::error:
        return spdlog::level::err;
    }
    return spdlog::level::err;
  }

  bool shouldLog(std::optional<std::string_view>) override {
    return logger_->should_log(spdlog::level::debug);
  }

  void log(std::string_view message, CRLogLevel level, std::optional<std::string_view> category,
           const char* file, std::uint32_t line) override {
    const auto spdlogLevel = CRSpdlogLogger::level(level);
    if (!logger_->should_log(spdlogLevel)) return;
    // spdlog's source location holds the line as an int.
    const int siteLine = line > 0x7fffffffu ? 0x7fffffff : static_cast<int>(line);
    const spdlog::source_loc site(lastingFileName(file), siteLine, nullptr);
    if (!category) {
      logger_->log(site, spdlogLevel, spdlog::string_view_t(message.data(), message.size()));
      return;
    }
    std::string text;
    text.reserve(category->size() + 2 + message.size());
    text.append(*category).append(": ").append(message);
    logger_->log(site, spdlogLevel, spdlog::string_view_t(text.data(), text.size()));
  }

 private:
  // A copy of `file` that lives until the process ends; one per distinct file name.
  static const char* lastingFileName(const char* file) {
    static std::mutex mutex;
    static auto* names = new std::unordered_set<std::string>();  // never destroyed: see above
    std::lock_guard guard(mutex);
    return names->emplace(file).first->c_str();
  }

  std::shared_ptr<spdlog::logger> logger_;
};

}  // namespace carrow
