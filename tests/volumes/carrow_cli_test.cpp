#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

namespace fs = std::filesystem;

struct Run {
  int status;
  std::string out;
  std::string err;
};

// Runs the carrow tool with `arguments` (already quoted for the shell).
Run carrow(const std::string& arguments) {
  const fs::path errFile = fs::temp_directory_path() / ("carrow-cli-" + std::to_string(getpid()));
  const std::string command = std::string(CARROW_TOOL) + " " + arguments + " 2>" + errFile.string();
  FILE* pipe = popen(command.c_str(), "r");
  Run run{-1, {}, {}};
  if (!pipe) return run;
  char buffer[4096];
  for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) run.out.append(buffer, n);
  const int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::ifstream err(errFile);
  run.err.assign(std::istreambuf_iterator<char>(err), {});
  fs::remove(errFile);
  return run;
}

class CarrowToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/carrow-cli-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory = pattern;
    file = directory / "report.txt";
    std::ofstream(file) << "hello";
  }
  void TearDown() override { fs::remove_all(directory); }

  fs::path directory, file;
};

TEST_F(CarrowToolTest, AttrsOfAFileAsTypedJSON) {
  const auto run = carrow("attrs '" + file.string()
                          + "' --key name --key fileID --key modificationTime --key fsID"
                            " --key objectType --json");
  ASSERT_EQ(run.status, 0) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  struct stat info {};
  ASSERT_EQ(stat(file.c_str(), &info), 0);
  EXPECT_EQ(json.at("name"), "report.txt");
  EXPECT_EQ(json.at("fileID").get<std::uint64_t>(), info.st_ino);
  EXPECT_EQ(json.at("objectType"), 1);
  EXPECT_EQ(json.at("modificationTime").at("seconds").get<std::int64_t>(), info.st_mtim.tv_sec);
  EXPECT_EQ(json.at("modificationTime").at("nanoseconds").get<std::int64_t>(),
            info.st_mtim.tv_nsec);
  ASSERT_TRUE(json.at("fsID").is_array());
  EXPECT_EQ(json.at("fsID").size(), 2u);
  EXPECT_EQ(json.size(), 5u);
}

TEST_F(CarrowToolTest, AttrsWithoutKeysReadsWhatAppliesAndNoFollowDescribesTheLink) {
  const auto run = carrow("attrs '" + file.string() + "' --json");
  ASSERT_EQ(run.status, 0) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  EXPECT_TRUE(json.contains("fileLinkCount"));
  EXPECT_FALSE(json.contains("directoryEntryCount"));
  EXPECT_FALSE(json.contains("volumeSize"));  // not a mount point

  fs::create_symlink(file, directory / "link");
  const auto link = "'" + (directory / "link").string() + "' --key objectType --json";
  EXPECT_EQ(nlohmann::json::parse(carrow("attrs " + link).out).at("objectType"), 1);
  EXPECT_EQ(nlohmann::json::parse(carrow("attrs --no-follow " + link).out).at("objectType"), 5);
}

TEST_F(CarrowToolTest, MissingPathExitsOneWithTheSystemsMessage) {
  const auto missing = (directory / "missing").string();
  const auto run = carrow("attrs '" + missing + "'");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "carrow: " + missing + ": No such file or directory\n");
  EXPECT_TRUE(run.out.empty());
}

