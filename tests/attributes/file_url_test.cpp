#include <gtest/gtest.h>

#include <carrow/attributes/file_url.h>

namespace carrow {
namespace {

TEST(FileURL, DirectoryHintShowsOnlyInTheText) {
  struct Case {
    FileURL url;
    const char* path;
    bool isDirectory;
    const char* text;
  };
  const Case cases[] = {
      {FileURL::fileURLWithPath("/System/Volumes/Data/", true), "/System/Volumes/Data", true,
       "file:///System/Volumes/Data/"},
      {FileURL::fileURLWithPath("/tmp//"), "/tmp", true, "file:///tmp/"},  // trailing separators
      {FileURL("/tmp/file"), "/tmp/file", false, "file:///tmp/file"},
      {FileURL("/"), "/", true, "file:///"},
      {FileURL::fileURLWithPath("///", true), "/", true, "file:///"},
  };
  for (const Case& item : cases) {
    EXPECT_EQ(item.url.path(), item.path) << item.text;
    EXPECT_EQ(item.url.hasDirectoryPath(), item.isDirectory) << item.text;
    EXPECT_EQ(item.url.absoluteString(), item.text);
  }
  EXPECT_EQ(cases[0].url, FileURL::fileURLWithPath("/System/Volumes/Data", true));
}

}  // namespace
}  // namespace carrow
