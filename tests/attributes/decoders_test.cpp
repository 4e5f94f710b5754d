#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/attributes/attr_list.h>

namespace carrow {
namespace {

using D = AttrList::Decoders;

template <class T>
std::vector<std::byte> bytesOf(const T& value) {
  std::vector<std::byte> bytes(sizeof(T));
  std::memcpy(bytes.data(), &value, sizeof(T));
  return bytes;
}

std::vector<std::byte> bytesOf(std::string_view text) {
  std::vector<std::byte> bytes(text.size());
  std::memcpy(bytes.data(), text.data(), text.size());
  return bytes;
}

template <class T>
T decoded(std::optional<AttrValue> value) {
  EXPECT_TRUE(value);
  EXPECT_TRUE(value->holds<T>()) << value->type().name();
  return *value->get<T>();
}

TEST(AttrListDecoders, NumbersKeepTheirWidthAndSign) {
  EXPECT_EQ(decoded<std::uint32_t>(D::unsigned32(bytesOf(0xFFFFFFFEu))), 0xFFFFFFFEu);
  EXPECT_EQ(decoded<std::int32_t>(D::signed32(bytesOf(-2))), -2);
  EXPECT_EQ(decoded<std::uint64_t>(D::unsigned64(bytesOf(~0ull))), ~0ull);
  EXPECT_EQ(decoded<std::int64_t>(D::signed64(bytesOf(std::int64_t(-5)))), -5);
  // Only the leading bytes are read.
  auto wide = bytesOf(std::uint64_t(0x1122334455667788ull));
  EXPECT_EQ(decoded<std::uint32_t>(D::unsigned32(wide)), 0x55667788u);
}

TEST(AttrListDecoders, KernelStructuresCopyFieldForField) {
  const AttributeSet set{1, 2, 3, 4, 5};
  EXPECT_EQ(decoded<AttributeSet>(D::attributeSet(bytesOf(set))), set);
  const VolCapabilities caps{{0x10, 0x20, 0, 0}, {0xFF, 0xFF, 0, 0}};
  EXPECT_EQ(decoded<VolCapabilities>(D::capabilities(bytesOf(caps))), caps);
  const VolAttributes attrs{{1, 2, 3, 4, 5}, {6, 7, 8, 9, 10}};
  EXPECT_EQ(decoded<VolAttributes>(D::volumeAttributes(bytesOf(attrs))), attrs);
  EXPECT_EQ(decoded<FSID>(D::fileSystemID(bytesOf(FSID{{-1, 26}}))), (FSID{{-1, 26}}));
  EXPECT_EQ(decoded<FSObjID>(D::objectID(bytesOf(FSObjID{7, 9}))), (FSObjID{7, 9}));
  EXPECT_EQ(decoded<TimeSpec>(D::time(bytesOf(TimeSpec{-1, 999999999}))),
            (TimeSpec{-1, 999999999}));
  GUID guid;
  guid.g_guid[15] = 0xAB;
  EXPECT_EQ(decoded<GUID>(D::guid(bytesOf(guid))), guid);
}

TEST(AttrListDecoders, UUIDKeepsByteOrderAndPrintsUpperCase) {
  const std::uint8_t raw[16] = {0xE6, 0x21, 0xE1, 0xF8, 0xC3, 0x6C, 0x49, 0x5A,
                                0x93, 0xFC, 0x0C, 0x24, 0x7A, 0x3E, 0x6E, 0x5F};
  const auto uuid = decoded<UUID>(D::uuid(std::as_bytes(std::span(raw))));
  EXPECT_EQ(uuid.uuidString(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(UUID::fromString("e621e1f8-c36c-495a-93fc-0c247a3e6e5f"), uuid);
  EXPECT_FALSE(UUID::fromString("E621E1F8C36C-495A-93FC-0C247A3E6E5F0"));
  EXPECT_FALSE(UUID::fromString("G621E1F8-C36C-495A-93FC-0C247A3E6E5F"));
  EXPECT_TRUE(UUID().isNull());
}

TEST(AttrListDecoders, TextStopsAtTheFirstZeroByteAndRepairsIllFormedUTF8) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {std::string_view("Macintosh HD\0pad", 16), "Macintosh HD"},
      {"no zero", "no zero"},
      {"caf\xC3\xA9 \xE2\x82\xAC", "caf\xC3\xA9 \xE2\x82\xAC"},
      // A lone continuation byte, an overlong form, a truncated sequence and a surrogate.
      {"a\x80z", "a\xEF\xBF\xBDz"},
      {"\xC0\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"x\xE2\x82", "x\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
  };
  for (const auto& [raw, text] : cases) {
    EXPECT_EQ(decoded<std::string>(D::text(bytesOf(raw))), text) << ::testing::PrintToString(raw);
  }
  const char empty[1] = {0};  // empty, but with a start address
  EXPECT_EQ(decoded<std::string>(D::text(std::as_bytes(std::span(empty, 0)))), "");
}

TEST(AttrListDecoders, ShortEntriesAreMalformedNotOverread) {
  const auto three = bytesOf(std::string_view("abc"));
  try {
    D::unsigned32(three);
    FAIL() << "expected an error";
  } catch (const AttrList::Error& error) {
    EXPECT_EQ(error.errorCase(), AttrList::Error::Case::malformedReply);
  }
  EXPECT_THROW(D::uuid(three), AttrList::Error);
  EXPECT_THROW(D::time(bytesOf(std::uint64_t(1))), AttrList::Error);
}

TEST(AttrListDecodersDeathTest, MissingStartAddressStopsTheProcess) {
  EXPECT_DEATH(D::text(AttrList::Bytes()), "No baseAddress for string attribute buffer!");
  EXPECT_DEATH(D::unsigned32(AttrList::Bytes()), "CarrowPrivate/AttrList");
}

TEST(AttrValue, PrintsValuesAndKeepsTypesApart) {
  const AttrValue text(std::string("x")), number(std::uint32_t(7)),
      set(AttributeSet{1, 0, 0, 0, 0});
  EXPECT_EQ(text.description(), "\"x\"");
  EXPECT_EQ(number.description(), "7");
  EXPECT_FALSE(number.holds<std::int32_t>());
  EXPECT_EQ(set.description(),
            "attribute_set[0x00000001, 0x00000000, 0x00000000, 0x00000000, 0x00000000]");
}

TEST(AttrValue, CopiesAndMovesInlineAndLargeValues) {
  struct Large {
    std::string text;
    char padding[64];
  };
  AttrValue large(Large{std::string(100, 'x'), {}});
  AttrValue text(std::string(100, 'y'));
  AttrValue copy = large;
  EXPECT_EQ(copy.get<Large>()->text, std::string(100, 'x'));
  EXPECT_NE(copy.get<Large>(), large.get<Large>());
  AttrValue moved = std::move(text);
  EXPECT_EQ(*moved.get<std::string>(), std::string(100, 'y'));
  moved = large;  // a string replaced by a large value
  EXPECT_TRUE(moved.holds<Large>());
  moved = AttrValue(std::uint64_t(3));
  EXPECT_EQ(*moved.get<std::uint64_t>(), 3u);
  EXPECT_TRUE(copy.holds<Large>());
  EXPECT_EQ(copy.get<std::string>(), nullptr);
  EXPECT_EQ(copy.type(), typeid(Large));
}

}  // namespace
}  // namespace carrow
