#include <gtest/gtest.h>

#include <carrow/attributes/file_url.h>

namespace carrow {
namespace {

TEST(FileURL, DirectoryHintShowsOnlyInTheText) {
  const auto data = FileURL::fileURLWithPath("/System/Volumes/Data/", true);
  EXPECT_EQ(data.path(), "/System/Volumes/Data");
  EXPECT_TRUE(data.hasDirectoryPath());
  EXPECT_EQ(data.absoluteString(), "file:///System/Volumes/Data/");
  EXPECT_EQ(data, FileURL::fileURLWithPath("/System/Volumes/Data", true));
}

TEST(FileURL, TrailingSeparatorsMakeADirectory) {
  const auto url = FileURL::fileURLWithPath("/tmp//");
  EXPECT_EQ(url.path(), "/tmp");
  EXPECT_TRUE(url.hasDirectoryPath());
  EXPECT_FALSE(FileURL("/tmp/file").hasDirectoryPath());
  EXPECT_EQ(FileURL("/tmp/file").absoluteString(), "file:///tmp/file");
}

TEST(FileURL, RootStaysTheRoot) {
  EXPECT_EQ(FileURL("/").path(), "/");
  EXPECT_TRUE(FileURL("/").hasDirectoryPath());
  EXPECT_EQ(FileURL::fileURLWithPath("///", true).path(), "/");
  EXPECT_EQ(FileURL("/").absoluteString(), "file:///");
}

}  // namespace
}  // namespace carrow
