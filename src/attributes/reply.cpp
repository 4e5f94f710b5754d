#include <algorithm>
#include <bit>
#include <cstring>
#include <string>

#include <carrow/attributes/attr_list.h>
#include <carrow/platform/fatal_error.h>

namespace carrow {

namespace {

constexpr std::string_view kLabel = "CarrowPrivate/AttrList";

// Reply layout: the length word, then the returned-attributes set, then the entries.
constexpr std::size_t kHeaderSize = 4 + sizeof(AttributeSet);

constexpr std::uint32_t kReturnedAttributesBit = 0x80000000;  // ATTR_CMN_RETURNED_ATTRS
constexpr std::uint32_t kVolumeInfoBit = 0x80000000;          // ATTR_VOL_INFO
constexpr std::uint32_t kReportFullSize = 0x4;                // FSOPT_REPORT_FULLSIZE
constexpr std::uint32_t kExtendedCommon = 0x20;               // FSOPT_ATTR_CMN_EXTENDED
constexpr std::uint32_t kReturnRealDevice = 0x200;            // FSOPT_RETURN_REALDEV
constexpr std::uint32_t kNoFollow = 0x1;                      // FSOPT_NOFOLLOW

std::uint32_t& word(AttributeSet& set, RawAttrKey::Kind kind) {
  switch (kind) {
    case RawAttrKey::Kind::common:
      return set.commonattr;
    case RawAttrKey::Kind::volume:
      return set.volattr;
    case RawAttrKey::Kind::directory:
      return set.dirattr;
    case RawAttrKey::Kind::file:
      return set.fileattr;
    case RawAttrKey::Kind::fork:
      return set.forkattr;
  }
  fatalError(kLabel, __LINE__, "unknown attribute group");
}

template <class T>
T load(const std::byte* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

// A returned bit without a named key is read as a 4-byte number.
const AttrList::BufferEntryKind& unnamedEntry() {
  static const auto entry = AttrList::BufferEntryKind::fixed(AttrList::Decoders::unsigned32, 4);
  return entry;
}

// For each group, its 32 bit numbers in reply order (by the position of each bit's named key, or
// of the bit itself when it has none), and each bit number's rank in that order. Built once;
// with them a reply is walked in order without sorting its keys.
struct ReplyOrder {
  std::array<std::array<std::uint8_t, 32>, 5> bitAtRank;
  std::array<std::array<std::uint8_t, 32>, 5> rankOfBit;
};

const ReplyOrder& replyOrder() {
  static const auto order = [] {
    ReplyOrder result{};
    for (std::size_t group = 0; group < 5; ++group) {
      std::array<std::pair<double, std::uint8_t>, 32> positions;
      for (std::uint8_t bitNumber = 0; bitNumber < 32; ++bitNumber) {
        const AttrList::Key key(RawAttrKey(RawAttrKey::Kind(group), std::uint32_t(1) << bitNumber),
                                unnamedEntry());
        positions[bitNumber] = {key.rawKey().position(), bitNumber};
      }
      std::sort(positions.begin(), positions.end());
      for (std::uint8_t rank = 0; rank < 32; ++rank) {
        result.bitAtRank[group][rank] = positions[rank].second;
        result.rankOfBit[group][positions[rank].second] = rank;
      }
    }
    return result;
  }();
  return order;
}

std::string at(std::int64_t offset, const AttrList::Key& key) {
  return std::string(key.caseName()) + " at offset " + std::to_string(offset);
}

}  // namespace

AttrList::Request AttrList::request(std::span<const Key> keys, Options options) {
  Request request;
  request.attributes.commonattr = kReturnedAttributesBit;
  std::int64_t size = kHeaderSize;
  bool asksForVolumeInfo = false;
  for (const Key& key : keys) {
    const RawAttrKey& raw = key.rawKey();
    word(request.attributes, raw.kind()) |= raw.attrBit();
    if (raw.kind() == RawAttrKey::Kind::volume) {
      request.attributes.volattr |= kVolumeInfoBit;
      asksForVolumeInfo |= raw.attrBit() == kVolumeInfoBit;
    }
    const std::int64_t reserve = key.bufferEntryKind().bufferSize();
    if (reserve < 0) fatalError(kLabel, __LINE__, "negative buffer size of " + key.description());
    size = checkedAdd(size, reserve, kLabel, __LINE__);
  }
  // The volume-information bit that every volume request carries may come back as a 4-byte entry
  // of its own (after all other volume entries); room for it keeps such a reply in the buffer.
  if (request.attributes.volattr != 0 && !asksForVolumeInfo) {
    size = checkedAdd<std::int64_t>(size, 4, kLabel, __LINE__);
  }
  request.bufferSize = std::size_t(size);
  request.kernelOptions = kReportFullSize | kExtendedCommon;
  if (options.contains(Options::returnRealDevice)) request.kernelOptions |= kReturnRealDevice;
  if (options.contains(Options::noFollow)) request.kernelOptions |= kNoFollow;
  return request;
}

AttrList::Attributes AttrList::parseReply(std::span<const std::byte> reply) {
  if (reply.size() < kHeaderSize) {
    throw Error::malformedReply("reply of " + std::to_string(reply.size())
                                + " bytes is shorter than its header");
  }
  // Everything is read within the length the kernel reports, which must lie within the buffer.
  const std::uint32_t length = load<std::uint32_t>(reply.data());
  if (length > reply.size()) {
    throw Error::malformedReply("length word " + std::to_string(length) + " exceeds the buffer of "
                                + std::to_string(reply.size()) + " bytes");
  }
  if (length < kHeaderSize) {
    throw Error::malformedReply("length word " + std::to_string(length)
                                + " is shorter than the header");
  }
  const auto returned = load<AttributeSet>(reply.data() + 4);

  const std::uint32_t words[] = {returned.commonattr, returned.volattr, returned.dirattr,
                                 returned.fileattr, returned.forkattr};
  Attributes values;
  values.reserve(std::size_t(std::popcount(words[0]) + std::popcount(words[1])
                             + std::popcount(words[2]) + std::popcount(words[3])
                             + std::popcount(words[4])));
  // Walking by rank keeps the entries of a group in strictly increasing position, so the order
  // of the reply needs no check of its own.
  const std::int64_t limit = length;
  std::int64_t cursor = kHeaderSize;
  const ReplyOrder& order = replyOrder();
  for (std::size_t group = 0; group < std::size(words); ++group) {
    const auto kind = RawAttrKey::Kind(group);
    // The returned bits, re-indexed by their rank in reply order.
    std::uint32_t ranked = 0;
    for (std::uint32_t bits = words[group]; bits != 0; bits &= bits - 1) {
      ranked |= std::uint32_t(1) << order.rankOfBit[group][std::countr_zero(bits)];
    }
    for (; ranked != 0; ranked &= ranked - 1) {
      const std::uint32_t bit = std::uint32_t(1)
                                << order.bitAtRank[group][std::countr_zero(ranked)];
      if (kind == RawAttrKey::Kind::common && bit == kReturnedAttributesBit) continue;
      const Key key(RawAttrKey(kind, bit), unnamedEntry());
      if (cursor % 4 != 0) fatalError(kLabel, __LINE__, "misaligned reply entry");

      const BufferEntryKind& entry = key.bufferEntryKind();
      std::int64_t start, end, advance;
      if (entry.isFixed()) {
        advance = entry.length();
        start = cursor;
        end = checkedAdd(cursor, advance, kLabel, __LINE__);
        if (end < start) fatalError(kLabel, __LINE__, "entry ends before it starts");
        if (end > limit) {
          throw Error::malformedReply("entry " + at(cursor, key) + " runs past the reply's "
                                      + std::to_string(limit) + " bytes");
        }
      } else {
        advance = 8;
        if (cursor + 8 > limit) {
          throw Error::malformedReply("attribute reference " + at(cursor, key)
                                      + " runs past the reply's " + std::to_string(limit)
                                      + " bytes");
        }
        const auto offset = load<std::int32_t>(reply.data() + cursor);
        const auto dataLength = load<std::uint32_t>(reply.data() + cursor + 4);
        start = cursor + offset;
        end = start + dataLength;
        if (start < 0 || end > limit) {
          throw Error::malformedReply("data of " + at(cursor, key) + " (offset "
                                      + std::to_string(offset) + ", length "
                                      + std::to_string(dataLength) + ") lies outside the reply's "
                                      + std::to_string(limit) + " bytes");
        }
      }

      auto value = entry.decoder()(reply.subspan(std::size_t(start), std::size_t(end - start)));
      if (value) {
        values.insert_or_assign(key, std::move(*value));
      } else {
        values.erase(key);
      }
      cursor = checkedAdd(cursor, advance, kLabel, __LINE__);
    }
  }
  return values;
}

}  // namespace carrow
