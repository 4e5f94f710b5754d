#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <carrow/logging/log.h>

namespace carrow::testing {

/// One record as a logger received it.
struct Record {
  std::string message;
  CRLogLevel level;
  std::optional<std::string> category;
  std::string file;
  std::uint32_t line;
};

/// Keeps every record it receives; answers `shouldLog` as told.
class RecordingLogger final : public CRLogger {
 public:
  explicit RecordingLogger(bool enabled = true) : enabled_(enabled) {}

  bool shouldLog(std::optional<std::string_view>) override { return enabled_; }
  void log(std::string_view message, CRLogLevel level, std::optional<std::string_view> category,
           const char* file, std::uint32_t line) override {
    std::lock_guard guard(mutex_);
    records_.push_back({std::string(message), level,
                        category ? std::optional<std::string>(*category) : std::nullopt, file,
                        line});
  }

  std::vector<Record> records() const {
    std::lock_guard guard(mutex_);
    return records_;
  }
  std::vector<Record> recordsContaining(const std::string& text) const {
    std::vector<Record> matching;
    for (auto& record : records()) {
      if (record.message.find(text) != std::string::npos) matching.push_back(record);
    }
    return matching;
  }

 private:
  bool enabled_;
  mutable std::mutex mutex_;
  std::vector<Record> records_;
};

}  // namespace carrow::testing
