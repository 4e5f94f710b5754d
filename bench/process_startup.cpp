// Times whole processes: runs each command in turn, round after round, and prints percentiles
// of the wall time from spawning it to the end of the wait (posix_spawn, which does not copy
// this process's page tables as fork would). Commands are interleaved so that a busy
// moment on a shared machine falls on all of them alike; the low percentiles are the least
// disturbed. Standard output of the commands goes to /dev/null.
//
//   process_startup RUNS COMMAND [ARGUMENT...] [-- COMMAND [ARGUMENT...]]...

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double runOnce(const std::vector<char*>& command, const posix_spawn_file_actions_t& actions) {
  const auto start = Clock::now();
  pid_t child = -1;
  int status = 0;
  if (posix_spawnp(&child, command[0], &actions, nullptr, command.data(), environ) != 0
      || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "process_startup: %s failed\n", command[0]);
    std::exit(1);
  }
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 2 ? std::atoi(argv[1]) : 0;
  if (runs <= 0) {
    std::fprintf(stderr, "usage: process_startup RUNS COMMAND [ARGUMENT...] [-- COMMAND...]...\n");
    return 2;
  }
  std::vector<std::vector<char*>> commands(1);
  for (int i = 2; i < argc; ++i) {
    if (std::string_view(argv[i]) == "--") {
      commands.emplace_back();
    } else {
      commands.back().push_back(argv[i]);
    }
  }
  for (auto& command : commands) command.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  std::vector<std::vector<double>> times(commands.size());
  for (int run = 0; run < runs; ++run) {
    for (std::size_t c = 0; c < commands.size(); ++c)
      times[c].push_back(runOnce(commands[c], actions));
  }
  for (std::size_t c = 0; c < commands.size(); ++c) {
    auto& t = times[c];
    std::sort(t.begin(), t.end());
    std::string name;
    for (char* const* word = commands[c].data(); *word != nullptr; ++word) {
      name += (name.empty() ? "" : " ") + std::string(*word);
    }
    std::printf("%-40s min %6.2f  p10 %6.2f  p25 %6.2f  median %6.2f ms\n", name.c_str(), t[0],
                t[t.size() / 10], t[t.size() / 4], t[t.size() / 2]);
  }
  return 0;
}
