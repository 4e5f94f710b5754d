#include "tool_logger.h"

#include <cstdio>
#include <dlfcn.h>
#include <stdexcept>
#include <string>

#include "cli.h"

#if defined(CARROW_JOURNAL_LINKED)
extern "C" carrow::CRLogger* CarrowPrivateJournalLoggerNew();
#endif

namespace carrow::tool {

namespace {

std::shared_ptr<CRLogger> loadJournalLogger() {
#if defined(CARROW_JOURNAL_LINKED)
  return std::shared_ptr<CRLogger>(CarrowPrivateJournalLoggerNew());
#elif defined(CARROW_JOURNAL_LIBRARY)
  // Found through the tool's own library search entry, beside the main library. Never
  // unloaded: the logger's code must outlive every record.
  void* library = ::dlopen(CARROW_JOURNAL_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) throw std::runtime_error(std::string("cannot load ") + ::dlerror());
  using Make = CRLogger* (*)();
  auto make = reinterpret_cast<Make>(::dlsym(library, "CarrowPrivateJournalLoggerNew"));
  if (make == nullptr) throw std::runtime_error(std::string("cannot load ") + ::dlerror());
  return std::shared_ptr<CRLogger>(make());
#else
  throw std::runtime_error("this build has no journal logger (libsystemd was not found)");
#endif
}

class ToolLogger final : public CRLogger {
 public:
  ToolLogger(bool standardError, std::shared_ptr<CRLogger> journal)
      : standardError_(standardError), journal_(std::move(journal)) {}

  bool shouldLog(std::optional<std::string_view>) override {
    return standardError_ || journal_ != nullptr;
  }
  void log(std::string_view message, CRLogLevel level, std::optional<std::string_view> category,
           const char* file, std::uint32_t line) override {
    if (standardError_) {
      const auto text = formatRecord(message, level, category, file, line) + "\n";
      std::fwrite(text.data(), 1, text.size(), stderr);
    }
    if (journal_) journal_->log(message, level, category, file, line);
  }

 private:
  bool standardError_;
  std::shared_ptr<CRLogger> journal_;
};

}  // namespace

LogDestinations parseLogDestinations(std::string_view list) {
  LogDestinations destinations;
  std::size_t start = 0;
  while (start <= list.size()) {
    auto end = list.find(',', start);
    if (end == std::string_view::npos) end = list.size();
    const auto name = list.substr(start, end - start);
    if (name == "stderr") {
      destinations.standardError = true;
    } else if (name == "journal") {
      destinations.journal = true;
    } else {
      throw UsageError("--log: unknown destination '" + std::string(name)
                       + "' (stderr or journal)");
    }
    start = end + 1;
  }
  return destinations;
}

std::shared_ptr<CRLogger> makeToolLogger(LogDestinations destinations) {
  auto journal = destinations.journal ? loadJournalLogger() : nullptr;
  return std::make_shared<ToolLogger>(destinations.standardError, std::move(journal));
}

}  // namespace carrow::tool
