#pragma once

#include <cstdio>
#include <span>
#include <string_view>

#include "cli.h"

namespace carrow::tool {

/// One command of the tool.
struct Command {
  std::string_view name;   // "volumes"
  std::string_view usage;  // its synopsis: "volumes [--all] [--json]"
  std::string_view help;   // what `carrow help volumes` prints below the synopsis
  int (*run)(Arguments arguments);
};

/// Every command, in the order the help text lists them.
std::span<const Command> commands();
/// The command called `name`, or null.
const Command* findCommand(std::string_view name);

/// The tool's whole usage: each command's synopsis and the global options.
void printUsage(std::FILE* stream);
/// One command's synopsis and explanation.
void printUsage(const Command& command, std::FILE* stream);

/// `carrow help [COMMAND]`.
int runHelp(Arguments arguments);

}  // namespace carrow::tool
