#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/attributes/attr_list.h>

namespace carrow {
namespace {

using Key = AttrList::Key;
using Options = AttrList::Options;
namespace fs = std::filesystem;

// A fresh directory with a regular file and a symbolic link to it.
class AttrListReadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/carrow-attrs-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory = pattern;
    file = directory / "a file é";
    std::ofstream(file) << "twelve bytes";
    link = directory / "link";
    fs::create_symlink(file, link);
  }
  void TearDown() override { fs::remove_all(directory); }

  fs::path directory, file, link;
};

template <class T>
T valueOf(const AttrList::Attributes& values, Key key) {
  auto found = values.find(key);
  if (found == values.end() || !found->second.holds<T>()) {
    ADD_FAILURE() << "no value of the expected type for " << key;
    return T{};
  }
  return *found->second.get<T>();
}

TEST_F(AttrListReadTest, RegularFileMatchesStat) {
  const std::vector<Key> keys = {
      Key::name,          Key::objectType, Key::ownerID, Key::fileID, Key::modificationTime,
      Key::fileLinkCount, Key::accessMask, Key::fsID};
  const auto values = AttrList::attributes(file.string(), keys, {});
  struct stat info {};
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_EQ(valueOf<std::string>(values, Key::name), "a file é");
  EXPECT_EQ(valueOf<std::uint32_t>(values, Key::objectType), 1u);  // VREG
  EXPECT_EQ(valueOf<std::uint32_t>(values, Key::ownerID), info.st_uid);
  EXPECT_EQ(valueOf<std::uint64_t>(values, Key::fileID), info.st_ino);
  EXPECT_EQ(valueOf<std::uint32_t>(values, Key::fileLinkCount), info.st_nlink);
  EXPECT_EQ(valueOf<std::uint32_t>(values, Key::accessMask), info.st_mode & 07777);
  const auto modified = valueOf<TimeSpec>(values, Key::modificationTime);
  EXPECT_EQ(modified.tv_sec, info.st_mtim.tv_sec);
  EXPECT_EQ(modified.tv_nsec, info.st_mtim.tv_nsec);
  // Directory attributes are not returned for a file.
  EXPECT_FALSE(AttrList::attributes(file.string(), {Key::directoryEntryCount}, {})
                   .contains(Key::directoryEntryCount));
}

TEST_F(AttrListReadTest, KeyOrderAndRangeFormsDoNotMatter) {
  const std::vector<Key> forward = {Key::name, Key::fileID, Key::objectType};
  const std::vector<Key> backward(forward.rbegin(), forward.rend());
  const std::set<Key> asSet(forward.begin(), forward.end());
  const auto a = AttrList::attributes(file.string(), forward, {});
  const auto b = AttrList::attributes(file.string(), backward, {});
  const auto c = AttrList::attributes(FileURL(file.string()), asSet, {});
  ASSERT_EQ(a.size(), 3u);
  ASSERT_EQ(b.size(), 3u);
  ASSERT_EQ(c.size(), 3u);
  EXPECT_EQ(valueOf<std::uint64_t>(a, Key::fileID), valueOf<std::uint64_t>(c, Key::fileID));
  EXPECT_EQ(valueOf<std::string>(b, Key::name), "a file é");
}

TEST_F(AttrListReadTest, NoFollowDescribesTheLinkItself) {
  const FileURL url(link.string());
  EXPECT_EQ(AttrList::attribute<std::uint32_t>(Key::objectType, url, Options::noFollow), 5u);
  EXPECT_EQ(AttrList::attribute<std::uint32_t>(Key::objectType, url, {}), 1u);
  EXPECT_EQ(AttrList::attribute<std::string>(Key::name, url, Options::noFollow), "link");
}

TEST_F(AttrListReadTest, ErrorsSayWhatWentWrong) {
  // Kernel errors arrive as errno values; a value not returned is ENOENT.
  auto errnoOf = [](auto read) {
    try {
      read();
    } catch (const AttrList::Error&) {
      return -1;
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code().category(), std::generic_category());
      return error.code().value();
    }
    return 0;
  };
  EXPECT_EQ(
      errnoOf([&] { AttrList::attributes((directory / "missing").string(), {Key::name}, {}); }),
      ENOENT);
  EXPECT_EQ(errnoOf([&] { AttrList::attributes((file / "below").string(), {Key::name}, {}); }),
            ENOTDIR);
  EXPECT_EQ(errnoOf([&] {
              AttrList::attribute<std::uint32_t>(Key::directoryEntryCount, FileURL(file.string()),
                                                 {});
            }),
            ENOENT);
  try {
    AttrList::attribute<std::int64_t>(Key::objectType, FileURL(file.string()), {});
    FAIL() << "read a 32-bit value as 64-bit";
  } catch (const AttrList::Error& error) {
    EXPECT_EQ(error.errorCase(), AttrList::Error::Case::keyTypeMismatch);
  }
}

TEST_F(AttrListReadTest, EmptyRequestReadsNothing) {
  EXPECT_TRUE(AttrList::attributes(file.string(), {}, {}).empty());
}

TEST_F(AttrListReadTest, ConcurrentReadsAgree) {
  const auto expected = AttrList::attribute<std::uint64_t>(Key::fileID, FileURL(file.string()), {});
  std::vector<std::thread> threads;
  std::atomic<int> mismatches{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        const std::vector<Key> keys = {Key::fileID, Key::name, Key::fsID};
        const auto values = AttrList::attributes(file.string(), keys, {});
        if (valueOf<std::uint64_t>(values, Key::fileID) != expected) ++mismatches;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches, 0);
}

TEST(AttrListVolumeRead, LoneFixedVolumeAttribute) {
  // The reply also carries the volume-information word, which the buffer must hold.
  EXPECT_GT(AttrList::attribute<std::int64_t>(Key::volumeSize, FileURL("/"), {}), 0);
}

}  // namespace
}  // namespace carrow
