#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <ranges>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <vector>

#include <carrow/attributes/attr_value.h>
#include <carrow/attributes/detail/named_keys.h>
#include <carrow/attributes/file_url.h>
#include <carrow/attributes/kernel_types.h>
#include <carrow/attributes/option_set.h>
#include <carrow/attributes/raw_attr_key.h>
#include <carrow/attributes/uuid.h>

namespace carrow {

/// Reads file-system and volume attributes with one call of the kernel's attribute-list
/// interface, and walks the reply into a map from key to typed value.
///
/// The reply is walked by the set of attributes the kernel reports as returned, not by the set
/// asked for, so attributes a file system does not support are simply absent from the result.
/// It keeps no state: any number of threads may read at once.
///
///     auto values = AttrList::attributes("/", {AttrList::Key::volumeName,
///                                             AttrList::Key::volumeSize},
///                                        AttrList::Options::volumeDefault());
///     auto size = AttrList::attribute<std::int64_t>(AttrList::Key::volumeSize,
///                                                   FileURL("/"), {});
class AttrList {
 public:
  /// The bytes of one reply entry: a fixed entry's own bytes, or a variable entry's data.
  using Bytes = std::span<const std::byte>;
  /// Turns the bytes of one entry into a value; nothing leaves the key out of the result. Named
  /// keys use the decoders of `Decoders`; keys made with `Key::other` may bring their own.
  using Decoder = std::function<std::optional<AttrValue>(Bytes)>;

  struct Decoders;
  class BufferEntryKind;
  class Key;
  struct KeyHash;
  class Options;
  class Error;
  struct Request;

  /// The result of a read: each returned attribute under its key.
  using Attributes = std::unordered_map<Key, AttrValue, KeyHash>;

  /// Reads the attributes `keys` of the object at `path` (the order of `keys` does not matter).
  /// Throws `std::system_error` (generic category) with `errno` when the kernel call fails,
  /// `AttrList::Error` (`malformedReply`) for a reply that does not fit its buffer, and whatever
  /// a decoder throws.
  static Attributes attributes(const std::string& path, std::span<const Key> keys, Options options);
  static Attributes attributes(const std::string& path, std::initializer_list<Key> keys,
                               Options options);
  /// Any finite range of keys (a set, a view, ...): collected into a list first.
  template <std::ranges::input_range Keys>
  requires std::convertible_to < std::ranges::range_reference_t<Keys>,
  const Key& > &&(!std::convertible_to<Keys, std::span<const Key>>)static Attributes
               attributes(const std::string& path, Keys&& keys, Options options);
  /// The URL forms: the URL's path is read.
  template <class Keys>
  static Attributes attributes(const FileURL& url, Keys&& keys, Options options);
  static Attributes attributes(const FileURL& url, std::initializer_list<Key> keys,
                               Options options);

  /// Reads one attribute as a `T`. Throws `AttrList::Error` (`keyTypeMismatch`) when the value
  /// is of another type, and `std::system_error` with `ENOENT` when the file system did not
  /// return the attribute.
  template <class T>
  static T attribute(const Key& key, const FileURL& url, Options options);

  /// The request that `attributes` sends for `keys`: its bitmaps, buffer size and kernel options.
  /// The buffer holds the header and every key at its largest, and, with volume keys, the
  /// volume-information word that such a request always carries and a reply may return.
  static Request request(std::span<const Key> keys, Options options);

  /// Walks a reply buffer as the kernel fills it. Never reads outside `reply`: a reply whose
  /// length word exceeds it, or whose entries or data fall outside that length, throws
  /// `AttrList::Error` (`malformedReply`).
  static Attributes parseReply(std::span<const std::byte> reply);
};

/// The decoders of the named keys. Each reads its value from the start of the bytes it is given
/// and throws `AttrList::Error` (`malformedReply`) when they are too few.
struct AttrList::Decoders {
  static std::optional<AttrValue> unsigned32(Bytes bytes);  // std::uint32_t
  static std::optional<AttrValue> signed32(Bytes bytes);    // std::int32_t
  static std::optional<AttrValue> unsigned64(Bytes bytes);  // std::uint64_t
  static std::optional<AttrValue> signed64(Bytes bytes);    // std::int64_t
  static std::optional<AttrValue> attributeSet(Bytes bytes);
  static std::optional<AttrValue> capabilities(Bytes bytes);      // VolCapabilities
  static std::optional<AttrValue> volumeAttributes(Bytes bytes);  // VolAttributes
  static std::optional<AttrValue> fileSystemID(Bytes bytes);      // FSID
  static std::optional<AttrValue> objectID(Bytes bytes);          // FSObjID
  static std::optional<AttrValue> guid(Bytes bytes);              // GUID
  static std::optional<AttrValue> time(Bytes bytes);              // TimeSpec
  static std::optional<AttrValue> uuid(Bytes bytes);              // UUID
  /// The bytes up to the first zero byte (or all of them), as UTF-8 text in a `std::string`.
  /// Bytes without a start address stop the process.
  static std::optional<AttrValue> text(Bytes bytes);
};

/// How an attribute lies in a reply: a fixed entry of `length` bytes holding the value, or a
/// variable entry (an 8-byte attribute reference in the fixed part pointing at data of at most
/// `maxLength` bytes elsewhere in the reply).
class AttrList::BufferEntryKind {
 public:
  enum class Case : std::uint8_t { fixed, variable };

