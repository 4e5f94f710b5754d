#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/platform/mount_table.h>

#include "temp_tree.h"

namespace carrow::platform {
namespace {

using testing::TempTree;

std::vector<MountEntry> parse(const std::string& contents) {
  TempTree tree;
  return parseMountTable(tree.file("mountinfo", contents));
}

TEST(MountTable, EscapedBlanksAndTabsAreUnescaped) {
  auto entries = parse(
      "26 1 254:0 / / rw,relatime - ext4 /dev/vda rw\n"
      "40 26 8:17 / /media/My\\040Disk\\011Two rw,nosuid,nodev - vfat /dev/sdb1 rw,uid=1000\n"
      "41 26 0:50 / /srv/share rw - cifs //server/with\\040blank rw\n");
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[1].mountPoint, "/media/My Disk\tTwo");
  EXPECT_EQ(entries[1].deviceMajor, 8u);
  EXPECT_EQ(entries[1].deviceMinor, 17u);
  EXPECT_TRUE(entries[1].noSuid);
  EXPECT_TRUE(entries[1].noDev);
  EXPECT_FALSE(entries[1].readOnly);
  EXPECT_EQ(entries[1].superblockOptions, "rw,uid=1000");
  EXPECT_EQ(entries[2].source, "//server/with blank");
  EXPECT_TRUE(entries[2].isNetwork);
  EXPECT_FALSE(entries[0].isNetwork);
}

TEST(MountTable, LongEntriesAreKeptWhole) {
  std::string point = "/mnt";
  while (point.size() < 3000) point += "/" + std::string(100, 'x');
  std::string options = "rw";
  for (int i = 0; i < 200; ++i) options += ",opt" + std::to_string(i) + "=" + std::to_string(i);
  auto entries = parse("26 1 254:0 / / rw - ext4 /dev/vda rw\n"
                       "30 26 254:1 /sub/dir " + point + " ro,noexec shared:5 master:3 - xfs "
                       "/dev/mapper/vg-data " + options + "\n");
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[1].mountPoint, point);
  EXPECT_EQ(entries[1].root, "/sub/dir");
  EXPECT_EQ(entries[1].superblockOptions, options);
  EXPECT_TRUE(entries[1].readOnly);
  EXPECT_TRUE(entries[1].noExec);
  EXPECT_EQ(entries[1].parentId, 26);
}

TEST(MountTable, StackedMountsKeepTheirOrder) {
  auto entries = parse(
      "26 1 254:0 / / rw - ext4 /dev/vda rw\n"
      "50 26 0:60 / /data rw - tmpfs first rw\n"
      "51 50 0:61 / /data rw,noatime - tmpfs second rw\n");
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[1].source, "first");
  EXPECT_EQ(entries[2].source, "second");
  EXPECT_EQ(entries[2].parentId, entries[1].id);
  EXPECT_TRUE(entries[2].noAccessTime);
}

TEST(MountTable, KindsOfFileSystemsAreRecognised) {
  auto entries = parse(
      "26 1 254:0 / / rw - ext4 /dev/vda rw\n"
      "60 26 0:70 / /proc rw - proc proc rw\n"
      "61 26 0:71 / /net rw - autofs systemd-1 rw,fd=5\n"
      "62 61 0:72 / /net/host rw - nfs4 host:/export rw\n"
      "63 26 0:73 / /home/u/remote rw - fuse.sshfs u@host: rw,user_id=1000\n"
      "64 26 8:1 / /media/ntfs rw - fuseblk /dev/sda1 rw\n");
  ASSERT_EQ(entries.size(), 6u);
  EXPECT_TRUE(entries[1].isPseudo);
  EXPECT_TRUE(entries[2].isAutomount);
  EXPECT_TRUE(entries[3].isAutomount) << "mounted by the automounter";
  EXPECT_TRUE(entries[3].isNetwork);
  EXPECT_TRUE(entries[4].isNetwork) << "a FUSE daemon can hang like a server";
  EXPECT_FALSE(entries[5].isNetwork) << "fuseblk is backed by a local device";
  EXPECT_FALSE(entries[0].isPseudo || entries[0].isAutomount);
}

TEST(MountTable, BadInputIsAClearError) {
  try {
    parse("26 1 254:0 / / rw - ext4 /dev/vda rw\nthis is not a mount\n");
    FAIL() << "a malformed line was accepted";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), EINVAL);
    EXPECT_NE(std::string(error.what()).find("line 2"), std::string::npos) << error.what();
  }
  try {
    parseMountTable("/nonexistent/carrow/mountinfo");
    FAIL() << "a missing file was accepted";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), ENOENT);
  }
  EXPECT_TRUE(parse("").empty());
}

TEST(MountTable, LiveTableHasTheRootAndConcurrentReadsAgree) {
  auto reference = readMountTable();
  EXPECT_TRUE(std::ranges::any_of(reference, [](auto& entry) { return entry.mountPoint == "/"; }));
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        if (readMountTable().size() != reference.size()) ++mismatches;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
}  // namespace carrow::platform
