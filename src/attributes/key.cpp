#include <array>
#include <bit>
#include <ostream>

#include <carrow/attributes/attr_list.h>
#include <carrow/platform/fatal_error.h>

namespace carrow {

struct AttrList::Key::Other {
  RawAttrKey rawKey;
  BufferEntryKind bufferEntryKind;
};

namespace {

using Key = AttrList::Key;
using Kind = RawAttrKey::Kind;
using Entry = AttrList::BufferEntryKind;
using D = AttrList::Decoders;

struct NamedKey {
  std::string_view name;
  RawAttrKey rawKey;
  Entry bufferEntryKind;
};

constexpr std::uint32_t kNone = 0xFFFFFFFF;  // no previous bit (no key table row follows it)

NamedKey row(std::string_view name, Kind kind, std::uint32_t bit, std::uint32_t previous,
             Entry entry) {
  return {name, RawAttrKey(kind, bit, previous == kNone ? std::nullopt : std::optional(previous)),
          std::move(entry)};
}

Entry fixed(std::optional<AttrValue> (*decoder)(AttrList::Bytes), std::int64_t length) {
  return Entry::fixed(decoder, length);
}
Entry variable(std::int64_t maxLength) {
  return Entry::variable(D::text, maxLength);
}

// Every named key: its case name, raw key and entry kind, in declaration order. The previous
// bits record where the volume group's reply order departs from bit order.
const std::array<NamedKey, Key::namedCount>& namedKeys() {
  static const std::array<NamedKey, Key::namedCount> keys = {
      row("returnedAttributes", Kind::common, 0x80000000, 0, fixed(D::attributeSet, 20)),
      row("name", Kind::common, 0x00000001, kNone, variable(766)),
      row("fsID", Kind::common, 0x00000004, kNone, fixed(D::fileSystemID, 8)),
      row("realFSID", Kind::fork, 0x00000080, kNone, fixed(D::fileSystemID, 8)),
      row("deviceID", Kind::common, 0x00000002, kNone, fixed(D::signed32, 4)),
      row("objectType", Kind::common, 0x00000008, kNone, fixed(D::unsigned32, 4)),
      row("objectTag", Kind::common, 0x00000010, kNone, fixed(D::unsigned32, 4)),
      row("objectID", Kind::common, 0x00000020, kNone, fixed(D::objectID, 8)),
      row("objectPermanentID", Kind::common, 0x00000040, kNone, fixed(D::objectID, 8)),
      row("parentObjectID", Kind::common, 0x00000080, kNone, fixed(D::objectID, 8)),
      row("textEncodingHint", Kind::common, 0x00000100, kNone, fixed(D::unsigned32, 4)),
      row("createdTime", Kind::common, 0x00000200, kNone, fixed(D::time, 16)),
      row("modificationTime", Kind::common, 0x00000400, kNone, fixed(D::time, 16)),
      row("changeTime", Kind::common, 0x00000800, kNone, fixed(D::time, 16)),
      row("accessTime", Kind::common, 0x00001000, kNone, fixed(D::time, 16)),
      row("backupTime", Kind::common, 0x00002000, kNone, fixed(D::time, 16)),
      row("ownerID", Kind::common, 0x00008000, kNone, fixed(D::unsigned32, 4)),
      row("groupID", Kind::common, 0x00010000, kNone, fixed(D::unsigned32, 4)),
      row("accessMask", Kind::common, 0x00020000, kNone, fixed(D::unsigned32, 4)),
      row("flags", Kind::common, 0x00040000, kNone, fixed(D::unsigned32, 4)),
      row("genCount", Kind::common, 0x00080000, kNone, fixed(D::unsigned32, 4)),
      row("documentID", Kind::common, 0x00100000, kNone, fixed(D::unsigned32, 4)),
      row("userAccess", Kind::common, 0x00200000, kNone, fixed(D::unsigned32, 4)),
      row("ownerUUID", Kind::common, 0x00800000, kNone, fixed(D::guid, 16)),
      row("groupUUID", Kind::common, 0x01000000, kNone, fixed(D::guid, 16)),
      row("fileID", Kind::common, 0x02000000, kNone, fixed(D::unsigned64, 8)),
      row("parentID", Kind::common, 0x04000000, kNone, fixed(D::unsigned64, 8)),
      row("fullPath", Kind::common, 0x08000000, kNone, variable(1024)),
      row("addedTime", Kind::common, 0x10000000, kNone, fixed(D::time, 16)),
      row("protectionFlags", Kind::common, 0x40000000, kNone, fixed(D::unsigned32, 4)),
      row("volInfo", Kind::volume, 0x80000000, kNone, fixed(D::unsigned32, 4)),
      row("fsType", Kind::volume, 0x00000001, 0, fixed(D::unsigned32, 4)),
      row("volumeSignature", Kind::volume, 0x00000002, kNone, fixed(D::unsigned32, 4)),
      row("volumeSize", Kind::volume, 0x00000004, 0x00000002, fixed(D::signed64, 8)),
      row("spaceFree", Kind::volume, 0x00000008, 0x00000004, fixed(D::signed64, 8)),
      row("spaceAvailable", Kind::volume, 0x00000010, 0x00000008, fixed(D::signed64, 8)),
      row("spaceUsed", Kind::volume, 0x00800000, 0x00000010, fixed(D::signed64, 8)),
      row("minimumAllocation", Kind::volume, 0x00000020, kNone, fixed(D::signed64, 8)),
      row("allocationClump", Kind::volume, 0x00000040, kNone, fixed(D::signed64, 8)),
      row("ioBlockSize", Kind::volume, 0x00000080, kNone, fixed(D::unsigned32, 4)),
      row("objectCount", Kind::volume, 0x00000100, kNone, fixed(D::unsigned32, 4)),
      row("fileCount", Kind::volume, 0x00000200, kNone, fixed(D::unsigned32, 4)),
      row("directoryCount", Kind::volume, 0x00000400, kNone, fixed(D::unsigned32, 4)),
      row("maximumObjectCount", Kind::volume, 0x00000800, kNone, fixed(D::unsigned32, 4)),
      row("mountPoint", Kind::volume, 0x00001000, kNone, variable(1024)),
      row("volumeName", Kind::volume, 0x00002000, kNone, variable(766)),
      row("mountFlags", Kind::volume, 0x00004000, kNone, fixed(D::unsigned32, 4)),
      row("mountedDeviceName", Kind::volume, 0x00008000, kNone, variable(1024)),
      row("encodingsUsed", Kind::volume, 0x00010000, kNone, fixed(D::unsigned64, 8)),
      row("volumeCapabilities", Kind::volume, 0x00020000, kNone, fixed(D::capabilities, 32)),
      row("volumeUUID", Kind::volume, 0x00040000, kNone, fixed(D::uuid, 16)),
      row("quota", Kind::volume, 0x10000000, 0x00040000, fixed(D::signed64, 8)),
      row("volumeReservedSize", Kind::volume, 0x20000000, 0x10000000, fixed(D::signed64, 8)),
      row("volumeAttributes", Kind::volume, 0x40000000, 0x20000000, fixed(D::volumeAttributes, 40)),
      row("filesystemTypeName", Kind::volume, 0x00100000, 0x40000000, variable(16)),
      row("directoryLinkCount", Kind::directory, 0x00000001, kNone, fixed(D::unsigned32, 4)),
      row("directoryEntryCount", Kind::directory, 0x00000002, kNone, fixed(D::unsigned32, 4)),
      row("mountStatus", Kind::directory, 0x00000004, kNone, fixed(D::unsigned32, 4)),
      row("allocSize", Kind::directory, 0x00000008, kNone, fixed(D::signed64, 8)),
      row("directoryIOBlockSize", Kind::directory, 0x00000010, kNone, fixed(D::unsigned32, 4)),
      row("directoryDataLength", Kind::directory, 0x00000020, kNone, fixed(D::signed64, 8)),
      row("fileLinkCount", Kind::file, 0x00000001, kNone, fixed(D::unsigned32, 4)),
  };
  return keys;
}

// From a group and a single bit to the named key, indexed by group and bit number. Built once,
// on first use; -1 where no named key has that bit.
class LookupTable {
 public:
  LookupTable() {
    for (auto& group : slots_) group.fill(-1);
    const auto& keys = namedKeys();
    for (std::size_t i = 0; i < keys.size(); ++i) {
      const RawAttrKey& raw = keys[i].rawKey;
      slots_[std::size_t(raw.kind())][std::countr_zero(raw.attrBit())] = std::int8_t(i);
    }
  }

