#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <carrow/logging/logger.h>

namespace carrow {

/// A `CRLogger` that writes each record to the systemd journal, as structured fields:
///
/// | field | value |
/// |---|---|
/// | `MESSAGE` | the message |
/// | `PRIORITY` | the syslog priority of the level: debug 7, info 6, error 3 |
/// | `CODE_FILE`, `CODE_LINE` | the call site |
/// | `CARROW_CATEGORY` | the category, when the record has one |
///
/// so that `journalctl CARROW_CATEGORY=Bank` shows one subsystem's records. Messages may hold
/// any bytes, newlines included. It is part of the separate `CarrowPrivate::journal` component
/// (pkg-config `CarrowPrivateJournal`): only programs that use it link libsystemd.
///
///     carrow::CRLog::setLogger(std::make_shared<carrow::CRJournalLogger>(
///         std::set<std::string, std::less<>>{"Bank"}));   // debugIfEnabled passes for "Bank"
///
/// Thread safety: `log` and `shouldLog` may run on any number of threads at once; the logger
/// never changes after construction. When no journal runs, records are dropped silently (a
/// logger has nowhere to report its own failure).
class CRJournalLogger final : public CRLogger {
 public:
  /// The fields of one record, each "NAME=value", in the order of the table above.
  using Fields = std::vector<std::string>;
  /// Receives the fields of every record; `send` below is the one that writes to the journal.
  using Sender = std::function<void(const Fields&)>;
  /// The categories whose `debugIfEnabled` records pass; compared by their exact text.
  using Categories = std::set<std::string, std::less<>>;

  /// Passes `debugIfEnabled` records only for `debugCategories`; other records always pass.
  explicit CRJournalLogger(Categories debugCategories = {}, Sender sender = send);

  /// True only for a category in the set given at construction; false for no category.
  bool shouldLog(std::optional<std::string_view> category) override;
  void log(std::string_view message, CRLogLevel level, std::optional<std::string_view> category,
           const char* file, std::uint32_t line) override;

  /// The syslog priority of a level: debug 7 (LOG_DEBUG), info 6 (LOG_INFO), error 3 (LOG_ERR).
  static int priority(CRLogLevel level) noexcept;
  /// The fields that `log` hands its sender for one record.
  static Fields fields(std::string_view message, CRLogLevel level,
                       std::optional<std::string_view> category, const char* file,
                       std::uint32_t line);
  /// Writes one entry to the journal with `sd_journal_sendv`. Returns 0 (also when no journal
  /// runs: the entry is dropped) or a negative errno.
  static int send(const Fields& fields);

 private:
  Categories debugCategories_;
  Sender sender_;
};

}  // namespace carrow
