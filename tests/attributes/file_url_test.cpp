#include <gtest/gtest.h>

#include <carrow/attributes/file_url.h>

namespace carrow {
namespace {

TEST(FileURL, DirectoryHintShowsOnlyInTheTextAndTheTextIsAValidURL) {
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
      // Bytes a URL path cannot hold are percent-encoded, UTF-8 byte by byte.
      {FileURL("/tmp/a b"), "/tmp/a b", false, "file:///tmp/a%20b"},
      {FileURL("/tmp/100%"), "/tmp/100%", false, "file:///tmp/100%25"},
      {FileURL("/tmp/#1?q"), "/tmp/#1?q", false, "file:///tmp/%231%3Fq"},
      {FileURL::fileURLWithPath("/Volumes/Caf\u00e9 \u65e5\u672c/", false),
       "/Volumes/Caf\u00e9 \u65e5\u672c", true, "file:///Volumes/Caf%C3%A9%20%E6%97%A5%E6%9C%AC/"},
      {FileURL("/a-b_c.d~e/!$&'()*+,;=:@"), "/a-b_c.d~e/!$&'()*+,;=:@", false,
       "file:///a-b_c.d~e/!$&'()*+,;=:@"},
      {FileURL("/tmp/\"quote\"<>\\^`{|}"), "/tmp/\"quote\"<>\\^`{|}", false,
       "file:///tmp/%22quote%22%3C%3E%5C%5E%60%7B%7C%7D"},
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