  std::optional<Key::Named> find(const RawAttrKey& raw) const noexcept {
    if (!std::has_single_bit(raw.attrBit())) return std::nullopt;
    const auto slot = slots_[std::size_t(raw.kind())][std::countr_zero(raw.attrBit())];
    if (slot < 0) return std::nullopt;
    return Key::Named(slot);
  }

 private:
  std::array<std::array<std::int8_t, 32>, 5> slots_;
};

const LookupTable& lookupTable() {
  static const LookupTable table;
  return table;
}

constexpr auto kAllNamed = [] {
  std::array<Key::Named, Key::namedCount> all{};
  for (std::size_t i = 0; i < all.size(); ++i) all[i] = Key::Named(i);
  return all;
}();

}  // namespace

AttrList::Key::Key(const RawAttrKey& rawKey, const BufferEntryKind& fallback) : named_() {
  if (auto named = lookupTable().find(rawKey)) {
    named_ = *named;
  } else {
    other_ = std::make_shared<const Other>(Other{rawKey, fallback});
  }
}

AttrList::Key AttrList::Key::other(RawAttrKey rawKey, BufferEntryKind bufferEntryKind) {
  return Key(Named(0), std::make_shared<const Other>(Other{rawKey, std::move(bufferEntryKind)}));
}

std::span<const AttrList::Key::Named, AttrList::Key::namedCount>
AttrList::Key::allNamed() noexcept {
  return kAllNamed;
}

std::optional<AttrList::Key> AttrList::Key::named(std::string_view caseName) noexcept {
  const auto& keys = namedKeys();
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (keys[i].name == caseName) return Key(Named(i));
  }
  return std::nullopt;
}

