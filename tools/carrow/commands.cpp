#include "commands.h"

#include <cstdio>

namespace carrow::tool {

namespace {

constexpr Command kCommands[] = {
    {"volumes", "volumes [--all] [--json] [--service NAME]",
     "Lists the mounted volumes: the browsable ones, or every mount with --all.\n"
     "\n"
     "  --all             every mount, kernel interfaces (proc, sysfs, ...) included\n"
     "  --json            a JSON array of volumes instead of the table (fields: see README.md)\n"
     "  --service NAME    the list as the volume service NAME gives it (see README.md)\n",
     runVolumes},
    {"volume", "volume PATH [--json]",
     "Describes the volume mounted at PATH (a mount point, not any path inside it).\n"
     "\n"
     "  --json   one JSON object instead of the list of properties (fields: see README.md)\n",
     runVolume},
    {"attrs", "attrs PATH [--key NAME]... [--no-follow] [--json]",
     "Reads attributes of PATH with one attribute-list call per group, and prints them by key\n"
     "name. Without --key, every attribute that applies; volume attributes only when PATH is a\n"
     "mount point.\n"
     "\n"
     "  --key NAME    read this attribute (repeatable; also --key=NAME), for example name,\n"
     "                objectType, modificationTime, fileID, volumeSize\n"
     "  --no-follow   describe a symbolic link itself, not what it points to\n"
     "  --json        one JSON object of typed values (see README.md)\n",
     runAttrs},
    {"help", "help [COMMAND]", "Shows the usage of every command, or of one COMMAND.\n", runHelp},
};

constexpr std::string_view kOptions =
    "options, before or after the command:\n"
    "  --verbose        print the library's log records on stderr (otherwise they are dropped,\n"
    "                   for example the record of a volume left out because it lacks an\n"
    "                   attribute)\n"
    "  --log=DEST,...   where the records go: stderr (as --verbose), journal (the systemd\n"
    "                   journal, category in the CARROW_CATEGORY field); --verbose --log=journal\n"
    "                   writes to both\n"
    "  --version        show the library's version\n"
    "  --help, -h       show this text; after a command, that command's usage\n"
    "\n"
    "Errors print \"carrow: PATH: reason\" and exit 1; usage errors print one line and exit 2.\n";

}  // namespace

std::span<const Command> commands() {
  return kCommands;
}

const Command* findCommand(std::string_view name) {
  for (const Command& command : kCommands) {
    if (command.name == name) return &command;
  }
  return nullptr;
}

void printUsage(std::FILE* stream) {
  std::string text =
      "usage: carrow [--verbose] [--log=DEST,...] <command> [arguments]\n\ncommands:\n";
  for (const Command& command : kCommands) text.append("  ").append(command.usage).append("\n");
  text.append("\n").append(kOptions);
  text.append("\n'carrow help COMMAND' or 'carrow COMMAND --help' explains one command.\n");
  std::fputs(text.c_str(), stream);
}

void printUsage(const Command& command, std::FILE* stream) {
  std::string text = "usage: carrow ";
  text.append(command.usage).append("\n\n").append(command.help);
  std::fputs(text.c_str(), stream);
}

int runHelp(Arguments arguments) {
  if (arguments.empty()) {
    printUsage(stdout);
    return 0;
  }
  if (arguments.size() > 1) throw UsageError("help: one command at most");
  const Command* command = findCommand(arguments[0]);
  if (command == nullptr) {
    throw UsageError("help: unknown command '" + std::string(arguments[0]) + "'");
  }
  printUsage(*command, stdout);
  return 0;
}

}  // namespace carrow::tool
