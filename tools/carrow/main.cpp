#include <cstdio>
#include <cstring>
#include <string_view>

#include <carrow/version.h>

namespace {

constexpr std::string_view kUsage =
    "usage: carrow <command> [arguments]\n"
    "\n"
    "commands:\n"
    "  help        show this text\n"
    "  --version   show the library's version\n";

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

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs(kUsage.data(), stderr);
    return 2;
  }
  std::string_view command = argv[1];
  if (command == "--version" || command == "version") {
    printVersion();
    return 0;
  }
  if (command == "help" || command == "--help" || command == "-h") {
    std::fputs(kUsage.data(), stdout);
    return 0;
  }
  std::fprintf(stderr, "carrow: unknown command '%s'\n\n%s", argv[1], kUsage.data());
  return 2;
}
