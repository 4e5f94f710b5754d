#include <algorithm>
#include <cstring>
#include <string>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/platform/mount.h>
#include <carrow/platform/mount_table.h>

#include "temp_tree.h"

namespace carrow::platform {
namespace {

std::vector<statfs> list(int mode, std::size_t room) {
  std::vector<statfs> records(room);
  int count = getfsstat(records.data(), static_cast<int>(room * sizeof(statfs)), mode);
  EXPECT_GE(count, 0);
  records.resize(static_cast<std::size_t>(std::max(count, 0)));
  return records;
}

TEST(GetFsStat, NullBufferCountsWhatAFullListingReturns) {
  int count = getfsstat(nullptr, 0, MNT_NOWAIT);
  ASSERT_GT(count, 0);
  auto records = list(MNT_NOWAIT, static_cast<std::size_t>(count) + 10);
  EXPECT_EQ(records.size(), static_cast<std::size_t>(count));

  // The records follow the mount table, in its order.
  auto table = readMountTable();
  ASSERT_EQ(table.size(), records.size());
  for (std::size_t i = 0; i < table.size(); ++i) {
    EXPECT_EQ(records[i].f_mntonname, table[i].mountPoint);
    EXPECT_EQ(records[i].f_fstypename, table[i].fsType.substr(0, MFSTYPENAMELEN - 1));
    EXPECT_EQ(records[i].f_mntfromname, table[i].source.substr(0, MAXPATHLEN - 1));
  }
}

TEST(GetFsStat, ShortBufferTakesAsManyRecordsAsFit) {
  int count = getfsstat(nullptr, 0, MNT_NOWAIT);
  ASSERT_GE(count, 2);
  std::vector<statfs> records(3);
  std::vector<unsigned char> guard(sizeof(statfs), 0xAA);
  int bufsize = static_cast<int>(2 * sizeof(statfs) + sizeof(statfs) / 2);
  std::memset(&records[2], 0xAA, sizeof(statfs));
  EXPECT_EQ(getfsstat(records.data(), bufsize, MNT_NOWAIT), 2);
  EXPECT_EQ(std::memcmp(&records[2], guard.data(), sizeof(statfs)), 0) << "wrote past the buffer";
  EXPECT_EQ(getfsstat(records.data(), 0, MNT_NOWAIT), 0);
  EXPECT_EQ(getfsstat(records.data(), -1, MNT_NOWAIT), 0);
}

TEST(GetFsStat, RootRecordCarriesSizesAndFlags) {
  auto records = list(MNT_NOWAIT, static_cast<std::size_t>(getfsstat(nullptr, 0, MNT_NOWAIT)) + 4);
  const statfs* root = nullptr;
  for (const auto& record : records) {
    if (std::string(record.f_mntonname) == "/") root = &record;
  }
  ASSERT_NE(root, nullptr);
  struct statvfs expected {};
  ASSERT_EQ(statvfs("/", &expected), 0);
  EXPECT_EQ(root->f_bsize, expected.f_frsize);
  EXPECT_EQ(root->f_blocks, expected.f_blocks);
  EXPECT_EQ(root->f_files, expected.f_files);
  EXPECT_EQ(root->f_flags & (MNT_ROOTFS | MNT_LOCAL | MNT_DONTBROWSE), MNT_ROOTFS | MNT_LOCAL);
  EXPECT_NE(root->f_type, 0u);
  EXPECT_EQ(static_cast<std::uint32_t>(root->f_fsid.val[1]), root->f_type);
  EXPECT_EQ(root->f_reserved[6], 0u);

  for (const auto& record : records) {
    std::string type = record.f_fstypename;
    if (type == "proc" || type == "sysfs" || type == "devpts" || type.starts_with("cgroup")) {
      EXPECT_NE(record.f_flags & MNT_DONTBROWSE, 0u) << record.f_mntonname;
    }
  }
}

TEST(GetFsStat, StackedMountsAreListedButOnlyTheTopOneIsMeasured) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting needs privileges";
  testing::TempTree tree;
  std::string point = tree.directory("stack");
  if (mount("carrow-lower", point.c_str(), "tmpfs", 0, "size=1m") != 0) {
    GTEST_SKIP() << "cannot mount here: " << strerror(errno);
  }
  ASSERT_EQ(mount("carrow-upper", point.c_str(), "tmpfs", 0, "size=2m"), 0);
  auto records = list(MNT_NOWAIT, static_cast<std::size_t>(getfsstat(nullptr, 0, MNT_NOWAIT)) + 4);
  umount(point.c_str());
  umount(point.c_str());

  const statfs* lower = nullptr;
  const statfs* upper = nullptr;
  for (const auto& record : records) {
    if (std::string(record.f_mntfromname) == "carrow-lower") lower = &record;
    if (std::string(record.f_mntfromname) == "carrow-upper") upper = &record;
  }
  ASSERT_NE(lower, nullptr);
  ASSERT_NE(upper, nullptr);
  EXPECT_LT(lower, upper) << "table order";
  EXPECT_EQ(std::string(lower->f_mntonname), std::string(upper->f_mntonname));
  EXPECT_EQ(std::uint64_t{upper->f_blocks} * upper->f_bsize, 2u << 20);
  EXPECT_EQ(lower->f_blocks, 0u) << "the covered mount's path leads to the upper one";
  EXPECT_EQ(lower->f_type, upper->f_type) << "the type is known from the table";
}

}  // namespace
}  // namespace carrow::platform