TEST_F(CarrowToolTest, UsageErrorsPrintOneLineNamingTheMistakeAndExitTwo) {
  struct Case {
    const char* arguments;
    const char* mistake;
    const char* help;
  };
  const Case cases[] = {
      {"", "a command is required", "carrow help"},
      {"bogus", "unknown command 'bogus'", "carrow help"},
      {"attrs", "attrs: a path is required", "carrow help attrs"},
      {"attrs / --key", "attrs: --key needs a key name", "carrow help attrs"},
      {"attrs / --key nope", "attrs: unknown key 'nope'", "carrow help attrs"},
      {"attrs / /tmp", "attrs: unexpected argument '/tmp'", "carrow help attrs"},
      {"volumes --sideways", "volumes: unexpected argument '--sideways'", "carrow help volumes"},
      {"volume", "volume: a mount point is required", "carrow help volume"},
      {"help nothing", "help: unknown command 'nothing'", "carrow help"},
      {"--log=syslog volumes", "--log: unknown destination 'syslog'", "carrow help"},
      {"--log volumes", "--log needs a destination", "carrow help"},
  };
  for (const auto& c : cases) {
    const auto run = carrow(c.arguments);
    EXPECT_EQ(run.status, 2) << c.arguments;
    EXPECT_TRUE(run.out.empty()) << c.arguments;
    EXPECT_EQ(run.err.rfind(std::string("carrow: ") + c.mistake, 0), 0u) << run.err;
    EXPECT_TRUE(run.err.ends_with(std::string(" (see '") + c.help + "')\n")) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  }
}

TEST_F(CarrowToolTest, HelpExplainsOneCommandEitherWay) {
  for (const std::string command : {"volumes", "volume", "attrs", "help"}) {
    const auto asked = carrow("help " + command);
    const auto flagged = carrow(command + " --help");
    EXPECT_EQ(asked.status, 0) << command;
    EXPECT_EQ(flagged.status, 0) << command;
    EXPECT_EQ(asked.out, flagged.out) << command;
    EXPECT_EQ(asked.out.rfind("usage: carrow " + command + " ", 0), 0u) << asked.out;
    EXPECT_EQ(asked.out.find("commands:"), std::string::npos) << asked.out;
  }
  const auto all = carrow("help");
  EXPECT_EQ(all.status, 0);
  for (const char* synopsis :
       {"  volumes [--all] [--json] [--service NAME]\n", "  volume PATH [--json]\n",
        "  attrs PATH [--key NAME]...", "--log=DEST"}) {
    EXPECT_NE(all.out.find(synopsis), std::string::npos) << synopsis;
  }
  EXPECT_EQ(carrow("-h").out, all.out);
}

TEST_F(CarrowToolTest, LoggingToTheJournalLeavesTheOutputAlone) {
  const auto run = carrow("--verbose --log=journal volume / --json");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(nlohmann::json::parse(run.out).at("mountPoint"), "/");
  EXPECT_EQ(carrow("--log=stderr,journal --version").status, 0);
}

TEST_F(CarrowToolTest, VolumesAsJSONUseThePropertyNames) {
  const auto run = carrow("volumes --all --json");
  ASSERT_EQ(run.status, 0) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  ASSERT_TRUE(json.is_array());
  bool sawRoot = false;
  for (const auto& volume : json) {
    for (const char* property :
         {"mountPoint", "name", "userVisibleName", "snapshotName", "fsid", "devicePath",
          "deviceName", "liveDiskDevicePath", "volumeUUID", "filesystemTypeName", "capacity",
          "bytesUsed", "bytesFree", "quota", "traits", "traitNames"}) {
      EXPECT_TRUE(volume.contains(property)) << property;
    }
    if (volume.at("mountPoint") == "/") {
      sawRoot = true;
      EXPECT_TRUE(volume.at("traits").get<std::uint64_t>() & 0x100);
      const auto& names = volume.at("traitNames");
      EXPECT_NE(std::find(names.begin(), names.end(), "rootFileSystem"), names.end());
    }
  }
  EXPECT_TRUE(sawRoot);
}

TEST_F(CarrowToolTest, VolumeOfTheRoot) {
  const auto run = carrow("volume / --json");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(nlohmann::json::parse(run.out).at("mountPoint"), "/");
  const auto table = carrow("volumes");
  EXPECT_EQ(table.status, 0);
  EXPECT_EQ(table.out.rfind("MOUNT POINT", 0), 0u);
}

}  // namespace
