#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <carrow/logging/log.h>
#include <carrow/version.h>

#include "cli.h"
#include "commands.h"
#include "tool_logger.h"

namespace {

using carrow::tool::UsageError;

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

// One line naming the mistake and where to read more; the whole help would bury it.
int usageError(std::string_view message, std::string_view command = {}) {
  const std::string help = command.empty() ? "carrow help" : "carrow help " + std::string(command);
  std::fprintf(stderr, "carrow: %.*s (see '%s')\n", static_cast<int>(message.size()),
               message.data(), help.c_str());
  return 2;
}

bool isHelp(std::string_view argument) {
  return argument == "--help" || argument == "-h";
}

// Takes --verbose and --log=LIST out of the arguments, wherever they stand.
carrow::tool::LogDestinations takeLogOptions(std::vector<char*>& arguments) {
  carrow::tool::LogDestinations destinations;
  std::erase_if(arguments, [&](const char* argument) {
    const std::string_view text = argument;
    if (text == "--verbose") {
      destinations.standardError = true;
    } else if (text.starts_with("--log=")) {
      const auto chosen = carrow::tool::parseLogDestinations(text.substr(6));
      destinations.standardError |= chosen.standardError;
      destinations.journal |= chosen.journal;
    } else if (text == "--log") {
      throw UsageError("--log needs a destination: --log=stderr or --log=journal");
    } else {
      return false;
    }
    return true;
  });
  return destinations;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> arguments(argv + 1, argv + argc);
  try {
    carrow::CRLog::setLogger(carrow::tool::makeToolLogger(takeLogOptions(arguments)));
  } catch (const UsageError& error) {
    return usageError(error.what());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "carrow: --log: %s\n", error.what());
    return 1;
  }

  if (arguments.empty()) return usageError("a command is required");
  const std::string_view name = arguments[0];
  if (name == "--version" || name == "version") {
    printVersion();
    return 0;
  }
  if (isHelp(name)) {
    carrow::tool::printUsage(stdout);
    return 0;
  }
  const carrow::tool::Command* command = carrow::tool::findCommand(name);
  if (command == nullptr) return usageError("unknown command '" + std::string(name) + "'");
  const carrow::tool::Arguments rest(arguments.data() + 1, arguments.size() - 1);
  for (std::string_view argument : rest) {
    if (isHelp(argument)) {
      carrow::tool::printUsage(*command, stdout);
      return 0;
    }
  }
  try {
    return command->run(rest);
  } catch (const UsageError& error) {
    return usageError(error.what(), command->name == "help" ? std::string_view() : command->name);
  }
}
