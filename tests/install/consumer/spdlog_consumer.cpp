// A program outside the project that keeps its spdlog sinks for the library's records.
#include <cstdio>
#include <memory>
#include <spdlog/sinks/ostream_sink.h>
#include <sstream>

#include <carrow/logging/log.h>
#include <carrow/spdlog/spdlog_logger.h>

int main() {
  std::ostringstream out;
  auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(out);
  auto logger = std::make_shared<spdlog::logger>("consumer", sink);
  logger->set_pattern("%l %v");
  carrow::CRLog::setLogger(std::make_shared<carrow::CRSpdlogLogger>(logger));
  carrow::CRLog::error("Bank", "through spdlog");
  std::printf("spdlog %s\n", out.str() == "error Bank: through spdlog\n" ? "ok" : "broken");
  return 0;
}
