#include <cerrno>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include <carrow/CRAttrListDisk.h>
#include <carrow/logging/log.h>

#include "../logging/recording_logger.h"

namespace carrow {
namespace {

std::string take(char* text) {
  std::string copy = text ? text : "<null>";
  std::free(text);
  return copy;
}

class CRAttrListDiskCTest : public ::testing::Test {
 protected:
  void SetUp() override { CRLog::setLogger(std::make_shared<testing::RecordingLogger>()); }
};

TEST_F(CRAttrListDiskCTest, MissingMountPointStoresThePOSIXError) {
  CRError error{CRErrorDomainOther, -1};
  EXPECT_EQ(CRAttrListDiskFactoryAttrVolumeWithMountPoint("/nonexistent/carrow", &error), nullptr);
  EXPECT_EQ(error.domain, CRErrorDomainPOSIX);
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_STREQ(CRErrorDomainName(error.domain), "POSIX");
  // The error pointer is optional.
  EXPECT_EQ(CRAttrListDiskFactoryAttrVolumeWithMountPoint("/nonexistent/carrow", nullptr), nullptr);
  EXPECT_EQ(CRAttrListDiskFactoryAttrVolumeWithMountPoint(nullptr, &error), nullptr);
  EXPECT_EQ(error.code, EINVAL);
}

TEST_F(CRAttrListDiskCTest, RootVolumeThroughHandles) {
  CRError error;
  CRAttrListDisk* root = CRAttrListDiskFactoryAttrVolumeWithMountPoint("/", &error);
  ASSERT_NE(root, nullptr) << error.domain << " " << error.code;
  EXPECT_EQ(error.domain, CRErrorDomainNone);
  EXPECT_EQ(take(CRAttrListDiskCopyMountPoint(root)), "/");
  EXPECT_NE(take(CRAttrListDiskCopyFilesystemTypeName(root)), "<null>");
  EXPECT_NE(take(CRAttrListDiskCopyDevicePath(root)), "<null>");
  EXPECT_EQ(take(CRAttrListDiskCopySnapshotName(root)), "<null>");
  EXPECT_TRUE(CRAttrListDiskGetTraits(root) & CRAttrListDiskTraitsRootFileSystem);
  EXPECT_FALSE(CRAttrListDiskGetQuota(root, nullptr));
  EXPECT_TRUE(take(CRAttrListDiskCopyDescription(root)).starts_with("AttrListDisk("));

  // A retained handle outlives the first release.
  EXPECT_EQ(CRAttrListDiskRetain(root), root);
  CRAttrListDiskRelease(root);
  EXPECT_EQ(take(CRAttrListDiskCopyMountPoint(root)), "/");
  CRAttrListDiskRelease(root);
  CRAttrListDiskRelease(nullptr);
}

TEST_F(CRAttrListDiskCTest, ListOwnsItsHandles) {
  CRError error;
  CRAttrListDiskList* volumes = CRAttrListDiskFactoryMountedVolumes(&error);
  ASSERT_NE(volumes, nullptr);
  ASSERT_GT(CRAttrListDiskListCount(volumes), 0u);
  CRAttrListDisk* first = CRAttrListDiskRetain(CRAttrListDiskListGet(volumes, 0));
  CRAttrListDiskListRelease(volumes);
  EXPECT_NE(take(CRAttrListDiskCopyMountPoint(first)), "<null>");
  CRAttrListDiskRelease(first);
  CRAttrListDiskListRelease(nullptr);
  // Linux has no booted data volume.
  EXPECT_EQ(CRAttrListDiskFactoryBootedDataVolume(), nullptr);
}

}  // namespace
}  // namespace carrow
