#include <cstdio>

#include <carrow/attributes/raw_attr_key.h>
#include <carrow/platform/fatal_error.h>

namespace carrow {

namespace {

std::uint32_t nonNegative(std::int32_t bit, std::uint64_t line) {
  if (bit < 0) fatalError("CarrowPrivate/AttrList", line, "negative attribute bit");
  return std::uint32_t(bit);
}

}  // namespace

RawAttrKey::RawAttrKey(Kind kind, std::int32_t attrBit, std::optional<std::int32_t> previousAttrBit)
    : kind_(kind),
      attrBit_(nonNegative(attrBit, __LINE__)),
      previousAttrBit_(previousAttrBit ? std::optional(nonNegative(*previousAttrBit, __LINE__))
                                       : std::nullopt) {}

std::string_view name(RawAttrKey::Kind kind) noexcept {
  switch (kind) {
    case RawAttrKey::Kind::common:
      return "common";
    case RawAttrKey::Kind::volume:
      return "volume";
    case RawAttrKey::Kind::directory:
      return "directory";
    case RawAttrKey::Kind::file:
      return "file";
    case RawAttrKey::Kind::fork:
      return "fork";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, const RawAttrKey& key) {
  char text[64];
  if (key.previousAttrBit()) {
    std::snprintf(text, sizeof text, ", 0x%08x, previous 0x%08x)", key.attrBit(),
                  *key.previousAttrBit());
  } else {
    std::snprintf(text, sizeof text, ", 0x%08x)", key.attrBit());
  }
  return out << "(" << key.kind() << text;
}

}  // namespace carrow
