#include <vector>

#include <gtest/gtest.h>

#include <carrow/attributes/attr_list.h>

namespace carrow {
namespace {

using Key = AttrList::Key;
using Options = AttrList::Options;

TEST(AttrListRequest, NameAloneAsksForItAndTheReturnedSet) {
  const std::vector<Key> keys = {Key::name};
  const auto request = AttrList::request(keys, {});
  EXPECT_EQ(request.bitmapCount, 5);
  EXPECT_EQ(request.reserved, 0);
  EXPECT_EQ(request.attributes, (AttributeSet{0x80000001, 0, 0, 0, 0}));
  EXPECT_EQ(request.bufferSize, 24u + 774u);
}

TEST(AttrListRequest, AnyVolumeKeyAddsTheVolumeInfoBit) {
  const std::vector<Key> keys = {Key::volumeSize};
  const auto request = AttrList::request(keys, {});
  EXPECT_EQ(request.attributes, (AttributeSet{0x80000000, 0x80000004, 0, 0, 0}));
  // Room for the volume-information word too, which the kernel may return as an entry.
  EXPECT_EQ(request.bufferSize, 24u + 8u + 4u);
  const std::vector<Key> withInfo = {Key::volumeSize, Key::volInfo};
  EXPECT_EQ(AttrList::request(withInfo, {}).bufferSize, 24u + 8u + 4u);
}

TEST(AttrListRequest, EmptyRequestHoldsOnlyTheReturnedSet) {
  const auto request = AttrList::request({}, {});
  EXPECT_EQ(request.attributes, (AttributeSet{0x80000000, 0, 0, 0, 0}));
  EXPECT_EQ(request.bufferSize, 24u);
}

TEST(AttrListRequest, EachGroupHasItsOwnWord) {
  const std::vector<Key> keys = {Key::fileLinkCount, Key::directoryEntryCount, Key::realFSID,
                                 Key::fullPath, Key::filesystemTypeName};
  const auto request = AttrList::request(keys, {});
  EXPECT_EQ(request.attributes,
            (AttributeSet{0x88000000, 0x80100000, 0x00000002, 0x00000001, 0x00000080}));
  EXPECT_EQ(request.bufferSize, 24u + 4 + 4 + 8 + 1032 + 24 + 4);
}

TEST(AttrListRequest, OptionsMapToKernelOptions) {
  EXPECT_EQ(AttrList::request({}, {}).kernelOptions, 0x24u);
  EXPECT_EQ(AttrList::request({}, Options::noFollow).kernelOptions, 0x25u);
  EXPECT_EQ(AttrList::request({}, Options::returnRealDevice).kernelOptions, 0x224u);
  EXPECT_EQ(AttrList::request({}, Options::volumeDefault()).kernelOptions, 0x225u);
  // The unused bit 1 sends nothing.
  EXPECT_EQ(AttrList::request({}, Options(1)).kernelOptions, 0x24u);
}

TEST(AttrListRequest, OtherKeysReserveTheirOwnEntry) {
  const std::vector<Key> keys = {
      Key::other(RawAttrKey(RawAttrKey::Kind::common, 0x00004000u),
                 AttrList::BufferEntryKind::fixed(AttrList::Decoders::unsigned64, 32))};
  const auto request = AttrList::request(keys, {});
  EXPECT_EQ(request.attributes.commonattr, 0x80004000u);
  EXPECT_EQ(request.bufferSize, 24u + 32u);
}

}  // namespace
}  // namespace carrow
