#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/logging/log.h>

#include "recording_logger.h"

namespace carrow {
namespace {

using testing::RecordingLogger;

class LogLimitTest : public ::testing::Test {
 protected:
  void SetUp() override { CRLog::setLogger(logger); }
  // Counts live for the whole process, so every test uses keys no other test uses.
  std::string uniqueKey(const std::string& stem) {
    return stem + "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
  }
  std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
};

TEST_F(LogLimitTest, AFewTimesPassesFiveThenOneNoticeThenSilence) {
  const std::string message = uniqueKey("few");
  for (int i = 0; i < 9; ++i) CRLog::error("Cat", message, LogLimit::aFewTimes);
  auto records = logger->records();
  ASSERT_EQ(records.size(), 6u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(records[i].message, message);
  const auto& notice = records[5];
  EXPECT_EQ(notice.message, "Limiting logging for limit: aFewTimes key: \"" + message + "\"");
  EXPECT_EQ(notice.level, CRLogLevel::info);
  EXPECT_EQ(notice.category, "LogLimits");
  EXPECT_EQ(notice.line, 136u);
}

TEST_F(LogLimitTest, NoFloodPassesThreeHundred) {
  const std::string message = uniqueKey("flood");
  for (int i = 0; i < 302; ++i) CRLog::info("Cat", message, LogLimit::noFlood);
  auto records = logger->records();
  ASSERT_EQ(records.size(), 301u);
  EXPECT_EQ(records[299].message, message);
  EXPECT_EQ(records[300].message, "Limiting logging for limit: noFlood key: \"" + message + "\"");
}

TEST_F(LogLimitTest, UnlimitedRecordsCountTowardsALaterLimit) {
  const std::string message = uniqueKey("counted");
  for (int i = 0; i < 10; ++i) CRLog::debug("Cat", message);
  CRLog::debug("Cat", message, LogLimit::aFewTimes);
  auto records = logger->records();
  ASSERT_EQ(records.size(), 11u);
  EXPECT_EQ(records.back().category, "LogLimits");
}

TEST_F(LogLimitTest, CallSitesSharingALimitKeyShareOneCountAndOneNotice) {
  const std::string key = uniqueKey("shared");
  for (int i = 0; i < 3; ++i) CRLog::error("A", "first site", LogLimit::aFewTimes, key);
  for (int i = 0; i < 5; ++i) CRLog::error("B", "second site", LogLimit::aFewTimes, key);
  EXPECT_EQ(logger->recordsContaining("first site").size(), 3u);
  EXPECT_EQ(logger->recordsContaining("second site").size(), 2u);
  EXPECT_EQ(logger->recordsContaining("Limiting logging").size(), 1u);
}

TEST_F(LogLimitTest, KeysAreDistinctByTypeButTextIsOneType) {
  const int numeric = 7'340'001;
  for (int i = 0; i < 5; ++i) CRLog::info("Cat", "int key", LogLimit::aFewTimes, numeric);
  for (int i = 0; i < 5; ++i)
    CRLog::info("Cat", "text key", LogLimit::aFewTimes, std::string("7340001"));
  EXPECT_EQ(logger->records().size(), 10u);
  CRLog::info("Cat", "int key", LogLimit::aFewTimes, numeric);
  EXPECT_EQ(logger->recordsContaining("key: \"7340001\"").size(), 1u);
  // Text keys match whatever string type carries them.
  for (int i = 0; i < 5; ++i) {
    CRLog::info("Cat", "view key", LogLimit::aFewTimes, std::string_view("7340001"));
  }
  EXPECT_EQ(logger->recordsContaining("view key").size(), 0u);
}

TEST_F(LogLimitTest, DisabledDebugIsNotEvenCounted) {
  auto quiet = std::make_shared<RecordingLogger>(false);
  CRLog::setLogger(quiet);
  const std::string message = uniqueKey("quiet");
  for (int i = 0; i < 20; ++i) CRLog::debugIfEnabled("Cat", message, LogLimit::aFewTimes);
  EXPECT_TRUE(quiet->records().empty());
  CRLog::setLogger(logger);
  for (int i = 0; i < 5; ++i) CRLog::debugIfEnabled("Cat", message, LogLimit::aFewTimes);
  EXPECT_EQ(logger->records().size(), 5u);  // the twenty were never counted
}

TEST_F(LogLimitTest, ConcurrentRecordsGiveExactlyFivePassesAndOneNoticePerKey) {
  constexpr int kThreads = 4, kKeys = 16, kRounds = 50;
  const std::string stem = uniqueKey("threads");
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        for (int key = 0; key < kKeys; ++key) {
          CRLog::error("Cat", stem, LogLimit::aFewTimes, stem + std::to_string(key));
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  auto records = logger->records();
  EXPECT_EQ(records.size(), static_cast<std::size_t>(kKeys * 6));
  for (int key = 0; key < kKeys; ++key) {
    EXPECT_EQ(logger->recordsContaining("key: \"" + stem + std::to_string(key) + "\"").size(), 1u);
  }
}

}  // namespace
}  // namespace carrow
