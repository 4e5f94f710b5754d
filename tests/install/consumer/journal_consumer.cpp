// A program outside the project that logs to the journal through the installed component.
#include <cstdio>
#include <memory>

#include <carrow/journal/journal_logger.h>
#include <carrow/logging/log.h>

int main() {
  std::size_t fieldCount = 0;
  auto keep = [&fieldCount](const carrow::CRJournalLogger::Fields& fields) {
    fieldCount = fields.size();
    carrow::CRJournalLogger::send(fields);
  };
  carrow::CRLog::setLogger(
      std::make_shared<carrow::CRJournalLogger>(carrow::CRJournalLogger::Categories{"Bank"}, keep));
  carrow::CRLog::info("Bank", "installed journal logger");
  std::printf("journal %s\n", fieldCount == 5 ? "ok" : "broken");
  return 0;
}
