#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <system_error>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/volumes/attr_list_disk.h>

#include "../logging/recording_logger.h"

namespace carrow {
namespace {

class MountedVolumesTest : public ::testing::Test {
 protected:
  void SetUp() override { CRLog::setLogger(logger); }
  std::shared_ptr<testing::RecordingLogger> logger = std::make_shared<testing::RecordingLogger>();
};

std::error_code posix(int code) {
  return {code, std::generic_category()};
}

TEST_F(MountedVolumesTest, RootIsDescribedFromItsMountPoint) {
  const AttrListDisk root(FileURL::fileURLWithPath("/", true), false);
  EXPECT_EQ(root.mountPoint().path(), "/");
  EXPECT_TRUE(root.traits().contains(CRAttrListDiskTraits::rootFileSystem));
  EXPECT_FALSE(root.filesystemTypeName().empty());
  EXPECT_FALSE(root.devicePath().empty());
  struct statvfs stats {};
  ASSERT_EQ(statvfs("/", &stats), 0);
  if (root.capacity()) {
    EXPECT_EQ(*root.capacity(), std::int64_t(stats.f_blocks) * std::int64_t(stats.f_frsize));
  }
  EXPECT_EQ(root.traits().contains(CRAttrListDiskTraits::readOnly),
            (stats.f_flag & ST_RDONLY) != 0);
  EXPECT_NE(root.description().find(",\"/\")"), std::string::npos) << root.description();
}

TEST_F(MountedVolumesTest, ListHoldsTheRootVolumeInKernelOrder) {
  const auto volumes = AttrListDisk::mountedVolumes();
  ASSERT_FALSE(volumes.empty());
  const auto root = std::find_if(volumes.begin(), volumes.end(),
                                 [](auto& volume) { return volume.mountPoint().path() == "/"; });
  ASSERT_NE(root, volumes.end());
  EXPECT_TRUE(root->traits().contains(CRAttrListDiskTraits::rootFileSystem));
  for (const auto& volume : volumes) {
    // Every listed volume describes itself again the same way.
    try {
      const AttrListDisk again(volume.mountPoint(), false);
      EXPECT_EQ(again.fsid(), volume.fsid()) << volume;
      EXPECT_EQ(again.devicePath(), volume.devicePath()) << volume;
    } catch (const std::system_error&) {
      // Unmounted meanwhile.
    }
  }
}

TEST_F(MountedVolumesTest, PathThatIsNotThereFailsWithTheReadsError) {
  try {
    AttrListDisk::volume(FileURL::fileURLWithPath("/nonexistent/carrow-test", true));
    FAIL() << "described a missing path";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), posix(ENOENT));
  }
  EXPECT_TRUE(logger->records().empty());
}

TEST_F(MountedVolumesTest, BootedDataVolumeThrowsWhereThereIsNone) {
  if (std::filesystem::exists("/System/Volumes/Data")) GTEST_SKIP();
  EXPECT_THROW(AttrListDisk::bootedDataVolume(), std::system_error);
}

TEST_F(MountedVolumesTest, ConcurrentListingsAgree) {
  const auto expected = AttrListDisk::mountedVolumes().size();
  std::vector<std::thread> threads;
  std::vector<std::size_t> counts(4);
  for (std::size_t i = 0; i < counts.size(); ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 5; ++round) counts[i] = AttrListDisk::mountedVolumes().size();
    });
  }
  for (auto& thread : threads) thread.join();
  for (auto count : counts) EXPECT_EQ(count, expected);
}

}  // namespace
}  // namespace carrow
