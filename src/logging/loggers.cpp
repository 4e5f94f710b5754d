#include <cstdio>
#include <cstring>
#include <string>

#include <carrow/logging/logger.h>
#include <carrow/platform/fatal_error.h>

namespace carrow {

std::string formatRecord(std::string_view message, CRLogLevel level,
                         std::optional<std::string_view> category, const char* file,
                         std::uint32_t line) {
  std::string text;
  text.reserve(message.size() + std::strlen(file) + 48);
  text.append(rawValue(level)).append(":");
  if (category) text.append(" ").append(*category).append(":");
  text.append(" ").append(message).append(" - file: ").append(file);
  text.append(" line: ").append(std::to_string(line)).append(" ");
  return text;
}

void CRPrintLogger::log(std::string_view message, CRLogLevel level,
                        std::optional<std::string_view> category, const char* file,
                        std::uint32_t line) {
  std::string text = formatRecord(message, level, category, file, line);
  text.push_back('\n');
  // One stdio call per record: stdout's own lock keeps lines from several threads whole.
  std::fwrite(text.data(), 1, text.size(), stdout);
}

void CRFatalLogger::log(std::string_view message, CRLogLevel level,
                        std::optional<std::string_view> category, const char* file,
                        std::uint32_t line) {
  fatalError("CarrowPrivate/CRLog", 187,
             "No Logger Set Up! - " + formatRecord(message, level, category, file, line));
}

}  // namespace carrow