std::string_view AttrList::Key::caseName() const noexcept {
  return other_ ? std::string_view("other") : namedKeys()[named_].name;
}

const RawAttrKey& AttrList::Key::rawKey() const noexcept {
  return other_ ? other_->rawKey : namedKeys()[named_].rawKey;
}

const AttrList::BufferEntryKind& AttrList::Key::bufferEntryKind() const noexcept {
  return other_ ? other_->bufferEntryKind : namedKeys()[named_].bufferEntryKind;
}

std::string AttrList::Key::description() const {
  const RawAttrKey& raw = rawKey();
  return "<" + std::string(carrow::name(raw.kind())) + " attrBit: " + std::to_string(raw.attrBit())
         + " bufferEntryKind: " + bufferEntryKind().description() + ">";
}

std::ostream& operator<<(std::ostream& out, const AttrList::Key& key) {
  return out << key.description();
}

std::int64_t AttrList::BufferEntryKind::bufferSize() const {
  return case_ == Case::fixed
             ? length_
             : checkedAdd<std::int64_t>(length_, 8, "CarrowPrivate/AttrList", __LINE__);
}

std::string AttrList::BufferEntryKind::description() const {
  return case_ == Case::fixed ? "fixed(length: " + std::to_string(length_) + ")"
                              : "variable(maxLength: " + std::to_string(length_) + ")";
}

const AttrList::Options& AttrList::Options::volumeDefault() noexcept {
  static const Options options = returnRealDevice | noFollow;
  return options;
}

namespace {

class AttrListErrorCategory final : public std::error_category {
 public:
  const char* name() const noexcept override { return "AttrList.Error"; }
  std::string message(int code) const override {
    switch (AttrList::Error::Case(code)) {
      case AttrList::Error::Case::keyTypeMismatch:
        return "the attribute's value is not of the requested type";
      case AttrList::Error::Case::malformedReply:
        return "malformed attribute reply";
    }
    return "unknown AttrList error";
  }
};

}  // namespace

const std::error_category& AttrList::Error::category() noexcept {
  static const AttrListErrorCategory category;
  return category;
}

}  // namespace carrow
