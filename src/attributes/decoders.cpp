#include <cstring>
#include <string>

#include <carrow/attributes/attr_list.h>
#include <carrow/platform/fatal_error.h>

namespace carrow {

namespace {

// Copies a kernel structure out of the start of an entry. Reply bytes are only byte-aligned as
// far as the caller's span knows, so they are copied rather than cast.
template <class T>
std::optional<AttrValue> read(AttrList::Bytes bytes, const char* what) {
  if (bytes.data() == nullptr) {
    fatalError("CarrowPrivate/AttrList", __LINE__, "No baseAddress for attribute buffer!");
  }
  if (bytes.size() < sizeof(T)) {
    throw AttrList::Error::malformedReply(std::string(what) + " entry of "
                                          + std::to_string(bytes.size()) + " bytes, needs "
                                          + std::to_string(sizeof(T)));
  }
  T value;
  std::memcpy(&value, bytes.data(), sizeof(T));
  return AttrValue(value);
}

// The length of the well-formed UTF-8 sequence at `text[0]`, or 0 when it is not one (overlong
// forms, surrogates and code points past U+10FFFF are not well formed).
std::size_t sequenceLength(const unsigned char* text, std::size_t available) {
  const unsigned char lead = text[0];
  if (lead < 0x80) return 1;
  std::size_t length;
  unsigned char low = 0x80, high = 0xBF;  // range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (available < length || text[1] < low || text[1] > high) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if ((text[i] & 0xC0) != 0x80) return 0;
  }
  return length;
}

// Text as UTF-8, each ill-formed byte replaced by U+FFFD (as the platform's C-string decoding
// repairs it), so that every `std::string` the library hands out is valid UTF-8.
std::string utf8(const char* start, std::size_t size) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(start);
  std::string text;
  text.reserve(size);
  for (std::size_t at = 0; at < size;) {
    const std::size_t length = sequenceLength(bytes + at, size - at);
    if (length == 0) {
      text.append("\xEF\xBF\xBD");
      ++at;
    } else {
      text.append(start + at, length);
      at += length;
    }
  }
  return text;
}

}  // namespace

std::optional<AttrValue> AttrList::Decoders::unsigned32(Bytes bytes) {
  return read<std::uint32_t>(bytes, "unsigned 32-bit");
}
std::optional<AttrValue> AttrList::Decoders::signed32(Bytes bytes) {
  return read<std::int32_t>(bytes, "signed 32-bit");
}
std::optional<AttrValue> AttrList::Decoders::unsigned64(Bytes bytes) {
  return read<std::uint64_t>(bytes, "unsigned 64-bit");
}
std::optional<AttrValue> AttrList::Decoders::signed64(Bytes bytes) {
  return read<std::int64_t>(bytes, "signed 64-bit");
}
std::optional<AttrValue> AttrList::Decoders::attributeSet(Bytes bytes) {
  return read<AttributeSet>(bytes, "attribute_set");
}
std::optional<AttrValue> AttrList::Decoders::capabilities(Bytes bytes) {
  return read<VolCapabilities>(bytes, "vol_capabilities_attr");
}
std::optional<AttrValue> AttrList::Decoders::volumeAttributes(Bytes bytes) {
  return read<VolAttributes>(bytes, "vol_attributes_attr");
}
std::optional<AttrValue> AttrList::Decoders::fileSystemID(Bytes bytes) {
  return read<FSID>(bytes, "fsid");
}
std::optional<AttrValue> AttrList::Decoders::objectID(Bytes bytes) {
  return read<FSObjID>(bytes, "fsobj_id");
}
std::optional<AttrValue> AttrList::Decoders::guid(Bytes bytes) {
  return read<GUID>(bytes, "guid_t");
}
std::optional<AttrValue> AttrList::Decoders::time(Bytes bytes) {
  return read<TimeSpec>(bytes, "timespec");
}

std::optional<AttrValue> AttrList::Decoders::uuid(Bytes bytes) {
  if (bytes.data() == nullptr) {
    fatalError("CarrowPrivate/AttrList", __LINE__, "No baseAddress for attribute buffer!");
  }
  if (bytes.size() < 16) {
    throw AttrList::Error::malformedReply("uuid entry of " + std::to_string(bytes.size())
                                          + " bytes, needs 16");
  }
  UUID::Bytes raw;
  std::memcpy(raw.data(), bytes.data(), raw.size());
  return AttrValue(UUID(raw));
}

std::optional<AttrValue> AttrList::Decoders::text(Bytes bytes) {
  if (bytes.data() == nullptr) {
    fatalError("CarrowPrivate/AttrList", __LINE__, "No baseAddress for string attribute buffer!");
  }
  const char* start = reinterpret_cast<const char*>(bytes.data());
  const void* zero = std::memchr(start, 0, bytes.size());
  const std::size_t length =
      zero ? std::size_t(static_cast<const char*>(zero) - start) : bytes.size();
  return AttrValue(utf8(start, length));
}

}  // namespace carrow
