#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include <carrow/logging/log.h>
#include <carrow/version.h>

#include "cli.h"

namespace {

constexpr std::string_view kUsage =
    "usage: carrow [--verbose] <command> [arguments]\n"
    "\n"
    "commands:\n"
    "  volumes [--all] [--json] [--service NAME]\n"
    "                                 the mounted volumes (browsable ones unless --all); with\n"
    "                                 --service, as the volume service NAME lists them\n"
    "  volume PATH [--json]           the volume mounted at PATH\n"
    "  attrs PATH [--key NAME]... [--no-follow] [--json]\n"
    "                                 attributes of PATH by key name (all that apply when no\n"
    "                                 key is given); --no-follow describes a symbolic link itself\n"
    "  help                           show this text\n"
    "  --version                      show the library's version\n"
    "\n"
    "--verbose prints the library's log records on stderr (otherwise they are dropped, for\n"
    "example the record of a volume left out of the list because it lacks an attribute).\n"
    "Errors print \"carrow: PATH: reason\" and exit 1; usage errors exit 2.\n";

// "@(#)PROGRAM:CarrowPrivate  PROJECT:carrowd-1\n" -> "CarrowPrivate carrowd-1"
void printVersion() {
  std::string_view text(reinterpret_cast<const char*>(CarrowPrivateVersionString));
  auto word = [&](std::string_view tag) {
    auto start = text.find(tag);
    if (start == std::string_view::npos) return std::string_view();
    start += tag.size();
    auto end = text.find_first_of(" \n", start);
    return text.substr(start, end - start);
  };
  std::printf("%.*s %.*s\n", static_cast<int>(word("PROGRAM:").size()), word("PROGRAM:").data(),
              static_cast<int>(word("PROJECT:").size()), word("PROJECT:").data());
}

// The tool's logger: records go to stderr with --verbose and are dropped otherwise.
class ToolLogger final : public carrow::CRLogger {
 public:
  explicit ToolLogger(bool verbose) : verbose_(verbose) {}
  bool shouldLog(std::optional<std::string_view>) override { return verbose_; }
  void log(std::string_view message, carrow::CRLogLevel level,
           std::optional<std::string_view> category, const char* file,
           std::uint32_t line) override {
    if (!verbose_) return;
    const auto text = carrow::formatRecord(message, level, category, file, line) + "\n";
    std::fwrite(text.data(), 1, text.size(), stderr);
  }

 private:
  bool verbose_;
};

int usageError(const char* message) {
  std::fprintf(stderr, "carrow: %s\n\n%s", message, kUsage.data());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> arguments(argv + 1, argv + argc);
  const bool verbose =
      std::erase_if(arguments,
                    [](const char* argument) { return std::strcmp(argument, "--verbose") == 0; })
      > 0;
  carrow::CRLog::setLogger(std::make_shared<ToolLogger>(verbose));

  if (arguments.empty()) return usageError("a command is required");
  const std::string_view command = arguments[0];
  const carrow::tool::Arguments rest(arguments.data() + 1, arguments.size() - 1);
  try {
    if (command == "--version" || command == "version") {
      printVersion();
      return 0;
    }
    if (command == "help" || command == "--help" || command == "-h") {
      std::fputs(kUsage.data(), stdout);
      return 0;
    }
    if (command == "volumes") return carrow::tool::runVolumes(rest);
    if (command == "volume") return carrow::tool::runVolume(rest);
    if (command == "attrs") return carrow::tool::runAttrs(rest);
  } catch (const carrow::tool::UsageError& error) {
    return usageError(error.what());
  }
  const std::string message = "unknown command '" + std::string(command) + "'";
  return usageError(message.c_str());
}