  static BufferEntryKind fixed(Decoder decoder, std::int64_t length) {
    return BufferEntryKind(Case::fixed, std::move(decoder), length);
  }
  static BufferEntryKind variable(Decoder decoder, std::int64_t maxLength) {
    return BufferEntryKind(Case::variable, std::move(decoder), maxLength);
  }

  Case entryCase() const noexcept { return case_; }
  bool isFixed() const noexcept { return case_ == Case::fixed; }
  /// The fixed length, or the variable maximum length.
  std::int64_t length() const noexcept { return length_; }
  const Decoder& decoder() const noexcept { return decoder_; }
  /// The bytes a request reserves for the entry: `length`, or `maxLength` + 8 for the reference.
  /// Overflow stops the process.
  std::int64_t bufferSize() const;
  /// "fixed(length: 4)" or "variable(maxLength: 766)".
  std::string description() const;

 private:
  BufferEntryKind(Case entryCase, Decoder decoder, std::int64_t length)
      : case_(entryCase), length_(length), decoder_(std::move(decoder)) {}

  Case case_;
  std::int64_t length_;
  Decoder decoder_;
};

/// An attribute a client can ask for: one of the named keys, or `other` for any attribute without
/// a name, which carries its own raw key and entry kind. Keys are equal, hashed and ordered by
/// their raw keys' group and bit, so `other` with a named key's bit equals that named key.
///
///     AttrList::Key key = AttrList::Key::volumeUUID;
///     AttrList::Key custom = AttrList::Key::other(raw, AttrList::BufferEntryKind::fixed(d, 8));
class AttrList::Key {
 public:
#define CARROW_ATTR_NAMED_CASE(caseName, ...) caseName,
#define CARROW_ATTR_COUNT_ONE(...) +1
  /// The named keys, in the order of the table in `attributes/detail/named_keys.h`.
  enum Named : std::uint8_t { CARROW_ATTR_NAMED_KEYS(CARROW_ATTR_NAMED_CASE) };
  static constexpr std::size_t namedCount = 0 CARROW_ATTR_NAMED_KEYS(CARROW_ATTR_COUNT_ONE);
#undef CARROW_ATTR_COUNT_ONE
#undef CARROW_ATTR_NAMED_CASE

  Key(Named named) noexcept : named_(named) {}  // NOLINT: named keys read as `Key::name`
  /// The named key whose raw key has the group and bit of `rawKey`, else
  /// `other(rawKey, fallback)`. Looks up a table built once, on first use.
  Key(const RawAttrKey& rawKey, const BufferEntryKind& fallback);
  static Key other(RawAttrKey rawKey, BufferEntryKind bufferEntryKind);

  /// All named keys in declaration order.
  static std::span<const Named, namedCount> allNamed() noexcept;
  /// The named key spelled `caseName` ("volumeUUID"), or nothing.
  static std::optional<Key> named(std::string_view caseName) noexcept;

  bool isOther() const noexcept {
    return other_ != nullptr;
  }
  /// The named case; nothing for `other`.
  std::optional<Named> namedCase() const noexcept {
    return other_ ? std::nullopt : std::optional<Named>(named_);
  }
  /// The case's name ("volumeUUID"), or "other".
  std::string_view caseName() const noexcept;
  const RawAttrKey& rawKey() const noexcept;  // inline, below
  const BufferEntryKind& bufferEntryKind() const noexcept;
  /// "<volume attrBit: 262144 bufferEntryKind: fixed(length: 16)>".
  std::string description() const;

  friend bool operator==(const Key& lhs, const Key& rhs) noexcept {
    return lhs.rawKey() == rhs.rawKey();
  }
  friend std::weak_ordering operator<=>(const Key& lhs, const Key& rhs) noexcept {
    return lhs.rawKey() <=> rhs.rawKey();
  }
  std::size_t hash() const noexcept {
    return rawKey().hash();
  }

 private:
  struct Other;
  Key(Named named, std::shared_ptr<const Other> other) noexcept
      : named_(named), other_(std::move(other)) {}
  const RawAttrKey& otherRawKey() const noexcept;

