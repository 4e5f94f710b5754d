// Calls and replies are written and read without a json tree of the whole message: they must be
// the very bytes nlohmann writes for that tree, and read back to the same values.

#include "xpc/frame.h"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace carrow::detail::xpc {
namespace {

using json = nlohmann::json;

// Ids on each side of every width of a CBOR head.
const std::vector<std::uint64_t> kIDs = {
    0,     1,     23,       24,         255,         256,
    65535, 65536, 1u << 31, 0xFFFFFFFF, 0x100000000, std::numeric_limits<std::uint64_t>::max()};

std::vector<WireValue> sampleValues() {
  return {
      {"String", std::string(64, 'x')},
      {"String", ""},
      {"Int", -1},
      {"Int", std::numeric_limits<std::int64_t>::min()},
      {"Double", 0.5},
      {"Bool", true},
      {"Null", nullptr},
      {"Data", json::binary({1, 2, 3})},
      {"Tree", json::parse(R"({"a": [1, [2, {"b": "c"}]], "d": {}})")},
      {std::string(300, 'C'), std::string(70000, 'y')},
  };
}

json treeOf(const std::vector<WireValue>& values) {
  json positions = json::array();
  for (const auto& value : values) positions.push_back(json::array({value.className, value.value}));
  return positions;
}

void expectSameValues(const std::vector<WireValue>& got, const std::vector<WireValue>& wanted) {
  ASSERT_EQ(got.size(), wanted.size());
  for (std::size_t index = 0; index < got.size(); ++index) {
    EXPECT_EQ(got[index].className, wanted[index].className);
    EXPECT_EQ(got[index].value, wanted[index].value);
  }
}

TEST(Frame, CallsAreTheBytesOfTheirJsonTreeAndReadBack) {
  for (const std::uint64_t id : kIDs) {
    for (std::size_t count : {0u, 1u, 3u, 10u}) {
      auto values = sampleValues();
      values.resize(count);
      const std::string selector = count == 10 ? std::string(40, 's') : "echo:";
      const auto bytes = encodeCall(id, selector, values);
      EXPECT_EQ(bytes, json::to_cbor(json::array({2, id, selector, treeOf(values)})))
          << "id " << id << ", " << count << " values";
      const Frame frame = decodeFrame(bytes);
      EXPECT_EQ(frame.kind, FrameKind::call);
      EXPECT_EQ(frame.id, id);
      EXPECT_EQ(frame.text, selector);
      expectSameValues(frame.values, values);
    }
  }
}

TEST(Frame, RepliesAreTheBytesOfTheirJsonTreeAndReadBack) {
  for (const std::uint64_t id : kIDs) {
    for (std::size_t count : {0u, 1u, 10u}) {
      auto values = sampleValues();
      values.resize(count);
      const auto bytes = encodeReply(id, values);
      EXPECT_EQ(bytes, json::to_cbor(json::array({3, id, treeOf(values)})));
      const Frame frame = decodeFrame(bytes);
      EXPECT_EQ(frame.kind, FrameKind::reply);
      EXPECT_EQ(frame.id, id);
      expectSameValues(frame.values, values);
    }
  }
}

TEST(Frame, ACutOrPaddedCallIsAnErrorNotAReadPastItsEnd) {
  const auto bytes = encodeCall(7, "echo:", {WireValue{"String", std::string(64, 'x')}});
  for (std::size_t length = 2; length < bytes.size(); ++length) {
    const std::vector<std::uint8_t> cut(bytes.begin(),
                                        bytes.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_ANY_THROW(decodeFrame(cut)) << "cut at " << length;
  }
  auto padded = bytes;
  padded.push_back(0);
  EXPECT_ANY_THROW(decodeFrame(padded));
}

}  // namespace
}  // namespace carrow::detail::xpc
