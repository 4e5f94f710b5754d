#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <carrow/journal/journal_logger.h>
#include <carrow/logging/log.h>

namespace carrow {
namespace {

constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

// The JSON entries that journalctl prints for one category (one object per line).
std::vector<nlohmann::json> entriesOf(const std::string& category) {
  const std::string command = "journalctl -q -o json CARROW_CATEGORY=" + category + " 2>/dev/null";
  std::vector<nlohmann::json> entries;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return entries;
  std::string output;
  char buffer[4096];
  while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, n);
  ::pclose(pipe);
  std::size_t start = 0;
  while (start < output.size()) {
    auto end = output.find('\n', start);
    if (end == std::string::npos) end = output.size();
    if (end > start) entries.push_back(nlohmann::json::parse(output.substr(start, end - start)));
    start = end + 1;
  }
  return entries;
}

TEST(CRJournalLogger, WithoutAJournalRecordsAreDroppedQuietly) {
  if (std::filesystem::exists(kJournalSocket)) GTEST_SKIP() << "a journal runs here";
  CRJournalLogger logger;
  logger.log("nowhere to go", CRLogLevel::error, "Bank", __FILE__, __LINE__);
  // libsystemd treats a journal that does not run as nothing to report.
  EXPECT_EQ(
      CRJournalLogger::send(CRJournalLogger::fields("m", CRLogLevel::info, std::nullopt, "f", 1)),
      0);
}

TEST(CRJournalLogger, TheJournalKeepsTheRecordWithItsFields) {
  if (!std::filesystem::exists(kJournalSocket)) GTEST_SKIP() << "no journal runs here";
  // A category of this run only, so that earlier runs' entries do not match.
  const std::string category =
      "CarrowTest" + std::to_string(::getpid()) + "x"
      + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
  CRLog::setLogger(std::make_shared<CRJournalLogger>());
  const auto line = __LINE__ + 1;
  CRLog::info(category, "written by the journal test");

  // journald stores entries asynchronously: look again for up to ten seconds.
  std::vector<nlohmann::json> entries;
  for (int attempt = 0; attempt < 100 && entries.empty(); ++attempt) {
    if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    entries = entriesOf(category);
  }
  ASSERT_EQ(entries.size(), 1u);
  const auto& entry = entries[0];
  EXPECT_EQ(entry["MESSAGE"], "written by the journal test");
  EXPECT_EQ(entry["PRIORITY"], "6");
  EXPECT_EQ(entry["CARROW_CATEGORY"], category);
  EXPECT_EQ(entry["CODE_LINE"], std::to_string(line));
  EXPECT_EQ(std::filesystem::path(entry["CODE_FILE"].get<std::string>()).filename(),
            "journal_live_test.cpp");
  EXPECT_EQ(entry["_PID"], std::to_string(::getpid()));
}

}  // namespace
}  // namespace carrow
