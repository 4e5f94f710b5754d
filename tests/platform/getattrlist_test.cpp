#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/platform/attr.h>
#include <carrow/platform/mount.h>
#include <carrow/platform/mount_table.h>

#include "attr_reply_reader.h"
#include "temp_tree.h"

namespace carrow::platform {
namespace {

using testing::call;
using testing::kCommon;
using testing::kDirectory;
using testing::kFile;
using testing::kFork;
using testing::kVolume;
using testing::ParsedReply;
using testing::request;
using testing::TempTree;

constexpr unsigned int kOptions = FSOPT_REPORT_FULLSIZE | FSOPT_ATTR_CMN_EXTENDED;

struct statx lookUp(const std::string& path, bool follow) {
  struct statx result {};
  int flags = follow ? 0 : AT_SYMLINK_NOFOLLOW;
  EXPECT_EQ(statx(AT_FDCWD, path.c_str(), flags, STATX_BASIC_STATS | STATX_BTIME, &result), 0);
  return result;
}

std::uint32_t packedDevice(std::uint32_t major, std::uint32_t minor) {
  return (minor & 0xff) | (major << 8) | ((minor & ~0xffu) << 12);
}

// The 32-bit word at `offset` of a reply.
std::uint32_t word(const std::vector<unsigned char>& bytes, std::size_t offset) {
  std::uint32_t value;
  std::memcpy(&value, &bytes[offset], 4);
  return value;
}

const attrgroup_t kObjectBasics = ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_NAME | ATTR_CMN_DEVID
                                  | ATTR_CMN_OBJTYPE | ATTR_CMN_FILEID | ATTR_CMN_FULLPATH;

// --- Objects of every type, checked against statx ---------------------------------------------

TEST(GetAttrList, RegularFileMatchesStatx) {
  TempTree tree;
  std::string path = tree.file("plain.txt", "hello, attributes");
  auto list = request(kObjectBasics | ATTR_CMN_MODTIME | ATTR_CMN_CHGTIME | ATTR_CMN_ACCTIME
                          | ATTR_CMN_OWNERID | ATTR_CMN_GRPID | ATTR_CMN_ACCESSMASK,
                      0, ATTR_DIR_LINKCOUNT,
                      ATTR_FILE_LINKCOUNT | ATTR_FILE_TOTALSIZE | ATTR_FILE_ALLOCSIZE);
  auto reply = call(path, list, kOptions);
  ASSERT_EQ(reply.rc, 0) << strerror(reply.error);
  ParsedReply parsed(reply.bytes);
  struct statx expected = lookUp(path, true);

  EXPECT_EQ(parsed.text(kCommon, ATTR_CMN_NAME), "plain.txt");
  EXPECT_EQ(parsed.text(kCommon, ATTR_CMN_FULLPATH), std::filesystem::canonical(path).string());
  EXPECT_EQ(parsed.value<std::uint32_t>(kCommon, ATTR_CMN_OBJTYPE), VREG);
  EXPECT_EQ(parsed.value<std::uint32_t>(kCommon, ATTR_CMN_DEVID),
            packedDevice(expected.stx_dev_major, expected.stx_dev_minor));
  EXPECT_EQ(parsed.value<std::uint64_t>(kCommon, ATTR_CMN_FILEID), expected.stx_ino);
  auto modified = parsed.value<attr_timespec>(kCommon, ATTR_CMN_MODTIME);
  EXPECT_EQ(modified.tv_sec, expected.stx_mtime.tv_sec);
  EXPECT_EQ(modified.tv_nsec, expected.stx_mtime.tv_nsec);
  EXPECT_EQ(parsed.value<attr_timespec>(kCommon, ATTR_CMN_CHGTIME).tv_nsec,
            expected.stx_ctime.tv_nsec);
  EXPECT_EQ(parsed.value<std::uint32_t>(kCommon, ATTR_CMN_OWNERID), expected.stx_uid);
  EXPECT_EQ(parsed.value<std::uint32_t>(kCommon, ATTR_CMN_GRPID), expected.stx_gid);
  EXPECT_EQ(parsed.value<std::uint32_t>(kCommon, ATTR_CMN_ACCESSMASK), expected.stx_mode & 07777u);
  EXPECT_EQ(parsed.value<std::uint32_t>(kFile, ATTR_FILE_LINKCOUNT), 1u);
  EXPECT_EQ(parsed.value<std::int64_t>(kFile, ATTR_FILE_TOTALSIZE), 17);
  EXPECT_EQ(parsed.value<std::int64_t>(kFile, ATTR_FILE_ALLOCSIZE),
            static_cast<std::int64_t>(expected.stx_blocks) * 512);
  EXPECT_EQ(parsed.returned().dirattr, 0u) << "directory attributes of a file";
  EXPECT_EQ(parsed.length() % 4, 0u);
  EXPECT_EQ(reply.bytes[parsed.length()], 0xEE) << "the length word covers all that was written";
}

TEST(GetAttrList, DirectoryReportsItsEntriesAndNoFileAttributes) {
  TempTree tree;
  std::string dir = tree.directory("folder");
  tree.file("folder/a");
  tree.file("folder/b");
  tree.directory("folder/c");
  auto list =
      request(kObjectBasics | ATTR_CMN_PARENTID, 0,
              ATTR_DIR_LINKCOUNT | ATTR_DIR_ENTRYCOUNT | ATTR_DIR_MOUNTSTATUS, ATTR_FILE_TOTALSIZE);
  auto reply = call(dir, list, kOptions);
  ASSERT_EQ(reply.rc, 0) << strerror(reply.error);
  ParsedReply parsed(reply.bytes);
  EXPECT_EQ(parsed.value<std::uint32_t>(kCommon, ATTR_CMN_OBJTYPE), VDIR);
  EXPECT_EQ(parsed.value<std::uint32_t>(kDirectory, ATTR_DIR_ENTRYCOUNT), 3u);
  EXPECT_EQ(parsed.value<std::uint32_t>(kDirectory, ATTR_DIR_LINKCOUNT),
            lookUp(dir, true).stx_nlink);
  EXPECT_EQ(parsed.value<std::uint32_t>(kDirectory, ATTR_DIR_MOUNTSTATUS), 0u);
  EXPECT_EQ(parsed.value<std::uint64_t>(kCommon, ATTR_CMN_PARENTID),
            lookUp(tree.root().string(), true).stx_ino);
  EXPECT_EQ(parsed.returned().fileattr, 0u) << "file attributes of a directory";

  // "." names the directory by relation; its name is its own.
  auto dot = call(dir + "/.", request(ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_NAME), kOptions);
  ASSERT_EQ(dot.rc, 0);
  EXPECT_EQ(ParsedReply(dot.bytes).text(kCommon, ATTR_CMN_NAME), "folder");
}

TEST(GetAttrList, SymbolicLinkIsFollowedUnlessNoFollowIsGiven) {
  TempTree tree;
  std::string target = tree.file("target", "12345");
  std::string link = (tree.root() / "link").string();
  ASSERT_EQ(symlink("target", link.c_str()), 0);
  auto list = request(kObjectBasics | ATTR_CMN_PARENTID, 0, 0, ATTR_FILE_TOTALSIZE);

  auto followed = call(link, list, kOptions);
  ASSERT_EQ(followed.rc, 0);
  ParsedReply viaTarget(followed.bytes);
  EXPECT_EQ(viaTarget.value<std::uint32_t>(kCommon, ATTR_CMN_OBJTYPE), VREG);
  EXPECT_EQ(viaTarget.value<std::uint64_t>(kCommon, ATTR_CMN_FILEID), lookUp(target, true).stx_ino);
  EXPECT_EQ(viaTarget.text(kCommon, ATTR_CMN_FULLPATH),
            std::filesystem::canonical(target).string());
  EXPECT_EQ(viaTarget.value<std::int64_t>(kFile, ATTR_FILE_TOTALSIZE), 5);

  auto own = call(link, list, kOptions | FSOPT_NOFOLLOW);
  ASSERT_EQ(own.rc, 0);
  ParsedReply linkItself(own.bytes);
  EXPECT_EQ(linkItself.value<std::uint32_t>(kCommon, ATTR_CMN_OBJTYPE), VLNK);
  EXPECT_EQ(linkItself.value<std::uint64_t>(kCommon, ATTR_CMN_FILEID), lookUp(link, false).stx_ino);
  EXPECT_EQ(linkItself.text(kCommon, ATTR_CMN_NAME), "link");
  EXPECT_EQ(linkItself.text(kCommon, ATTR_CMN_FULLPATH),
            (std::filesystem::canonical(tree.root()) / "link").string());
  EXPECT_EQ(linkItself.value<std::uint64_t>(kCommon, ATTR_CMN_PARENTID),
            lookUp(tree.root().string(), true).stx_ino);
  EXPECT_EQ(linkItself.value<std::int64_t>(kFile, ATTR_FILE_TOTALSIZE), 6) << "the link's text";
}

TEST(GetAttrList, SpecialFilesHaveTheirTypes) {
  TempTree tree;
  std::string fifo = (tree.root() / "fifo").string();
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::string socketPath = (tree.root() / "sock").string();
  int sock = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(sock, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socketPath.c_str(), sizeof(address.sun_path) - 1);
  ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);

