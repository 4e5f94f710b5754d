#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include <carrow/logging/log.h>

#include "recording_logger.h"

namespace carrow {
namespace {

using testing::RecordingLogger;

TEST(CRLogLevel, LevelsAndLimitsConvertFromAndToTheirRawValues) {
  for (auto level : {CRLogLevel::debug, CRLogLevel::info, CRLogLevel::error}) {
    EXPECT_EQ(logLevel(rawValue(level)), level);
  }
  EXPECT_EQ(rawValue(CRLog::Level::info), "Info");
  EXPECT_FALSE(logLevel("debug"));
  EXPECT_FALSE(logLevel(""));
  EXPECT_LT(CRLogLevel::debug, CRLogLevel::error);
  EXPECT_EQ(logLimit("noFlood"), LogLimit::noFlood);
  EXPECT_EQ(logLimit("aFewTimes"), LogLimit::aFewTimes);
  EXPECT_FALSE(logLimit("afewtimes"));
  EXPECT_EQ(rawValue(LogLimit::aFewTimes), "aFewTimes");
}

TEST(CRLog, RecordsCarryTheCallSite) {
  auto logger = std::make_shared<RecordingLogger>();
  CRLog::setLogger(logger);
  const auto line = __LINE__ + 1;
  CRLog::info("Bank", "call site");
  auto records = logger->records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].line, line);
  EXPECT_TRUE(records[0].file.ends_with("log_record_test.cpp")) << records[0].file;
  EXPECT_EQ(records[0].category, "Bank");
  EXPECT_EQ(records[0].level, CRLogLevel::info);
}

TEST(CRLog, ExplicitFileAndLineAndNoCategoryPassThrough) {
  auto logger = std::make_shared<RecordingLogger>();
  CRLog::setLogger(logger);
  CRLog::log(CRLogLevel::error, std::nullopt, "explicit", std::nullopt, std::nullopt, "f.cpp",
             std::numeric_limits<std::uint32_t>::max());
  auto records = logger->records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_FALSE(records[0].category);
  EXPECT_EQ(records[0].file, "f.cpp");
  EXPECT_EQ(records[0].line, std::numeric_limits<std::uint32_t>::max());
}

TEST(CRLog, ReplacingTheLoggerTakesEffectForLaterRecords) {
  auto first = std::make_shared<RecordingLogger>();
  auto second = std::make_shared<RecordingLogger>();
  CRLog::setLogger(first);
  CRLog::debug("C", "to first");
  CRLog::setLogger(second);
  CRLog::debug("C", "to second");
  EXPECT_EQ(first->records().size(), 1u);
  EXPECT_EQ(second->records().size(), 1u);
  EXPECT_EQ(CRLog::logger(), second);
}

TEST(CRPrintLogger, PrintsOneLinePerRecord) {
  CRPrintLogger printer;
  ::testing::internal::CaptureStdout();
  printer.log("hello", CRLogLevel::debug, "Bank", "/src/bank.cpp", 42);
  printer.log("plain", CRLogLevel::error, std::nullopt, "x.cpp", 7);
  std::fflush(stdout);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Debug: Bank: hello - file: /src/bank.cpp line: 42 \n"
            "Error: plain - file: x.cpp line: 7 \n");
  EXPECT_TRUE(printer.shouldLog("anything"));
}

using CRLogDeathTest = ::testing::Test;

TEST(CRLogDeathTest, LoggingBeforeALoggerIsInstalledStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // A fresh process (the threadsafe style re-executes the test binary) has no logger installed.
  EXPECT_DEATH(CRLog::info("Bank", "too early"),
               "CarrowPrivate/CRLog:187: Fatal error: No Logger Set Up! - Info: Bank: too early - "
               "file: .*log_record_test.cpp line: [0-9]+ ");
}

TEST(CRLogDeathTest, ALineBeyondThirtyTwoBitsStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  CRLog::setLogger(std::make_shared<RecordingLogger>());
  EXPECT_DEATH(CRLog::log(CRLogLevel::info, "C", "far", std::nullopt, std::nullopt, "f.cpp",
                          std::uint64_t{1} << 32),
               "CarrowPrivate/CRLog:[0-9]+: Fatal error");
}

}  // namespace
}  // namespace carrow
