// The decisions getfsstat and getattrlist take from the mount table, checked on crafted tables:
// which mounts may block, which are hidden, and which mount a device and path belong to.

#include <string>

#include <gtest/gtest.h>

#include <carrow/platform/mount_table.h>

#include "mount_cache.h"
#include "temp_tree.h"

namespace carrow::platform::detail {
namespace {

MountSnapshot snapshot(const std::string& mountinfo) {
  testing::TempTree tree;
  return MountSnapshot(parseMountTable(tree.file("mountinfo", mountinfo)));
}

// The layout of a container: the root mount is listed after the mounts made on it.
const char* const kTable =
    "21 26 0:20 / /proc rw - proc proc rw\n"
    "23 26 0:6 / /dev rw - devtmpfs devtmpfs rw\n"
    "25 23 0:23 / /dev/pts rw - devpts devpts rw\n"
    "26 1 254:0 / / rw - ext4 /dev/vda rw\n"
    "28 25 0:25 / /dev/pts rw - devpts devpts rw\n"
    "30 26 0:40 / /net rw - autofs systemd-1 rw,fd=5\n"
    "31 30 0:41 / /net/host rw - nfs4 host:/export rw\n"
    "32 31 254:1 / /net/host/local rw - ext4 /dev/vdb rw\n"
    "40 26 254:2 / /srv/data rw - ext4 /dev/vdc rw\n"
    "41 40 254:3 / /srv/data/deep rw - xfs /dev/vdd rw\n"
    "42 26 0:50 / /srv rw - tmpfs hide rw\n"
    "50 26 0:60 / /home/u/remote rw - fuse.sshfs u@host: rw\n";

const MountEntry& at(const MountSnapshot& mounts, int id) {
  const MountEntry* entry = mounts.byId(id);
  if (entry == nullptr) throw std::runtime_error("no mount " + std::to_string(id));
  return *entry;
}

TEST(MountSnapshot, NetworkAndAutomountedFileSystemsAndWhatLiesBelowThemMayBlock) {
  auto mounts = snapshot(kTable);
  EXPECT_FALSE(mounts.mayBlock(at(mounts, 26)));
  EXPECT_FALSE(mounts.mayBlock(at(mounts, 21)));
  EXPECT_TRUE(mounts.mayBlock(at(mounts, 30))) << "the automount trigger";
  EXPECT_TRUE(mounts.mayBlock(at(mounts, 31))) << "network, mounted by the automounter";
  EXPECT_TRUE(mounts.mayBlock(at(mounts, 32))) << "local, but its path crosses the server";
  EXPECT_TRUE(mounts.mayBlock(at(mounts, 50))) << "a FUSE daemon";
}

TEST(MountSnapshot, StackedAndOvermountedMountsAreCovered) {
  auto mounts = snapshot(kTable);
  EXPECT_FALSE(mounts.isCovered(at(mounts, 21))) << "listed before the root it is mounted on";
  EXPECT_FALSE(mounts.isCovered(at(mounts, 26)));
  EXPECT_TRUE(mounts.isCovered(at(mounts, 25))) << "another devpts is stacked on it";
  EXPECT_FALSE(mounts.isCovered(at(mounts, 28)));
  EXPECT_TRUE(mounts.isCovered(at(mounts, 40))) << "/srv was mounted over its mount point";
  EXPECT_TRUE(mounts.isCovered(at(mounts, 41))) << "hidden with the mount it is on";
  EXPECT_FALSE(mounts.isCovered(at(mounts, 42)));
}

TEST(MountSnapshot, DeviceLookupPrefersTheLongestMountPointOnTop) {
  auto mounts = snapshot(
      "26 1 254:0 / / rw - ext4 /dev/vda rw\n"
      "40 26 254:0 /export /srv/export rw - ext4 /dev/vda rw\n"
      "41 26 254:0 /export /srv/export rw - ext4 /dev/vda rw\n");
  EXPECT_EQ(mounts.byDevice(254, 0, "/srv/export/a/b")->id, 41);
  EXPECT_EQ(mounts.byDevice(254, 0, "/srv/exported")->id, 26);
  EXPECT_EQ(mounts.byDevice(254, 0, "/")->id, 26);
  EXPECT_EQ(mounts.byDevice(254, 0, "relative")->id, 41) << "no prefix: the last mount";
  EXPECT_EQ(mounts.byDevice(8, 1, "/"), nullptr);
}

TEST(MountSnapshot, DamagedParentChainsEnd) {
  auto mounts = snapshot(
      "10 11 0:1 / /a rw - tmpfs a rw\n"
      "11 10 0:2 / /a/b rw - tmpfs b rw\n");
  EXPECT_FALSE(mounts.mayBlock(at(mounts, 10)));
  EXPECT_FALSE(mounts.isCovered(at(mounts, 11)));
}

}  // namespace
}  // namespace carrow::platform::detail
