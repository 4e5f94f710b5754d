#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "xpc/service_harness.h"

namespace carrow::testing {
namespace {

struct Outcome {
  int status = -1;
  std::string output;
};

// Runs `arguments` with CARROW_XPC_SERVICE_DIR set to `folder`; bounded by the tool's own calls.
Outcome run(std::vector<std::string> arguments, const std::string& folder) {
  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) return {};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  std::string variable = "CARROW_XPC_SERVICE_DIR=" + folder;
  char* environment[] = {variable.data(), nullptr};
  pid_t child = 0;
  const int failed = posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environment);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  Outcome outcome;
  if (failed == 0) {
    char chunk[4096];
    for (ssize_t n; (n = ::read(out[0], chunk, sizeof chunk)) > 0;) {
      outcome.output.append(chunk, static_cast<std::size_t>(n));
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  ::close(out[0]);
  return outcome;
}

TEST(VolumeServiceExample, TheToolListsTheVolumesThroughTheService) {
  if (::geteuid() != 0) GTEST_SKIP() << "the tool accepts only a root service";
  TemporaryFolder folder;
  ServiceProcess service({VOLUME_SERVICE, "--name", "volumes", "--directory", folder.path()});
  ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(folder.path() + "/volumes.sock"); }));

  const Outcome listed = run({CARROW_TOOL, "volumes", "--service", "volumes"}, folder.path());
  EXPECT_EQ(listed.status, 0);
  EXPECT_TRUE(listed.output.starts_with("MOUNT POINT")) << listed.output;
  EXPECT_NE(listed.output.find("\n/ "), std::string::npos) << listed.output;  // the root volume
  const std::string json =
      run({CARROW_TOOL, "volumes", "--all", "--json", "--service", "volumes"}, folder.path())
          .output;
  EXPECT_NE(json.find("\"mountPoint\": \"/\""), std::string::npos) << json;

  const Outcome missing = run({CARROW_TOOL, "volumes", "--service", "missing"}, folder.path());
  EXPECT_EQ(missing.status, 1);
}

}  // namespace
}  // namespace carrow::testing
