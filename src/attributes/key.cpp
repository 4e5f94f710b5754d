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
using Entry = AttrList::BufferEntryKind;
using D = AttrList::Decoders;

struct NamedKey {
  std::string_view name;
  Entry bufferEntryKind;
};

NamedKey row(std::string_view name, Entry entry) {
  return {name, std::move(entry)};
}

Entry fixed(std::optional<AttrValue> (*decoder)(AttrList::Bytes), std::int64_t length) {
  return Entry::fixed(decoder, length);
}
Entry variable(std::int64_t maxLength) {
  return Entry::variable(D::text, maxLength);
}

// Every named key's case name and entry kind, in declaration order, from the same table as the
// cases and their raw keys.
const std::array<NamedKey, Key::namedCount>& namedKeys() {
#define CARROW_ATTR_NAMED_ROW(caseName, group, bit, previous, entry) row(#caseName, entry),
  static const std::array<NamedKey, Key::namedCount> keys = {
      CARROW_ATTR_NAMED_KEYS(CARROW_ATTR_NAMED_ROW)};
#undef CARROW_ATTR_NAMED_ROW
  return keys;
}

// From a group and a single bit to the named key, indexed by group and bit number. Built once,
// on first use; -1 where no named key has that bit.
class LookupTable {
 public:
  LookupTable() {
    for (auto& group : slots_) group.fill(-1);
    for (std::size_t i = 0; i < Key::namedCount; ++i) {
      const RawAttrKey& raw = detail::kNamedRawKeys[i];
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

const RawAttrKey& AttrList::Key::otherRawKey() const noexcept {
  return other_->rawKey;
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
