#include <vector>

#include <gtest/gtest.h>

#include <carrow/attributes/attr_list.h>

namespace carrow {
namespace {

using Key = AttrList::Key;
using Options = AttrList::Options;

TEST(AttrListRequest, EachGroupHasItsWordAndEachEntryItsRoom) {
  struct Case {
    std::vector<Key> keys;
    AttributeSet attributes;
    std::size_t bufferSize;
  };
  const Case cases[] = {
      // The returned set is always asked for and always has room.
      {{}, {0x80000000, 0, 0, 0, 0}, 24},
      {{Key::name}, {0x80000001, 0, 0, 0, 0}, 24 + 774},
      // Any volume key adds the volume-information bit, and room for that word.
      {{Key::volumeSize}, {0x80000000, 0x80000004, 0, 0, 0}, 24 + 8 + 4},
      {{Key::volumeSize, Key::volInfo}, {0x80000000, 0x80000004, 0, 0, 0}, 24 + 8 + 4},
      {{Key::fileLinkCount, Key::directoryEntryCount, Key::realFSID, Key::fullPath,
        Key::filesystemTypeName},
       {0x88000000, 0x80100000, 0x00000002, 0x00000001, 0x00000080},
       24 + 4 + 4 + 8 + 1032 + 24 + 4},
      // An other key reserves its own entry.
      {{Key::other(RawAttrKey(RawAttrKey::Kind::common, 0x00004000u),
                   AttrList::BufferEntryKind::fixed(AttrList::Decoders::unsigned64, 32))},
       {0x80004000, 0, 0, 0, 0},
       24 + 32},
  };
  for (const Case& item : cases) {
    SCOPED_TRACE(::testing::PrintToString(item.attributes));
    const auto request = AttrList::request(item.keys, {});
    EXPECT_EQ(request.bitmapCount, 5);
    EXPECT_EQ(request.reserved, 0);
    EXPECT_EQ(request.attributes, item.attributes);
    EXPECT_EQ(request.bufferSize, item.bufferSize);
  }
}

TEST(AttrListRequest, OptionsMapToKernelOptions) {
  EXPECT_EQ(AttrList::request({}, {}).kernelOptions, 0x24u);
  EXPECT_EQ(AttrList::request({}, Options::noFollow).kernelOptions, 0x25u);
  EXPECT_EQ(AttrList::request({}, Options::returnRealDevice).kernelOptions, 0x224u);
  EXPECT_EQ(AttrList::request({}, Options::volumeDefault()).kernelOptions, 0x225u);
  // The unused bit 1 sends nothing.
  EXPECT_EQ(AttrList::request({}, Options(1)).kernelOptions, 0x24u);
}

}  // namespace
}  // namespace carrow
