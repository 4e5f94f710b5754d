#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/attributes/attr_list.h>

#include "reply_builder.h"

namespace carrow {
namespace {

using Key = AttrList::Key;
using testing::ReplyBuilder;

template <class T>
T valueOf(const AttrList::Attributes& values, Key key) {
  auto found = values.find(key);
  if (found == values.end()) {
    ADD_FAILURE() << "missing " << key;
    return T{};
  }
  const T* value = found->second.get<T>();
  if (!value) {
    ADD_FAILURE() << key << " holds " << found->second.type().name();
    return T{};
  }
  return *value;
}

AttrList::Error::Case malformed(const std::vector<std::byte>& reply) {
  try {
    AttrList::parseReply(reply);
  } catch (const AttrList::Error& error) {
    return error.errorCase();
  }
  ADD_FAILURE() << "the reply was accepted";
  return AttrList::Error::Case::keyTypeMismatch;
}

TEST(AttrListReply, NameReplyByteForByte) {
  // length 36 | returned common 0x80000001 | reference +8, 3 | "ab\0" + 1 pad byte
  const std::vector<std::uint8_t> golden = {36, 0, 0, 0, 0x01, 0, 0, 0x80, 0,   0,   0, 0,
                                            0,  0, 0, 0, 0,    0, 0, 0,    0,   0,   0, 0,
                                            8,  0, 0, 0, 3,    0, 0, 0,    'a', 'b', 0, 0};
  const auto values = AttrList::parseReply(std::as_bytes(std::span(golden)));
  ASSERT_EQ(values.size(), 1u);
  EXPECT_EQ(valueOf<std::string>(values, Key::name), "ab");
}

TEST(AttrListReply, ReturnedSetItselfIsNotAValue) {
  const auto reply = ReplyBuilder().header(0x80000000).finish();
  EXPECT_TRUE(AttrList::parseReply(reply).empty());
}

TEST(AttrListReply, OffsetsAreMeasuredFromEachReference) {
  // name and fullPath references at 24 and 32, a fixed fsID between, data after the fixed part.
  ReplyBuilder reply;
  reply.header(0x88000005);
  reply.reference(24, 5);    // @24 -> 48
  reply.i32(7).i32(-3);      // @32 fsID
  reply.reference(20, 11);   // @40 -> 60
  reply.text("file");        // @48..56
  reply.zeros(4);            // @56 a gap the kernel may leave
  reply.text("/tmp/file!");  // @60..72
  const auto values = AttrList::parseReply(reply.finish());
  EXPECT_EQ(valueOf<std::string>(values, Key::name), "file");
  EXPECT_EQ(valueOf<FSID>(values, Key::fsID), (FSID{{7, -3}}));
  EXPECT_EQ(valueOf<std::string>(values, Key::fullPath), "/tmp/file!");
  EXPECT_EQ(values.size(), 3u);
}

TEST(AttrListReply, EmptyAndOddTextsArePadded) {
  // An empty name takes 1 byte + 3 of padding, "abcde" 6 + 2; volInfo comes after every other
  // volume entry and before the data.
  ReplyBuilder withInfo;
  withInfo.header(0x80000001, 0x80002000);
  withInfo.reference(20, 1);  // @24 -> 44
  withInfo.reference(16, 6);  // @32 -> 48
  withInfo.u32(0xAABBCCDD);   // @40 volInfo, after every other volume entry
  withInfo.text("");          // @44
  withInfo.text("abcde");     // @48
  const auto values = AttrList::parseReply(withInfo.finish());
  EXPECT_EQ(valueOf<std::string>(values, Key::name), "");
  EXPECT_EQ(valueOf<std::string>(values, Key::volumeName), "abcde");
  EXPECT_EQ(valueOf<std::uint32_t>(values, Key::volInfo), 0xAABBCCDDu);
}

TEST(AttrListReply, SpaceUsedFollowsSpaceAvailable) {
  ReplyBuilder reply;
  reply.header(0x80000000, 0x8080003C);
  reply.i64(1000).i64(400).i64(300).i64(600).i64(4096).u32(0);
  const auto values = AttrList::parseReply(reply.finish());
  EXPECT_EQ(valueOf<std::int64_t>(values, Key::volumeSize), 1000);
  EXPECT_EQ(valueOf<std::int64_t>(values, Key::spaceFree), 400);
  EXPECT_EQ(valueOf<std::int64_t>(values, Key::spaceAvailable), 300);
  EXPECT_EQ(valueOf<std::int64_t>(values, Key::spaceUsed), 600);
  EXPECT_EQ(valueOf<std::int64_t>(values, Key::minimumAllocation), 4096);
}

TEST(AttrListReply, UUIDQuotaReservedAttributesAndTypeNameInThatOrder) {
  ReplyBuilder reply;
  reply.header(0x80000000, 0xF0140001);
  reply.u32(26);  // @24 fsType
  reply.bytes({0xE6, 0x21, 0xE1, 0xF8, 0xC3, 0x6C, 0x49, 0x5A, 0x93, 0xFC, 0x0C, 0x24, 0x7A, 0x3E,
               0x6E, 0x5F});  // @28 volumeUUID
  reply.i64(0).i64(1 << 20);  // @44 quota, reserved
  reply.u32(1).u32(2).u32(3).u32(4).u32(5).u32(6).u32(7).u32(8).u32(9).u32(10);  // @60
  reply.reference(16, 5);                                                        // @100 -> 116
  reply.u32(1);                                                                  // @108 volInfo
  reply.zeros(4);                                                                // @112 gap
  reply.text("apfs");                                                            // @116
  const auto values = AttrList::parseReply(reply.finish());
  EXPECT_EQ(valueOf<std::uint32_t>(values, Key::fsType), 26u);
  EXPECT_EQ(valueOf<UUID>(values, Key::volumeUUID).uuidString(),
            "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(valueOf<std::int64_t>(values, Key::quota), 0);
  EXPECT_EQ(valueOf<std::int64_t>(values, Key::volumeReservedSize), 1 << 20);
  EXPECT_EQ(valueOf<VolAttributes>(values, Key::volumeAttributes),
            (VolAttributes{{1, 2, 3, 4, 5}, {6, 7, 8, 9, 10}}));
  EXPECT_EQ(valueOf<std::string>(values, Key::filesystemTypeName), "apfs");
  EXPECT_EQ(valueOf<std::uint32_t>(values, Key::volInfo), 1u);
}

TEST(AttrListReply, GroupsFollowOneAnotherAndUnnamedBitsReadAsWords) {
  ReplyBuilder reply;
  reply.header(0x80004008, 0, 0x00000001, 0x00000003, 0x00000080);
  reply.u32(1);          // objectType (common 0x8)
  reply.u32(0xF1);       // unnamed common bit 0x4000
  reply.u32(2);          // directoryLinkCount
  reply.u32(3);          // fileLinkCount
  reply.u32(0xF2);       // unnamed file bit 0x2
  reply.i32(9).i32(10);  // realFSID (fork)
  const auto values = AttrList::parseReply(reply.finish());
  EXPECT_EQ(valueOf<std::uint32_t>(values, Key::objectType), 1u);
  const Key unnamedCommon(RawAttrKey(RawAttrKey::Kind::common, 0x4000u),
                          AttrList::BufferEntryKind::fixed(nullptr, 4));
  EXPECT_EQ(valueOf<std::uint32_t>(values, unnamedCommon), 0xF1u);
  EXPECT_EQ(valueOf<std::uint32_t>(values, Key::directoryLinkCount), 2u);
  EXPECT_EQ(valueOf<std::uint32_t>(values, Key::fileLinkCount), 3u);
  EXPECT_EQ(valueOf<FSID>(values, Key::realFSID), (FSID{{9, 10}}));
  EXPECT_EQ(values.size(), 6u);
}

TEST(AttrListReply, AbsentAttributesAndSpareBufferAreFine) {
  // Asked for name and fsID, the file system returned fsID only, in a buffer with room to spare.
  ReplyBuilder reply;
  reply.header(0x80000004).i32(1).i32(2);
  const auto values = AttrList::parseReply(reply.finish(4096));
  EXPECT_FALSE(values.contains(Key::name));
  EXPECT_EQ(valueOf<FSID>(values, Key::fsID), (FSID{{1, 2}}));
}

TEST(AttrListMalformedReply, ReadsNothingOutsideTheReply) {
  auto named = [](std::int32_t offset, std::uint32_t length, std::int64_t lengthWord = -1) {
    return ReplyBuilder()
        .header(0x80000001)
        .reference(offset, length)
        .text("ab")
        .finish(0, lengthWord);
  };
  EXPECT_NO_THROW(AttrList::parseReply(named(8, 4)));  // exactly to the end
  const std::pair<const char*, std::vector<std::byte>> cases[] = {
      {"empty", {}},
      {"shorter than the header", std::vector<std::byte>(23)},
      {"length word below the header", ReplyBuilder().header(0x80000000).finish(0, 20)},
      // What the kernel reports with FSOPT_REPORT_FULLSIZE when the reply did not fit.
      {"length word past the buffer", named(8, 3, 37)},
      {"length word of 4 GiB", named(8, 3, 0xFFFFFFFF)},
      {"fixed entry cut short", ReplyBuilder().header(0x80000000, 0x80000004).i64(5).finish()},
      {"fixed entry past the length",
       ReplyBuilder().header(0x80000000, 0x80000004).i64(5).u32(0).finish(0, 28)},
      {"half a reference", ReplyBuilder().header(0x80000001).u32(8).finish()},
      {"data past the end", named(8, 5)},
      {"data before the start", named(-25, 1)},
      {"offset INT32_MAX", named(INT32_MAX, 1)},
      {"length 4 GiB", named(8, 0xFFFFFFFF)},
      {"offset INT32_MIN, length 4 GiB", named(INT32_MIN, 0xFFFFFFFF)},
  };
  for (const auto& [what, reply] : cases) {
    EXPECT_EQ(malformed(reply), AttrList::Error::Case::malformedReply) << what;
  }
}

TEST(AttrListMalformedReply, EveryTruncationIsRejectedOrReadsWithinBounds) {
  ReplyBuilder reply;
  reply.header(0x8000000D, 0x80102000);
  reply.reference(40, 2);                          // @24 name -> 64
  reply.i32(1).i32(2).u32(1);                      // @32 fsID, @40 objectType
  reply.reference(24, 4).reference(20, 5).u32(7);  // @44 volumeName, @52 type name, volInfo
  reply.text("x").text("vol").text("ext4");        // @64, @68, @72 (ends at 77)
  const auto full = reply.finish();
  ASSERT_EQ(AttrList::parseReply(full).size(), 6u);
  for (std::size_t length = 0; length < full.size(); ++length) {
    // Cut the buffer, and separately keep the buffer but shorten the reported length.
    std::vector<std::byte> cut(full.begin(), full.begin() + std::ptrdiff_t(length));
    EXPECT_THROW(AttrList::parseReply(cut), AttrList::Error) << length;
    auto shortened = reply.finish(0, std::int64_t(length));
    if (length >= 77) {
      EXPECT_EQ(AttrList::parseReply(shortened).size(), 6u) << length;
    } else {
      EXPECT_THROW(AttrList::parseReply(shortened), AttrList::Error) << length;
    }
  }
}

}  // namespace
}  // namespace carrow
