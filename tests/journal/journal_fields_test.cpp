#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/journal/journal_logger.h>
#include <carrow/logging/log.h>

namespace carrow {
namespace {

using Fields = CRJournalLogger::Fields;

// Keeps the fields of every record instead of writing them to the journal.
struct FieldRecorder {
  std::mutex mutex;
  std::vector<Fields> records;

  CRJournalLogger::Sender sender() {
    return [this](const Fields& fields) {
      std::lock_guard guard(mutex);
      records.push_back(fields);
    };
  }
};

TEST(CRJournalLogger, FieldsOfEachLevelWithAndWithoutCategory) {
  struct Case {
    CRLogLevel level;
    std::optional<std::string_view> category;
    Fields expected;
  };
  const Case cases[] = {
      {CRLogLevel::debug,
       "Bank",
       {"MESSAGE=m", "PRIORITY=7", "CODE_FILE=/src/a.cpp", "CODE_LINE=12", "CARROW_CATEGORY=Bank"}},
      {CRLogLevel::info,
       "XPC",
       {"MESSAGE=m", "PRIORITY=6", "CODE_FILE=/src/a.cpp", "CODE_LINE=12", "CARROW_CATEGORY=XPC"}},
      {CRLogLevel::error,
       std::nullopt,
       {"MESSAGE=m", "PRIORITY=3", "CODE_FILE=/src/a.cpp", "CODE_LINE=12"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CRJournalLogger::fields("m", c.level, c.category, "/src/a.cpp", 12), c.expected)
        << rawValue(c.level);
  }
}

TEST(CRJournalLogger, MessagesKeepEveryByteAndTheLargestLine) {
  const std::string message = std::string("two\nlines = \"quoted\"\t") + '\0' + "after nul";
  const auto fields = CRJournalLogger::fields(message, CRLogLevel::info, "", "f", 4294967295u);
  EXPECT_EQ(fields[0], "MESSAGE=" + message);
  EXPECT_EQ(fields[3], "CODE_LINE=4294967295");
  EXPECT_EQ(fields[4], "CARROW_CATEGORY=");
}

TEST(CRJournalLogger, DebugRecordsPassOnlyForTheGivenCategories) {
  CRJournalLogger logger({"Bank", "XPC"}, [](const Fields&) {});
  EXPECT_TRUE(logger.shouldLog("Bank"));
  EXPECT_TRUE(logger.shouldLog("XPC"));
  EXPECT_FALSE(logger.shouldLog("bank"));
  EXPECT_FALSE(logger.shouldLog("AttrListDisk"));
  EXPECT_FALSE(logger.shouldLog(std::nullopt));
  EXPECT_FALSE(CRJournalLogger().shouldLog("Bank"));
}

TEST(CRJournalLogger, RecordsFromTheFacadeCarryTheirCallSiteAndCategory) {
  FieldRecorder recorder;
  CRLog::setLogger(
      std::make_shared<CRJournalLogger>(CRJournalLogger::Categories{"Bank"}, recorder.sender()));
  const auto line = __LINE__ + 1;
  CRLog::error("Bank", "lost a key");
  CRLog::debugIfEnabled("XPC", "filtered out");
  CRLog::debugIfEnabled("Bank", "passed");

  ASSERT_EQ(recorder.records.size(), 2u);
  const Fields& first = recorder.records[0];
  ASSERT_EQ(first.size(), 5u);
  EXPECT_EQ(first[0], "MESSAGE=lost a key");
  EXPECT_EQ(first[1], "PRIORITY=3");
  EXPECT_EQ(std::filesystem::path(first[2]).filename(), "journal_fields_test.cpp");
  EXPECT_EQ(first[3], "CODE_LINE=" + std::to_string(line));
  EXPECT_EQ(first[4], "CARROW_CATEGORY=Bank");
  EXPECT_EQ(recorder.records[1][0], "MESSAGE=passed");
  EXPECT_EQ(recorder.records[1][1], "PRIORITY=7");
}

}  // namespace
}  // namespace carrow