  Named named_;
  std::shared_ptr<const Other> other_;  // Set only for `other` keys.
};

namespace detail {

// The raw keys of the named keys, in declaration order. The previous bits record where the
// volume group's reply order departs from bit order.
#define CARROW_ATTR_RAW_KEY(caseName, group, bit, previous, ...) \
  RawAttrKey(RawAttrKey::Kind::group, bit, previous),
inline constexpr RawAttrKey kNamedRawKeys[AttrList::Key::namedCount] = {
    CARROW_ATTR_NAMED_KEYS(CARROW_ATTR_RAW_KEY)};
#undef CARROW_ATTR_RAW_KEY

}  // namespace detail

inline const RawAttrKey& AttrList::Key::rawKey() const noexcept {
  return other_ ? otherRawKey() : detail::kNamedRawKeys[named_];
}

struct AttrList::KeyHash {
  std::size_t operator()(const Key& key) const noexcept { return key.hash(); }
};

std::ostream& operator<<(std::ostream& out, const AttrList::Key& key);

/// Options of a request (a bit set over 64 bits; bit 1 is unused).
class AttrList::Options : public OptionSet<AttrList::Options, std::uint64_t> {
 public:
  using OptionSet::OptionSet;

  /// Device attributes of the real device rather than of a firmlink or union mount on top.
  static const Options returnRealDevice;
  /// A symbolic link at the end of the path is described itself.
  static const Options noFollow;
  /// `returnRealDevice` and `noFollow`: what volume descriptions read with. Made once.
  static const Options& volumeDefault() noexcept;
};

inline constexpr AttrList::Options AttrList::Options::returnRealDevice{2};
inline constexpr AttrList::Options AttrList::Options::noFollow{4};

/// The library's own errors of attribute reads, in the category "AttrList.Error".
class AttrList::Error : public std::system_error {
 public:
  enum class Case : int {
    /// A value read for a key is not of the type the caller asked for.
    keyTypeMismatch = 1,
    /// A reply whose length word exceeds its buffer, or whose entries or data lie outside it.
    malformedReply = 2,
  };

  static Error keyTypeMismatch() { return Error(Case::keyTypeMismatch, "keyTypeMismatch"); }
  static Error malformedReply(const std::string& detail) {
    return Error(Case::malformedReply, "malformedReply: " + detail);
  }

  Case errorCase() const noexcept { return Case(code().value()); }

  static const std::error_category& category() noexcept;

 private:
  Error(Case errorCase, const std::string& what)
      : std::system_error(int(errorCase), category(), what) {}
};

/// One attribute-list request: the kernel's request record, the reply buffer size and the
/// kernel options.
struct AttrList::Request {
  std::uint16_t bitmapCount = 5;
  std::uint16_t reserved = 0;
  /// The five bitmap words, one per group.
  AttributeSet attributes;
  std::size_t bufferSize = 0;
  std::uint32_t kernelOptions = 0;
};

template <std::ranges::input_range Keys>
requires std::convertible_to < std::ranges::range_reference_t<Keys>,
const AttrList::Key& > &&(!std::convertible_to<Keys, std::span<const AttrList::Key>>)
                           AttrList::Attributes AttrList::attributes(const std::string& path,
                                                                     Keys&& keys, Options options) {
  std::vector<Key> list;
  for (auto&& key : keys) list.push_back(key);
  return attributes(path, std::span<const Key>(list), options);
}

template <class Keys>
AttrList::Attributes AttrList::attributes(const FileURL& url, Keys&& keys, Options options) {
  return attributes(url.path(), std::forward<Keys>(keys), options);
}

inline AttrList::Attributes AttrList::attributes(const FileURL& url,
                                                 std::initializer_list<Key> keys, Options options) {
  return attributes(url.path(), std::span<const Key>(keys.begin(), keys.size()), options);
}

inline AttrList::Attributes AttrList::attributes(const std::string& path,
                                                 std::initializer_list<Key> keys, Options options) {
  return attributes(path, std::span<const Key>(keys.begin(), keys.size()), options);
}

template <class T>
T AttrList::attribute(const Key& key, const FileURL& url, Options options) {
  auto values = attributes(url.path(), std::span<const Key>(&key, 1), options);
  auto found = values.find(key);
  if (found == values.end()) throw std::system_error(ENOENT, std::generic_category());
  if (const T* value = found->second.get<T>()) return *value;
  throw Error::keyTypeMismatch();
}

}  // namespace carrow

template <>
struct std::hash<carrow::AttrList::Key> {
  std::size_t operator()(const carrow::AttrList::Key& key) const noexcept { return key.hash(); }
};
