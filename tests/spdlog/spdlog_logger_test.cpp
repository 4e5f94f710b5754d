#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <spdlog/async.h>
#include <spdlog/sinks/base_sink.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/logging/log.h>
#include <carrow/spdlog/spdlog_logger.h>

namespace carrow {
namespace {

struct Seen {
  spdlog::level::level_enum level;
  std::string text;
  std::string file;
  int line;
};

// A sink that keeps what spdlog hands it, read when the record is written (which, for an
// asynchronous logger, is on spdlog's own thread).
class KeepingSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<Seen> seen() {
    std::lock_guard guard(mutex_);
    return seen_;
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    seen_.push_back({message.level, std::string(message.payload.data(), message.payload.size()),
                     message.source.filename ? message.source.filename : "", message.source.line});
  }
  void flush_() override {}

 private:
  std::vector<Seen> seen_;
};

std::shared_ptr<spdlog::logger> keepingLogger(std::shared_ptr<KeepingSink> sink) {
  auto logger = std::make_shared<spdlog::logger>("test", std::move(sink));
  logger->set_level(spdlog::level::trace);
  return logger;
}

TEST(CRSpdlogLogger, LevelsMapAndTheCategoryLeadsTheText) {
  auto sink = std::make_shared<KeepingSink>();
  CRSpdlogLogger logger(keepingLogger(sink));
  logger.log("d {}", CRLogLevel::debug, "Bank", "/src/a.cpp", 1);
  logger.log("i", CRLogLevel::info, std::nullopt, "/src/b.cpp", 2);
  logger.log("e", CRLogLevel::error, "XPC", "/src/c.cpp", 4294967295u);

  const auto seen = sink->seen();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].level, spdlog::level::debug);
  EXPECT_EQ(seen[0].text, "Bank: d {}");  // passed verbatim, never used as a format
  EXPECT_EQ(seen[0].file, "/src/a.cpp");
  EXPECT_EQ(seen[0].line, 1);
  EXPECT_EQ(seen[1].level, spdlog::level::info);
  EXPECT_EQ(seen[1].text, "i");
  EXPECT_EQ(seen[2].level, spdlog::level::err);
  EXPECT_EQ(seen[2].line, 0x7fffffff);
}

TEST(CRSpdlogLogger, TheSpdlogLevelDecidesWhatPasses) {
  auto sink = std::make_shared<KeepingSink>();
  auto spdlogLogger = keepingLogger(sink);
  spdlogLogger->set_level(spdlog::level::info);
  CRLog::setLogger(std::make_shared<CRSpdlogLogger>(spdlogLogger));
  CRLog::debugIfEnabled("Bank", "not enabled");
  CRLog::debug("Bank", "below the level");
  const auto line = __LINE__ + 1;
  CRLog::info("Bank", "kept");
  spdlogLogger->set_level(spdlog::level::debug);
  CRLog::debugIfEnabled("Bank", "enabled now");

  const auto seen = sink->seen();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].text, "Bank: kept");
  EXPECT_EQ(std::filesystem::path(seen[0].file).filename(), "spdlog_logger_test.cpp");
  EXPECT_EQ(seen[0].line, static_cast<int>(line));
  EXPECT_EQ(seen[1].text, "Bank: enabled now");
  EXPECT_EQ(seen[1].level, spdlog::level::debug);
}

TEST(CRSpdlogLogger, AnAsynchronousLoggerStillHasTheFileNameAfterTheCallReturns) {
  auto sink = std::make_shared<KeepingSink>();
  auto pool = std::make_shared<spdlog::details::thread_pool>(64, 1);
  auto async = std::make_shared<spdlog::async_logger>("async", sink, pool);
  async->set_level(spdlog::level::trace);
  CRSpdlogLogger logger(async);
  {
    // The file name is valid only during the call: it is overwritten before spdlog writes.
    char file[] = "/src/transient.cpp";
    logger.log("late", CRLogLevel::info, "Bank", file, 7);
    std::memset(file, 'x', sizeof file - 1);
  }
  async->flush();
  pool.reset();  // the last reference: its destruction waits until every queued record is written
  async.reset();

  const auto seen = sink->seen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].file, "/src/transient.cpp");
  EXPECT_EQ(seen[0].text, "Bank: late");
}

}  // namespace
}  // namespace carrow
