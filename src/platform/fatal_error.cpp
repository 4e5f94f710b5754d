#include <cstdio>
#include <cstdlib>
#include <string>

#include <carrow/platform/fatal_error.h>

namespace carrow {

void fatalError(std::string_view label, std::uint64_t line, std::string_view message) {
  // One write, so that the whole message survives even when other threads print meanwhile.
  std::string text;
  text.reserve(label.size() + message.size() + 40);
  text.append(label).append(":").append(std::to_string(line)).append(": Fatal error: ");
  text.append(message).append("\n");
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace carrow
