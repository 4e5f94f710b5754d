#include <set>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/attributes/attr_list.h>

namespace carrow {
namespace {

using Key = AttrList::Key;
using Kind = RawAttrKey::Kind;
using Entry = AttrList::BufferEntryKind;

Entry fixed4() {
  return Entry::fixed(AttrList::Decoders::unsigned32, 4);
}

TEST(RawAttrKey, PositionComesFromThePreviousBitWhenThereIsOne) {
  EXPECT_EQ(RawAttrKey(Kind::volume, 0x00000004u).position(), 4.0);
  EXPECT_EQ(RawAttrKey(Kind::volume, 0x00800000u, 0x10u).position(), 16.1);
  EXPECT_EQ(RawAttrKey(Kind::common, 0x80000000u, 0u).position(), 0.1);
}

TEST(RawAttrKey, IdentityIgnoresThePreviousBit) {
  const RawAttrKey plain(Kind::volume, 0x00800000u), placed(Kind::volume, 0x00800000u, 0x10u);
  EXPECT_EQ(plain, placed);
  EXPECT_EQ(plain.hash(), placed.hash());
  EXPECT_FALSE(plain < placed);
  EXPECT_FALSE(placed < plain);
  EXPECT_NE(RawAttrKey(Kind::common, 1u), RawAttrKey(Kind::volume, 1u));
  // The signed form takes the platform's constants unchanged.
  EXPECT_EQ(RawAttrKey(Kind::volume, std::int32_t(0x00800000), std::int32_t(0x10)).position(),
            placed.position());
}

TEST(RawAttrKey, OrdersByGroupFirstAndIsStrict) {
  const RawAttrKey lateCommon(Kind::common, 0x40000000u), earlyVolume(Kind::volume, 0u, 0u);
  EXPECT_LT(lateCommon, earlyVolume);
  EXPECT_LT(RawAttrKey(Kind::file, 0x80000000u), RawAttrKey(Kind::fork, 1u));
  EXPECT_FALSE(lateCommon < lateCommon);
}

TEST(RawAttrKeyDeathTest, NegativeBitsStopTheProcess) {
  EXPECT_DEATH(RawAttrKey(Kind::common, std::int32_t(-1)), "CarrowPrivate/AttrList");
  EXPECT_DEATH(RawAttrKey(Kind::common, std::int32_t(1), std::int32_t(-4)), "Fatal error");
}

TEST(AttrListKey, TableHasOneNamedKeyPerGroupAndBit) {
  std::set<std::pair<Kind, std::uint32_t>> seen;
  std::set<std::string_view> names;
  for (Key::Named named : Key::allNamed()) {
    const Key key(named);
    EXPECT_EQ(std::popcount(key.rawKey().attrBit()), 1) << key;
    EXPECT_TRUE(seen.emplace(key.rawKey().kind(), key.rawKey().attrBit()).second) << key;
    EXPECT_TRUE(names.insert(key.caseName()).second);
    EXPECT_EQ(Key::named(key.caseName()), key);
    EXPECT_EQ(Key(key.rawKey(), fixed4()).namedCase(), named);
    EXPECT_FALSE(key.isOther());
  }
  EXPECT_EQ(seen.size(), 62u);
  EXPECT_FALSE(Key::named("VolumeUUID"));  // exact, case included
  EXPECT_FALSE(Key::named("other"));
}

TEST(AttrListKey, LookupIgnoresThePreviousBit) {
  const Key key(RawAttrKey(Kind::volume, 0x00800000u), fixed4());
  EXPECT_EQ(key.namedCase(), Key::spaceUsed);
  EXPECT_EQ(key.rawKey().previousAttrBit(), 0x10u);  // the table's own raw key
}

TEST(AttrListKey, UnnamedBitBecomesOtherWithTheFallback) {
  const Key key(RawAttrKey(Kind::common, 0x00004000u), fixed4());
  EXPECT_TRUE(key.isOther());
  EXPECT_EQ(key.caseName(), "other");
  EXPECT_EQ(key.rawKey(), RawAttrKey(Kind::common, 0x00004000u));
  EXPECT_TRUE(key.bufferEntryKind().isFixed());
  EXPECT_EQ(key.bufferEntryKind().length(), 4);
  // A bit that is named in one group is not named in another.
  EXPECT_TRUE(Key(RawAttrKey(Kind::fork, 0x00000001u), fixed4()).isOther());
  // Several bits at once name no key.
  EXPECT_TRUE(Key(RawAttrKey(Kind::common, 0x00000003u), fixed4()).isOther());
}

TEST(AttrListKey, OtherWithANamedBitEqualsTheNamedKey) {
  const Key other = Key::other(RawAttrKey(Kind::common, 1u), Entry::fixed(nullptr, 99));
  EXPECT_EQ(other, Key(Key::name));
  EXPECT_EQ(std::hash<Key>{}(other), std::hash<Key>{}(Key::name));
  std::unordered_set<Key> keys{Key::name};
  EXPECT_TRUE(keys.contains(other));
  EXPECT_TRUE(other.isOther());
  EXPECT_EQ(other.bufferEntryKind().length(), 99);  // the payload, not the table's
}

TEST(AttrListKey, OrderFollowsTheReplyLayout) {
  const std::vector<Key> inOrder = {
      Key::returnedAttributes, Key::name,
      Key::protectionFlags,    Key::fsType,
      Key::volumeSignature,    Key::volumeSize,
      Key::spaceFree,          Key::spaceAvailable,
      Key::spaceUsed,          Key::minimumAllocation,
      Key::encodingsUsed,      Key::volumeCapabilities,
      Key::volumeUUID,         Key::quota,
      Key::volumeReservedSize, Key::volumeAttributes,
      Key::filesystemTypeName, Key::volInfo,
      Key::directoryLinkCount, Key::directoryDataLength,
      Key::fileLinkCount,      Key::realFSID,
  };
  for (std::size_t i = 1; i < inOrder.size(); ++i) {
    EXPECT_LT(inOrder[i - 1], inOrder[i]) << inOrder[i - 1] << " " << inOrder[i];
  }
}

TEST(AttrListKeyDeathTest, OverflowingReserveStopsTheProcess) {
  const auto huge = Entry::variable(AttrList::Decoders::text, INT64_MAX - 4);
  EXPECT_DEATH(huge.bufferSize(), "arithmetic overflow");
}

TEST(AttrListKey, DescriptionNamesGroupBitAndEntry) {
  EXPECT_EQ(Key(Key::volumeUUID).description(),
            "<volume attrBit: 262144 bufferEntryKind: fixed(length: 16)>");
  EXPECT_EQ(Key(Key::name).description(),
            "<common attrBit: 1 bufferEntryKind: variable(maxLength: 766)>");
  EXPECT_EQ(Key(Key::realFSID).description(),
            "<fork attrBit: 128 bufferEntryKind: fixed(length: 8)>");
}

TEST(AttrListOptions, SetOperationsWorkOnTheRawValue) {
  using Options = AttrList::Options;
  EXPECT_EQ(Options::volumeDefault().rawValue(), 6u);
  Options options;
  EXPECT_TRUE(options.isEmpty());
  EXPECT_TRUE(options.insert(Options::noFollow));
  EXPECT_FALSE(options.insert(Options::noFollow));
  EXPECT_TRUE(options.isSubset(Options::volumeDefault()));
  EXPECT_TRUE(options.isDisjoint(Options::returnRealDevice));
  EXPECT_EQ(options ^ Options::volumeDefault(), Options::returnRealDevice);
  EXPECT_EQ(options & Options::volumeDefault(), Options::noFollow);
  EXPECT_TRUE(options.remove(Options::noFollow));
  EXPECT_FALSE(options.remove(Options::noFollow));
  EXPECT_TRUE(Options::volumeDefault().contains(Options::returnRealDevice | Options::noFollow));
}

TEST(AttrListError, CasesCarryTheirCategory) {
  EXPECT_STREQ(AttrList::Error::keyTypeMismatch().code().category().name(), "AttrList.Error");
}

}  // namespace
}  // namespace carrow
