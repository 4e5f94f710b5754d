#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>

#include <carrow/logging/any_hashable.h>
#include <carrow/logging/log_level.h>
#include <carrow/logging/log_limit.h>
#include <carrow/logging/logger.h>

namespace carrow {

/// The library's logging facade. It writes nowhere itself: it counts records per key, drops those
/// past their `LogLimit`, and hands the rest to the one installed `CRLogger`.
///
/// Every record operation takes a category word, the message (already formatted), an optional
/// limit and an optional limit key (any `Hashable`; the message text is the key when none is
/// given), and the call site. Every record is counted, limited or not, so a key logged ten times
/// without a limit and then once with `aFewTimes` is limited at once. The first record past a
/// limit produces a single notice at level info in category "LogLimits"; later ones vanish.
///
///     CRLog::info("Bank", "Took First Lock");
///     CRLog::error("XPC", message, LogLimit::aFewTimes, connectionID);
class CRLog {
 public:
  using Level = CRLogLevel;
  using Category = std::optional<std::string_view>;
  /// A record's call site. Defaulted arguments of this type capture the caller's file and line
  /// (like `std::source_location`, which clang before 15 cannot provide).
  struct Site {
    const char* fileName;
    std::uint64_t lineNumber;
    static constexpr Site current(const char* file = __builtin_FILE(),
                                  std::uint64_t line = __builtin_LINE()) noexcept {
      return {file, line};
    }
    constexpr const char* file_name() const noexcept { return fileName; }
    constexpr std::uint64_t line() const noexcept { return lineNumber; }
  };

  /// The installed logger (a `CRFatalLogger` until a client installs one).
  static std::shared_ptr<CRLogger> logger();
  /// Installs `logger` for every record that reads it from now on. Done once, at start-up.
  static void setLogger(std::shared_ptr<CRLogger> logger);

  static void debug(Category category, std::string_view message,
                    std::optional<LogLimit> limit = std::nullopt, Site site = Site::current()) {
    record(Level::debug, category, message, limit, nullptr, site.file_name(), site.line());
  }
  template <class Key>
  static void debug(Category category, std::string_view message, std::optional<LogLimit> limit,
                    const Key& limitKey, Site site = Site::current()) {
    log(Level::debug, category, message, limit, limitKey, site.file_name(), site.line());
  }

  static void info(Category category, std::string_view message,
                   std::optional<LogLimit> limit = std::nullopt, Site site = Site::current()) {
    record(Level::info, category, message, limit, nullptr, site.file_name(), site.line());
  }
  template <class Key>
  static void info(Category category, std::string_view message, std::optional<LogLimit> limit,
                   const Key& limitKey, Site site = Site::current()) {
    log(Level::info, category, message, limit, limitKey, site.file_name(), site.line());
  }

  static void error(Category category, std::string_view message,
                    std::optional<LogLimit> limit = std::nullopt, Site site = Site::current()) {
    record(Level::error, category, message, limit, nullptr, site.file_name(), site.line());
  }
  template <class Key>
  static void error(Category category, std::string_view message, std::optional<LogLimit> limit,
                    const Key& limitKey, Site site = Site::current()) {
    log(Level::error, category, message, limit, limitKey, site.file_name(), site.line());
  }

  /// Asks the logger `shouldLog(category)` first; when it answers false nothing happens at all
  /// (the record is not even counted). Otherwise as `debug`.
  static void debugIfEnabled(Category category, std::string_view message,
                             std::optional<LogLimit> limit = std::nullopt,
                             Site site = Site::current()) {
    if (logger()->shouldLog(category)) debug(category, message, limit, site);
  }
  template <class Key>
  static void debugIfEnabled(Category category, std::string_view message,
                             std::optional<LogLimit> limit, const Key& limitKey,
                             Site site = Site::current()) {
    if (logger()->shouldLog(category)) debug(category, message, limit, limitKey, site);
  }

  /// The common path with an explicit file and line. A line that does not fit in 32 bits stops
  /// the process when the record is emitted.
  template <class Key>
  requires(!std::is_pointer_v<Key> && (detail::kIsText<Key> || Hashable<Key>)) static void log(
      Level level, Category category, std::string_view message, std::optional<LogLimit> limit,
      const Key& limitKey, const char* file, std::uint64_t line) {
    if constexpr (std::is_same_v<Key, AnyHashable>) {
      record(level, category, message, limit, &limitKey.erased(), file, line);
    } else {
      const auto key = detail::borrow(limitKey);
      record(level, category, message, limit, &key, file, line);
    }
  }
  /// The common path without a limit key: the message text is the key.
  static void log(Level level, Category category, std::string_view message,
                  std::optional<LogLimit> limit, std::nullopt_t, const char* file,
                  std::uint64_t line) {
    record(level, category, message, limit, nullptr, file, line);
  }

 private:
  static void record(Level level, Category category, std::string_view message,
                     std::optional<LogLimit> limit, const detail::HashableValue* limitKey,
                     const char* file, std::uint64_t line);
};

}  // namespace carrow