  auto list = request(ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_OBJTYPE | ATTR_CMN_USERACCESS, 0, 0,
                      ATTR_FILE_DEVTYPE);
  struct Case {
    std::string path;
    std::uint32_t type;
  };
  for (const Case& item : {Case{fifo, VFIFO}, Case{socketPath, VSOCK}, Case{"/dev/null", VCHR}}) {
    auto reply = call(item.path, list, kOptions);
    ASSERT_EQ(reply.rc, 0) << item.path;
    ParsedReply parsed(reply.bytes);
    EXPECT_EQ(parsed.value<std::uint32_t>(kCommon, ATTR_CMN_OBJTYPE), item.type) << item.path;
    std::uint32_t device = item.type == VCHR ? packedDevice(1, 3) : 0;
    EXPECT_EQ(parsed.value<std::uint32_t>(kFile, ATTR_FILE_DEVTYPE), device) << item.path;
  }
  close(sock);
  auto null = call("/dev/null", list, kOptions);
  EXPECT_EQ(ParsedReply(null.bytes).value<std::uint32_t>(kCommon, ATTR_CMN_USERACCESS) & 6u, 6u);
}

TEST(GetAttrList, NamesWithBlanksAndNonAsciiComeBackByteForByte) {
  TempTree tree;
  for (std::string name : {"with blanks in it", "Grüße, 東京 ☃", "a", "ab", "abc", "abcd"}) {
    std::string path = tree.file(name);
    auto reply =
        call(path, request(ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_NAME | ATTR_CMN_FULLPATH), kOptions);
    ASSERT_EQ(reply.rc, 0) << name;
    ParsedReply parsed(reply.bytes);
    EXPECT_EQ(parsed.text(kCommon, ATTR_CMN_NAME), name);
    EXPECT_EQ(parsed.text(kCommon, ATTR_CMN_FULLPATH), std::filesystem::canonical(path).string());
  }
}

TEST(GetAttrList, DeepPathsAreDescribedAndOverlongFullPathsLeftOut) {
  TempTree tree;
  std::filesystem::path deep = tree.root();
  while (deep.string().size() < 1500) deep /= std::string(40, 'd');
  std::filesystem::create_directories(deep);
  std::string file = (deep / "leaf").string();
  tree.file(std::filesystem::relative(file, tree.root()).string());

  auto reply = call(file, request(kObjectBasics), kOptions);
  ASSERT_EQ(reply.rc, 0) << strerror(reply.error);
  ParsedReply parsed(reply.bytes);
  EXPECT_EQ(parsed.text(kCommon, ATTR_CMN_NAME), "leaf");
  // The platform's paths are shorter than MAXPATHLEN; a longer one cannot be returned whole.
  EXPECT_FALSE(parsed.has(kCommon, ATTR_CMN_FULLPATH));
  EXPECT_EQ(parsed.value<std::uint64_t>(kCommon, ATTR_CMN_FILEID), lookUp(file, true).stx_ino);
}

// --- Failures --------------------------------------------------------------------------------

TEST(GetAttrList, PathErrorsAreTheKernelsErrors) {
  TempTree tree;
  std::string file = tree.file("file");
  std::string loop = (tree.root() / "loop").string();
  ASSERT_EQ(symlink("loop", loop.c_str()), 0);
  auto list = request(kObjectBasics);
  struct Case {
    std::string path;
    int error;
  };
  for (const Case& item : {Case{(tree.root() / "missing").string(), ENOENT}, Case{"", ENOENT},
                           Case{file + "/below", ENOTDIR}, Case{loop, ELOOP},
                           Case{(tree.root() / std::string(300, 'n')).string(), ENAMETOOLONG}}) {
    auto reply = call(item.path, list, kOptions);
    EXPECT_EQ(reply.rc, -1) << item.path;
    EXPECT_EQ(reply.error, item.error) << item.path;
  }
}

TEST(GetAttrList, DirectoryWithoutSearchPermissionIsRefused) {
  if (geteuid() == 0) GTEST_SKIP() << "the super-user passes every permission check";
  TempTree tree;
  std::string closed = tree.directory("closed");
  std::string inside = tree.file("closed/inside");
  ASSERT_EQ(chmod(closed.c_str(), 0), 0);
  auto reply = call(inside, request(kObjectBasics), kOptions);
  EXPECT_EQ(reply.rc, -1);
  EXPECT_EQ(reply.error, EACCES);
  chmod(closed.c_str(), 0700);
}

TEST(GetAttrList, MalformedRequestsAreInvalid) {
  TempTree tree;
  std::string file = tree.file("file");
  std::string dir = tree.directory("dir");
  auto expectError = [&](const std::string& path, attrlist list, unsigned int options, int error,
                         const char* what) {
    auto reply = call(path, list, options);
    EXPECT_EQ(reply.rc, -1) << what;
    EXPECT_EQ(reply.error, error) << what;
  };
  attrlist wrongCount = request(kObjectBasics);
  wrongCount.bitmapcount = 4;
  expectError(file, wrongCount, kOptions, EINVAL, "bitmap count 4");
  expectError(
      "/", request(ATTR_CMN_RETURNED_ATTRS, ATTR_VOL_INFO | ATTR_VOL_SIZE, 0, ATTR_FILE_TOTALSIZE),
      kOptions, EINVAL, "volume with file attributes");
  expectError("/",
              request(ATTR_CMN_RETURNED_ATTRS, ATTR_VOL_INFO | ATTR_VOL_SIZE, ATTR_DIR_LINKCOUNT),
              kOptions, EINVAL, "volume with directory attributes");
  expectError("/", request(ATTR_CMN_RETURNED_ATTRS, ATTR_VOL_INFO, 0, 0, ATTR_CMNEXT_REALFSID),
              kOptions, EINVAL, "volume with fork attributes");
  expectError("/", request(ATTR_CMN_RETURNED_ATTRS, ATTR_VOL_SIZE), kOptions, EINVAL,
              "volume attributes without ATTR_VOL_INFO");
  expectError(dir, request(ATTR_CMN_RETURNED_ATTRS, ATTR_VOL_INFO | ATTR_VOL_SIZE), kOptions,
              EINVAL, "volume attributes of a directory that is no mount point");
  expectError(file, request(ATTR_CMN_NAME), kOptions | FSOPT_PACK_INVAL_ATTRS, EINVAL,
              "packing invalid attributes without the returned set");
  expectError(file, request(ATTR_CMN_RETURNED_ATTRS, 0, 0x80), kOptions, EINVAL,
              "an undefined directory attribute");
  expectError((std::filesystem::path(dir) / "missing").string(), wrongCount, kOptions, EINVAL,
              "the request is checked before the path");

  attrlist list = request(kObjectBasics);
  unsigned char small[3] = {0xAA, 0xAA, 0xAA};
  EXPECT_EQ(getattrlist(file.c_str(), &list, small, sizeof(small), kOptions), -1);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(small[0], 0xAA);
  EXPECT_EQ(getattrlist(file.c_str(), nullptr, small, sizeof(small), kOptions), -1);
  EXPECT_EQ(errno, EFAULT);
}

// --- Layout ----------------------------------------------------------------------------------

TEST(GetAttrList, ReplyLayoutIsTheKernels) {
  TempTree tree;
  std::string file = tree.file("abc");  // A 3-byte name: 4 bytes of data with its zero.
  auto list = request(ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_NAME | ATTR_CMN_OBJTYPE | ATTR_CMN_FULLPATH
                      | ATTR_CMN_FILEID);
  auto reply = call(file, list, kOptions);
  ASSERT_EQ(reply.rc, 0);
  const auto& bytes = reply.bytes;
  std::string fullPath = std::filesystem::canonical(file).string();
  // length | returned set (20) | name ref @24 | type @32 | file id @36 | full path ref @44 | data
  EXPECT_EQ(word(bytes, 4), ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_NAME | ATTR_CMN_OBJTYPE
                                | ATTR_CMN_FULLPATH | ATTR_CMN_FILEID);
  EXPECT_EQ(word(bytes, 8), 0u);
  EXPECT_EQ(word(bytes, 24), 52u - 24u) << "offset counted from the reference itself";
  EXPECT_EQ(word(bytes, 28), 4u) << "length with the zero byte";
  EXPECT_EQ(word(bytes, 32), VREG);
  EXPECT_EQ(word(bytes, 44), 56u - 44u);
  EXPECT_EQ(word(bytes, 48), fullPath.size() + 1);
  EXPECT_EQ(std::memcmp(&bytes[52], "abc", 4), 0);
  std::size_t padded = (fullPath.size() + 1 + 3) / 4 * 4;
  EXPECT_EQ(std::memcmp(&bytes[56], fullPath.c_str(), fullPath.size() + 1), 0);
  for (std::size_t i = 56 + fullPath.size() + 1; i < 56 + padded; ++i) {
    EXPECT_EQ(bytes[i], 0) << "padding at " << i;
  }
  EXPECT_EQ(word(bytes, 0), 56 + padded);
  EXPECT_EQ(bytes[56 + padded], 0xEE) << "nothing written past the reply";
}

TEST(GetAttrList, ReturnedSetIsOmittedWhenNotAsked) {
  TempTree tree;
  std::string file = tree.file("x");
  auto reply = call(file, request(ATTR_CMN_OBJTYPE | ATTR_CMN_NAME), kOptions);
  ASSERT_EQ(reply.rc, 0);
  // length | name ref @4 | type @12 | "x"
  EXPECT_EQ(word(reply.bytes, 0), 20u);
  EXPECT_EQ(word(reply.bytes, 4), 12u);
  EXPECT_EQ(word(reply.bytes, 8), 2u);
  EXPECT_EQ(word(reply.bytes, 12), VREG);
  EXPECT_EQ(reply.bytes[16], 'x');
}

TEST(GetAttrList, NeverWritesPastTheBufferAndReportsTheFullSize) {
  TempTree tree;
  std::string file = tree.file("a name of odd length");
  auto list = request(kObjectBasics | ATTR_CMN_MODTIME, 0, 0, ATTR_FILE_TOTALSIZE);
  auto full = call(file, list, kOptions);
  ASSERT_EQ(full.rc, 0);
  const std::uint32_t fullSize = word(full.bytes, 0);
  ASSERT_EQ(fullSize % 4, 0u);

  constexpr std::size_t kGuard = 64;
  for (std::size_t size = 4; size <= fullSize + 8; ++size) {
    for (unsigned int options : {kOptions, kOptions & ~FSOPT_REPORT_FULLSIZE}) {
      std::vector<unsigned char> buffer(size + kGuard, 0xAA);
      ASSERT_EQ(getattrlist(file.c_str(), &list, buffer.data(), size, options), 0);
      for (std::size_t i = size; i < buffer.size(); ++i) {
        ASSERT_EQ(buffer[i], 0xAA) << "byte " << i << " written with a buffer of " << size;
      }
      const bool reportsFull = (options & FSOPT_REPORT_FULLSIZE) != 0;
      EXPECT_EQ(word(buffer, 0), reportsFull ? fullSize : std::min<std::size_t>(fullSize, size));
      std::size_t common = std::min<std::size_t>(size, fullSize);
      EXPECT_EQ(std::memcmp(buffer.data() + 4, full.bytes.data() + 4, common - 4), 0)
          << "a cut reply is a prefix of the whole one";
    }
  }
}

TEST(GetAttrList, PackedInvalidAttributesKeepTheirPlaceButAreNotReturned) {
  TempTree tree;
  std::string file = tree.file("f");
  auto list =
      request(ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_MODTIME | ATTR_CMN_BKUPTIME | ATTR_CMN_OWNERID);
  auto reply = call(file, list, kOptions | FSOPT_PACK_INVAL_ATTRS);
  ASSERT_EQ(reply.rc, 0);
  // length | returned set | modified @24 | backed up @40 (zeros) | owner @56
  EXPECT_EQ(word(reply.bytes, 4), ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_MODTIME | ATTR_CMN_OWNERID);
  EXPECT_EQ(word(reply.bytes, 0), 24u + 16 + 16 + 4);
  EXPECT_EQ(word(reply.bytes, 56), lookUp(file, true).stx_uid);
  for (std::size_t i = 40; i < 56; ++i) EXPECT_EQ(reply.bytes[i], 0);
  EXPECT_EQ(word(call(file, list, kOptions).bytes, 0), 24u + 16 + 4)
      << "without packing, an absent attribute takes no room";
}

TEST(GetAttrList, ExtendedCommonAttributesRideInTheForkWord) {
  TempTree tree;
  std::string file = tree.file("f");
  auto list = request(ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_FSID, 0, 0, 0,
                      ATTR_CMNEXT_LINKID | ATTR_CMNEXT_REALFSID);
  auto reply = call(file, list, kOptions);
  ASSERT_EQ(reply.rc, 0);
  ParsedReply parsed(reply.bytes);
  auto fsid = parsed.value<fsid_t>(kCommon, ATTR_CMN_FSID);
  auto realFsid = parsed.value<fsid_t>(kFork, ATTR_CMNEXT_REALFSID);
  EXPECT_EQ(fsid.val[0], realFsid.val[0]);
  EXPECT_EQ(fsid.val[1], realFsid.val[1]);
  EXPECT_EQ(parsed.value<std::uint64_t>(kFork, ATTR_CMNEXT_LINKID), lookUp(file, true).stx_ino);

  // Without the extended option the fork word means fork attributes, which Linux lacks.
  auto legacy = call(file, request(ATTR_CMN_RETURNED_ATTRS, 0, 0, 0, ATTR_FORK_TOTALSIZE),
                     FSOPT_REPORT_FULLSIZE);
  ASSERT_EQ(legacy.rc, 0);
  EXPECT_EQ(ParsedReply(legacy.bytes).returned().forkattr, 0u);
}

TEST(GetAttrList, UserAccessFollowsTheModeBits) {
  TempTree tree;
  std::string file = tree.file("f");
  auto list = request(ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_USERACCESS);
  ASSERT_EQ(chmod(file.c_str(), 0644), 0);
  auto reply = call(file, list, kOptions);
  EXPECT_EQ(ParsedReply(reply.bytes).value<std::uint32_t>(kCommon, ATTR_CMN_USERACCESS),
            std::uint32_t{R_OK | W_OK});
  ASSERT_EQ(chmod(file.c_str(), 0755), 0);
  reply = call(file, list, kOptions);
  EXPECT_EQ(ParsedReply(reply.bytes).value<std::uint32_t>(kCommon, ATTR_CMN_USERACCESS),
            std::uint32_t{R_OK | W_OK | X_OK});
}

TEST(GetAttrList, NoDumpAttributeBecomesAFileFlag) {
  TempTree tree;
  std::string file = tree.file("f");
  int fd = open(file.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  int flags = 0;
  if (ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) {
    close(fd);
    GTEST_SKIP() << "the file system keeps no inode flags";
  }
  flags |= FS_NODUMP_FL;
  bool set = ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
  close(fd);
  if (!set) GTEST_SKIP() << "the file system does not take the no-dump flag";
  auto reply = call(file, request(ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_FLAGS), kOptions);
  ASSERT_EQ(reply.rc, 0);
  std::uint32_t fileFlags = ParsedReply(reply.bytes).value<std::uint32_t>(kCommon, ATTR_CMN_FLAGS);
  if ((lookUp(file, true).stx_attributes_mask & STATX_ATTR_NODUMP) == 0) {
    GTEST_SKIP() << "statx does not report the flag here";
  }
  EXPECT_EQ(fileFlags & UF_NODUMP, UF_NODUMP);
}

// --- Volumes ---------------------------------------------------------------------------------

const attrgroup_t kVolumeSet = ATTR_VOL_INFO | ATTR_VOL_FSTYPE | ATTR_VOL_SIGNATURE | ATTR_VOL_SIZE
                               | ATTR_VOL_SPACEFREE | ATTR_VOL_SPACEAVAIL | ATTR_VOL_SPACEUSED
                               | ATTR_VOL_MINALLOCATION | ATTR_VOL_IOBLOCKSIZE | ATTR_VOL_MOUNTPOINT
                               | ATTR_VOL_NAME | ATTR_VOL_MOUNTFLAGS | ATTR_VOL_MOUNTEDDEVICE
                               | ATTR_VOL_CAPABILITIES | ATTR_VOL_UUID | ATTR_VOL_QUOTA_SIZE
                               | ATTR_VOL_RESERVED_SIZE | ATTR_VOL_ATTRIBUTES | ATTR_VOL_FSTYPENAME;

MountEntry mountOf(const std::string& point) {
  MountEntry found;
  for (const auto& entry : readMountTable()) {
    if (entry.mountPoint == point) found = entry;  // The last one is on top.
  }
  return found;
}

TEST(GetAttrList, RootVolumeMatchesStatvfsAndTheMountTable) {
  auto list = request(ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_FSID | ATTR_CMN_OWNERID, kVolumeSet);
  auto reply = call("/", list, kOptions | FSOPT_NOFOLLOW | FSOPT_RETURN_REALDEV);
  ASSERT_EQ(reply.rc, 0) << strerror(reply.error);
  ParsedReply parsed(reply.bytes);
  struct statvfs expected {};
  ASSERT_EQ(statvfs("/", &expected), 0);
  MountEntry root = mountOf("/");

  EXPECT_EQ(parsed.text(kVolume, ATTR_VOL_MOUNTPOINT), "/");
  EXPECT_EQ(parsed.text(kVolume, ATTR_VOL_FSTYPENAME), root.fsType.substr(0, 15));
  EXPECT_EQ(parsed.text(kVolume, ATTR_VOL_MOUNTEDDEVICE), root.source);
  EXPECT_EQ(parsed.value<std::int64_t>(kVolume, ATTR_VOL_SIZE),
            static_cast<std::int64_t>(expected.f_blocks * expected.f_frsize));
  EXPECT_EQ(parsed.value<std::int64_t>(kVolume, ATTR_VOL_MINALLOCATION),
            static_cast<std::int64_t>(expected.f_frsize));
  auto flags = parsed.value<std::uint32_t>(kVolume, ATTR_VOL_MOUNTFLAGS);
  EXPECT_EQ(flags & MNT_ROOTFS, MNT_ROOTFS);
  EXPECT_EQ(flags & MNT_RDONLY, root.readOnly ? MNT_RDONLY : 0u);
  EXPECT_EQ(flags & MNT_DONTBROWSE, 0u);
  EXPECT_EQ(parsed.value<std::uint32_t>(kVolume, ATTR_VOL_INFO), 0u);
  EXPECT_FALSE(parsed.has(kVolume, ATTR_VOL_SIGNATURE));
  EXPECT_FALSE(parsed.has(kVolume, ATTR_VOL_QUOTA_SIZE));

  // The file-system id agrees with the volume's record from getfsstat.
  auto fsid = parsed.value<fsid_t>(kCommon, ATTR_CMN_FSID);
  std::vector<statfs> records(static_cast<std::size_t>(getfsstat(nullptr, 0, MNT_NOWAIT)) + 4);
  int count =
      getfsstat(records.data(), static_cast<int>(records.size() * sizeof(statfs)), MNT_NOWAIT);
  bool matched = false;
  for (int i = 0; i < count; ++i) {
    if (std::string(records[i].f_mntonname) != "/") continue;
    matched = records[i].f_fsid.val[0] == fsid.val[0] && records[i].f_fsid.val[1] == fsid.val[1];
  }
  EXPECT_TRUE(matched);

  // What the volume says it supplies is what it returned.
  auto attributes = parsed.value<vol_attributes_attr_t>(kVolume, ATTR_VOL_ATTRIBUTES);
  EXPECT_EQ(attributes.validattr.volattr & kVolumeSet, parsed.returned().volattr);
  auto capabilities = parsed.value<vol_capabilities_attr_t>(kVolume, ATTR_VOL_CAPABILITIES);
  if (root.fsType == "ext4" || root.fsType == "xfs" || root.fsType == "btrfs") {
    std::uint32_t format = capabilities.capabilities[VOL_CAPABILITIES_FORMAT];
    EXPECT_NE(format & VOL_CAP_FMT_CASE_SENSITIVE, 0u);
    EXPECT_NE(format & VOL_CAP_FMT_SYMBOLICLINKS, 0u);
    EXPECT_NE(format & VOL_CAP_FMT_HARDLINKS, 0u);
    EXPECT_EQ((format & VOL_CAP_FMT_JOURNAL_ACTIVE) != 0, (flags & MNT_JOURNALED) != 0);
  }
  if (parsed.has(kVolume, ATTR_VOL_UUID)) {
    auto uuid = parsed.value<guid_t>(kVolume, ATTR_VOL_UUID);
    EXPECT_FALSE(std::all_of(std::begin(uuid.g_guid), std::end(uuid.g_guid),
                             [](unsigned char b) { return b == 0; }));
  }
}

TEST(GetAttrList, VolumeEntriesFollowThePlatformOrder) {
  // Used space right after available space; quota, reserved size, attributes and type name
  // after the UUID; the info word last.
  auto list = request(ATTR_CMN_RETURNED_ATTRS, ATTR_VOL_INFO | ATTR_VOL_SIZE | ATTR_VOL_SPACEAVAIL
                                                   | ATTR_VOL_SPACEUSED | ATTR_VOL_MINALLOCATION
                                                   | ATTR_VOL_ATTRIBUTES | ATTR_VOL_FSTYPENAME);
  auto reply = call("/", list, kOptions);
  ASSERT_EQ(reply.rc, 0);
  ParsedReply parsed(reply.bytes);
  EXPECT_EQ(parsed.offsetOf(kVolume, ATTR_VOL_SIZE), 24u);
  EXPECT_EQ(parsed.offsetOf(kVolume, ATTR_VOL_SPACEAVAIL), 32u);
  EXPECT_EQ(parsed.offsetOf(kVolume, ATTR_VOL_SPACEUSED), 40u);
  EXPECT_EQ(parsed.offsetOf(kVolume, ATTR_VOL_MINALLOCATION), 48u);
  EXPECT_EQ(parsed.offsetOf(kVolume, ATTR_VOL_ATTRIBUTES), 56u);
  EXPECT_EQ(parsed.offsetOf(kVolume, ATTR_VOL_FSTYPENAME), 96u);
  EXPECT_EQ(parsed.offsetOf(kVolume, ATTR_VOL_INFO), 104u);
  EXPECT_EQ(parsed.fixedEnd(), 108u);
  // Other programs write to "/" meanwhile, so the used space is compared within a margin.
  struct statvfs fs {};
  ASSERT_EQ(statvfs("/", &fs), 0);
  const auto usedNow = parsed.value<std::int64_t>(kVolume, ATTR_VOL_SIZE)
                       - static_cast<std::int64_t>(fs.f_bfree * fs.f_frsize);
  EXPECT_NEAR(static_cast<double>(parsed.value<std::int64_t>(kVolume, ATTR_VOL_SPACEUSED)),
              static_cast<double>(usedNow), 512.0 * 1024 * 1024);
}

TEST(GetAttrList, NewMountIsSeenAtOnceWithItsEscapedName) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting needs privileges";
  TempTree tree;
  std::string point = tree.directory("mount point with blanks");
  if (mount("carrow test", point.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=1m") != 0) {
    GTEST_SKIP() << "cannot mount here: " << strerror(errno);
  }
  std::string canonical = std::filesystem::canonical(point).string();
  auto list = request(ATTR_CMN_RETURNED_ATTRS, ATTR_VOL_INFO | ATTR_VOL_MOUNTPOINT
                                                   | ATTR_VOL_MOUNTEDDEVICE | ATTR_VOL_MOUNTFLAGS
                                                   | ATTR_VOL_FSTYPENAME | ATTR_VOL_SIZE);
  auto reply = call(point, list, kOptions);
  auto countAfterMount = getfsstat(nullptr, 0, MNT_NOWAIT);
  auto dirReply = call(point, request(ATTR_CMN_RETURNED_ATTRS, 0, ATTR_DIR_MOUNTSTATUS), kOptions);
  umount(point.c_str());
  auto countAfterUnmount = getfsstat(nullptr, 0, MNT_NOWAIT);

  ASSERT_EQ(reply.rc, 0) << strerror(reply.error);
  ParsedReply parsed(reply.bytes);
  EXPECT_EQ(parsed.text(kVolume, ATTR_VOL_MOUNTPOINT), canonical);
  EXPECT_EQ(parsed.text(kVolume, ATTR_VOL_MOUNTEDDEVICE), "carrow test");
  EXPECT_EQ(parsed.text(kVolume, ATTR_VOL_FSTYPENAME), "tmpfs");
  EXPECT_EQ(parsed.value<std::int64_t>(kVolume, ATTR_VOL_SIZE), 1 << 20);
  auto flags = parsed.value<std::uint32_t>(kVolume, ATTR_VOL_MOUNTFLAGS);
  EXPECT_EQ(flags & (MNT_NOSUID | MNT_NODEV | MNT_LOCAL), MNT_NOSUID | MNT_NODEV | MNT_LOCAL);
  EXPECT_EQ(countAfterMount, countAfterUnmount + 1);
  ASSERT_EQ(dirReply.rc, 0);
  EXPECT_EQ(ParsedReply(dirReply.bytes).value<std::uint32_t>(kDirectory, ATTR_DIR_MOUNTSTATUS),
            DIR_MNTSTATUS_MNTPOINT);
}

TEST(GetAttrList, JournaledDiskImageReportsLabelUuidAndJournal) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting needs privileges";
  TempTree tree;
  std::string image = (tree.root() / "disk.img").string();
  std::string point = tree.directory("disk");
  std::string make = "truncate -s 16M '" + image + "' && mkfs.ext4 -q -F -L 'Backup Disk' -U "
                     "12345678-9abc-def0-1234-56789abcdef0 '" + image + "' >/dev/null 2>&1";
  if (std::system(make.c_str()) != 0) GTEST_SKIP() << "mkfs.ext4 is not available";
  std::string attach = "mount -o loop '" + image + "' '" + point + "' >/dev/null 2>&1";
  if (std::system(attach.c_str()) != 0) GTEST_SKIP() << "loop devices are not available";
  auto list = request(ATTR_CMN_RETURNED_ATTRS, ATTR_VOL_INFO | ATTR_VOL_NAME | ATTR_VOL_UUID
                                                   | ATTR_VOL_MOUNTFLAGS | ATTR_VOL_MOUNTEDDEVICE
                                                   | ATTR_VOL_CAPABILITIES | ATTR_VOL_FSTYPENAME);
  auto reply = call(point, list, kOptions);
  std::vector<statfs> records(static_cast<std::size_t>(getfsstat(nullptr, 0, MNT_NOWAIT)) + 4);
  int count =
      getfsstat(records.data(), static_cast<int>(records.size() * sizeof(statfs)), MNT_NOWAIT);
  umount(point.c_str());

  ASSERT_EQ(reply.rc, 0) << strerror(reply.error);
  ParsedReply parsed(reply.bytes);
  EXPECT_EQ(parsed.text(kVolume, ATTR_VOL_NAME), "Backup Disk");
  const unsigned char expectedUuid[16] = {0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0,
                                          0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0};
  auto uuid = parsed.value<guid_t>(kVolume, ATTR_VOL_UUID);
  EXPECT_EQ(std::memcmp(uuid.g_guid, expectedUuid, 16), 0);
  EXPECT_EQ(parsed.text(kVolume, ATTR_VOL_FSTYPENAME), "ext4");
  EXPECT_EQ(parsed.text(kVolume, ATTR_VOL_MOUNTEDDEVICE).rfind("/dev/loop", 0), 0u);
  auto flags = parsed.value<std::uint32_t>(kVolume, ATTR_VOL_MOUNTFLAGS);
  EXPECT_EQ(flags & (MNT_JOURNALED | MNT_LOCAL), MNT_JOURNALED | MNT_LOCAL);
  auto capabilities = parsed.value<vol_capabilities_attr_t>(kVolume, ATTR_VOL_CAPABILITIES);
  std::uint32_t journal = VOL_CAP_FMT_JOURNAL | VOL_CAP_FMT_JOURNAL_ACTIVE;
  EXPECT_EQ(capabilities.capabilities[VOL_CAPABILITIES_FORMAT] & journal, journal);
  EXPECT_EQ(capabilities.valid[VOL_CAPABILITIES_FORMAT] & journal, journal);

  std::string canonical = std::filesystem::canonical(point).string();
  bool listed = false;
  for (int i = 0; i < count; ++i) {
    if (records[i].f_mntonname != canonical) continue;
    listed = true;
    EXPECT_EQ(records[i].f_flags & MNT_JOURNALED, MNT_JOURNALED);
    EXPECT_GT(std::uint64_t{records[i].f_blocks} * records[i].f_bsize, std::uint64_t{8} << 20);
  }
  EXPECT_TRUE(listed);
}

TEST(GetAttrList, ForkedChildDoesNotHideMountChangesFromItsParent) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting needs privileges";
  TempTree tree;
  std::string point = tree.directory("mnt");
  int before = getfsstat(nullptr, 0, MNT_NOWAIT);  // The parent now holds a current table.
  if (mount("carrow-fork", point.c_str(), "tmpfs", 0, "size=1m") != 0) {
    GTEST_SKIP() << "cannot mount here: " << strerror(errno);
  }
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(getfsstat(nullptr, 0, MNT_NOWAIT) == before + 1 ? 0 : 1);
  int status = 0;
  waitpid(child, &status, 0);
  int after = getfsstat(nullptr, 0, MNT_NOWAIT);
  umount(point.c_str());
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child saw the new mount";
  EXPECT_EQ(after, before + 1) << "the parent saw it too, after the child looked";
}

TEST(GetAttrList, ConcurrentReadsAgree) {
  // Volume reads share the process's mount table; reads on many threads must not race on it.
  auto list = request(ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_FSID,
                      ATTR_VOL_INFO | ATTR_VOL_MOUNTPOINT | ATTR_VOL_FSTYPENAME);
  auto reference = call("/", list, kOptions);
  ASSERT_EQ(reference.rc, 0);
  std::vector<std::thread> threads;
  std::atomic<int> mismatches{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        auto reply = call("/", list, kOptions, reference.bytes.size());
        if (reply.rc != 0 || reply.bytes != reference.bytes) ++mismatches;
        if (getfsstat(nullptr, 0, MNT_NOWAIT) <= 0) ++mismatches;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
}  // namespace carrow::platform
