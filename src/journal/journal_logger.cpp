// Without this, sd_journal_sendv adds this file's own CODE_FILE, CODE_LINE and CODE_FUNC next to
// the record's call site, and journalctl shows each of the first two as a list of two values.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <array>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <utility>

#include <carrow/journal/journal_logger.h>

namespace carrow {

namespace {

// The journal holds at most this many fields per record from this logger.
constexpr std::size_t kMaxFields = 5;

std::string field(std::string_view name, std::string_view value) {
  std::string text;
  text.reserve(name.size() + 1 + value.size());
  text.append(name).append("=").append(value);
  return text;
}

}  // namespace

CRJournalLogger::CRJournalLogger(Categories debugCategories, Sender sender)
    : debugCategories_(std::move(debugCategories)), sender_(std::move(sender)) {}

bool CRJournalLogger::shouldLog(std::optional<std::string_view> category) {
  return category && debugCategories_.contains(*category);
}

void CRJournalLogger::log(std::string_view message, CRLogLevel level,
                          std::optional<std::string_view> category, const char* file,
                          std::uint32_t line) {
  sender_(fields(message, level, category, file, line));
}

int CRJournalLogger::priority(CRLogLevel level) noexcept {
  switch (level) {
    case CRLogLevel::debug:
      return 7;
    case CRLogLevel::info:
      return 6;
    case CRLogLevel::error:
      return 3;
  }
  return 3;
}

CRJournalLogger::Fields CRJournalLogger::fields(std::string_view message, CRLogLevel level,
                                                std::optional<std::string_view> category,
                                                const char* file, std::uint32_t line) {
  Fields fields;
  fields.reserve(kMaxFields);
  fields.push_back(field("MESSAGE", message));
  fields.push_back(field("PRIORITY", std::to_string(priority(level))));
  fields.push_back(field("CODE_FILE", file));
  fields.push_back(field("CODE_LINE", std::to_string(line)));
  if (category) fields.push_back(field("CARROW_CATEGORY", *category));
  return fields;
}

int CRJournalLogger::send(const Fields& fields) {
  std::array<iovec, kMaxFields> small;
  std::vector<iovec> large;
  iovec* vectors = small.data();
  if (fields.size() > small.size()) {
    large.resize(fields.size());
    vectors = large.data();
  }
  for (std::size_t i = 0; i < fields.size(); ++i) {
    // sd_journal_sendv only reads the buffers; iovec is not const-qualified.
    vectors[i].iov_base = const_cast<char*>(fields[i].data());
    vectors[i].iov_len = fields[i].size();
  }
  return sd_journal_sendv(vectors, static_cast<int>(fields.size()));
}

}  // namespace carrow
