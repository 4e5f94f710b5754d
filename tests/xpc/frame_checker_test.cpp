#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "xpc/frame.h"
#include "xpc/test_protocol.h"

namespace carrow::detail::xpc {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Verdict = CheckResult::Verdict;
using carrow::testing::Hostile;
using carrow::testing::TestProtocol;

const XPCInterface& serviceInterface() {
  static const XPCInterface interface = carrow::testing::testServiceInterface();
  return interface;
}

CheckResult check(const Bytes& bytes, std::optional<std::string> pendingSelector = std::nullopt) {
  FrameContext context;
  context.exported = &serviceInterface();
  context.remote = &serviceInterface();
  context.pendingSelector = [pendingSelector](std::uint64_t) { return pendingSelector; };
  return checkFrame(bytes, context);
}

Bytes concat(Bytes head, const Bytes& tail) {
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

// [2, 1, "echo:", [["String", <value>]]] with the value's encoding given as raw bytes.
Bytes echoCallWithValue(const Bytes& value) {
  Bytes head = {0x84, 0x02, 0x01, 0x65, 'e', 'c', 'h', 'o', ':',
                0x81, 0x82, 0x66, 'S',  't', 'r', 'i', 'n', 'g'};
  return concat(head, value);
}

Bytes nested(std::size_t levels) {
  Bytes value(levels, 0x81);
  value.push_back(0x80);
  return value;
}

Bytes textValue(const std::string& text) {
  Bytes value = {static_cast<std::uint8_t>(0x60 + text.size())};
  value.insert(value.end(), text.begin(), text.end());
  return value;
}

TEST(FrameChecker, AcceptsWellFormedMessagesOfEveryKind) {
  const std::vector<std::pair<Bytes, FrameKind>> messages = {
      {encodeHello(TestProtocol::description()), FrameKind::hello},
      {encodeReject(RejectReason::interfaceMismatch), FrameKind::reject},
      {encodeCall(7, "echo:", {encodeXPCValue(std::string("hi"))}), FrameKind::call},
      {encodeReply(7, {encodeXPCValue(std::string("hi"))}), FrameKind::reply},
      {encodeError(7, "NSPOSIXErrorDomain", -5), FrameKind::error},
      {encodeCancel(7), FrameKind::cancel},
  };
  for (const auto& [bytes, kind] : messages) {
    const auto result = check(bytes, std::string("echo:"));
    EXPECT_EQ(result.verdict, Verdict::ok) << result.problem;
    EXPECT_EQ(result.kind, kind);
    const Frame frame = decodeFrame(bytes);
    EXPECT_EQ(frame.kind, kind);
  }
  const Frame call = decodeFrame(encodeCall(7, "echo:", {encodeXPCValue(std::string("hi"))}));
  EXPECT_EQ(call.id, 7u);
  EXPECT_EQ(call.text, "echo:");
  ASSERT_EQ(call.values.size(), 1u);
  EXPECT_EQ(call.values[0].className, "String");
  EXPECT_EQ(call.values[0].value, "hi");
}

TEST(FrameChecker, RejectsHostileMessagesWithoutCrashing) {
  const Bytes valid = encodeCall(1, "echo:", {encodeXPCValue(std::string("hello"))});
  const struct {
    const char* name;
    Bytes bytes;
  } cases[] = {
      {"empty", {}},
      {"200000 nested arrays", echoCallWithValue(nested(200000))},
      {"nesting one past the limit", echoCallWithValue(nested(29))},
      {"huge declared array count",
       echoCallWithValue({0x9B, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE})},
      {"huge declared map count",
       echoCallWithValue({0xBB, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})},
      {"huge declared text length",
       echoCallWithValue({0x7B, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})},
      {"huge declared byte length",
       echoCallWithValue({0x5B, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})},
      {"truncated", Bytes(valid.begin(), valid.end() - 1)},
      {"trailing bytes", concat(valid, {0x00})},
      {"tagged value", echoCallWithValue({0xC1, 0x1A, 0x00, 0x00, 0x00, 0x01})},
      {"tagged message", concat({0xD8, 0x18}, valid)},
      {"overlong UTF-8", echoCallWithValue({0x62, 0xC0, 0x80})},
      {"UTF-16 surrogate", echoCallWithValue({0x63, 0xED, 0xA0, 0x80})},
      {"UTF-8 past U+10FFFF", echoCallWithValue({0x64, 0xF4, 0x90, 0x80, 0x80})},
      {"bad UTF-8 in a key", echoCallWithValue({0xA1, 0x61, 0xFF, 0x01})},
      {"indefinite array", echoCallWithValue({0x9F, 0x01, 0xFF})},
      {"indefinite map", echoCallWithValue({0xBF, 0x61, 'k', 0x01, 0xFF})},
      {"text in chunks", echoCallWithValue({0x7F, 0x61, 'h', 0x61, 'i', 0xFF})},
      {"bytes in chunks", echoCallWithValue({0x5F, 0x41, 0x01, 0xFF})},
      {"selector in chunks", {0x84, 0x02, 0x01, 0x7F, 0x65, 'e', 'c', 'h', 'o', ':',  0xFF,
                              0x81, 0x82, 0x66, 'S',  't',  'r', 'i', 'n', 'g', 0x61, 'x'}},
      {"200000 nested chunks", echoCallWithValue(Bytes(200000, 0x7F))},
      {"not an array", {0x01}},
      {"unknown kind", {0x82, 0x09, 0x01}},
      {"wrong length for the kind", {0x83, 0x05, 0x01, 0x01}},
      {"unknown selector", encodeCall(1, "nope:", {encodeXPCValue(std::string("x"))})},
      {"too many arguments",
       encodeCall(1,
                  "echo:", {encodeXPCValue(std::string("x")), encodeXPCValue(std::string("y"))})},
      {"value without class", {0x84, 0x02, 0x01, 0x65, 'e', 'c', 'h', 'o', ':', 0x81, 0x61, 'x'}},
      {"class that is not text",
       {0x84, 0x02, 0x01, 0x65, 'e', 'c', 'h', 'o', ':', 0x81, 0x82, 0x01, 0x01}},
      {"negative id", {0x82, 0x05, 0x20}},
  };
  for (const auto& testCase : cases) {
    const auto result = check(testCase.bytes);
    EXPECT_EQ(result.verdict, Verdict::malformed) << testCase.name;
    EXPECT_FALSE(result.problem.empty()) << testCase.name;
  }
}

TEST(FrameChecker, AcceptsNestingUpToTheLimit) {
  const auto result = check(echoCallWithValue(nested(28)));
  EXPECT_EQ(result.verdict, Verdict::ok) << result.problem;
  EXPECT_EQ(check(echoCallWithValue(textValue("h\xC3\xA9llo \xF0\x9F\x98\x80"))).verdict,
            Verdict::ok);
}

TEST(FrameChecker, RefusesADisallowedClassWithoutDecodingIt) {
  Hostile::decoded = 0;
  const Bytes call = encodeCall(
      3, "take:", {encodeXPCValue(std::variant<testing::Safe, Hostile>(Hostile{"boom"}))});
  const auto result = check(call);
  EXPECT_EQ(result.verdict, Verdict::disallowed);
  ASSERT_TRUE(result.violation.has_value());
  EXPECT_EQ(result.violation->selector, "take:");
  EXPECT_EQ(result.violation->argumentIndex, 0);
  EXPECT_FALSE(result.violation->ofReply);
  EXPECT_EQ(result.violation->className, "Hostile");
  EXPECT_EQ(result.id, 3u);
  EXPECT_EQ(Hostile::decoded, 0);

  const Bytes safe = encodeCall(
      3, "take:", {encodeXPCValue(std::variant<testing::Safe, Hostile>(testing::Safe{"fine"}))});
  EXPECT_EQ(check(safe).verdict, Verdict::ok);
}

TEST(FrameChecker, ChecksRepliesAgainstThePendingCallsReplyClasses) {
  const Bytes wrongClass = encodeReply(4, {encodeXPCValue(std::int64_t{5})});
  const auto refused = check(wrongClass, std::string("echo:"));
  EXPECT_EQ(refused.verdict, Verdict::disallowed);
  ASSERT_TRUE(refused.violation.has_value());
  EXPECT_TRUE(refused.violation->ofReply);
  // A reply nobody waits for any more is checked for shape only, and never decoded.
  EXPECT_EQ(check(wrongClass, std::nullopt).verdict, Verdict::ok);
  // A void method's reply carries no value.
  EXPECT_EQ(check(encodeReply(4, {}), std::string("sleepFor:")).verdict, Verdict::ok);
  EXPECT_EQ(check(wrongClass, std::string("sleepFor:")).verdict, Verdict::malformed);
}

TEST(FrameChecker, RefusesCallsWhenNothingIsExported) {
  FrameContext context;
  const Bytes call = encodeCall(1, "echo:", {encodeXPCValue(std::string("x"))});
  EXPECT_EQ(checkFrame(call, context).verdict, Verdict::malformed);
}

TEST(FrameChecker, ValidatesUTF8) {
  const struct {
    std::string text;
    bool valid;
  } cases[] = {
      {"", true},
      {"plain", true},
      {"\xC3\xA9", true},
      {"\xE2\x82\xAC", true},
      {"\xF0\x9F\x98\x80", true},
      {"\xF4\x8F\xBF\xBF", true},
      {"\x80", false},
      {"\xC3", false},
      {"\xC1\xBF", false},
      {"\xE0\x80\xAF", false},
      {"\xED\xBF\xBF", false},
      {"\xF8\x88\x80\x80\x80", false},
      {"\xE2\x82", false},
  };
  for (const auto& testCase : cases) {
    EXPECT_EQ(isValidUTF8(testCase.text), testCase.valid) << testCase.text;
  }
}

}  // namespace
}  // namespace carrow::detail::xpc
