#pragma once

#include <array>
#include <cstdint>
#include <ostream>

namespace carrow {

// The kernel structures that attribute replies carry, in their kernel layout (native byte order,
// no padding). Decoders copy them out of a reply byte for byte; they are plain values with
// equality and a printed form.

/// One 32-bit word per attribute group (`attribute_set`).
struct AttributeSet {
  std::uint32_t commonattr = 0;
  std::uint32_t volattr = 0;
  std::uint32_t dirattr = 0;
  std::uint32_t fileattr = 0;
  std::uint32_t forkattr = 0;
  friend constexpr bool operator==(const AttributeSet&, const AttributeSet&) noexcept = default;
};

/// What a volume's format and interfaces support (`vol_capabilities_attr`): four words each of
/// capability bits and of bits that say which capability bits are meaningful. Word 0 is the
/// format word, word 1 the interfaces word.
struct VolCapabilities {
  std::array<std::uint32_t, 4> capabilities{};
  std::array<std::uint32_t, 4> valid{};
  friend constexpr bool operator==(const VolCapabilities&,
                                   const VolCapabilities&) noexcept = default;
};

/// The attributes a volume can return (`vol_attributes_attr`) and those it keeps natively.
struct VolAttributes {
  AttributeSet validattr;
  AttributeSet nativeattr;
  friend constexpr bool operator==(const VolAttributes&, const VolAttributes&) noexcept = default;
};

/// A file-system id (`fsid`): two signed words.
struct FSID {
  std::array<std::int32_t, 2> val{};
  friend constexpr bool operator==(const FSID&, const FSID&) noexcept = default;
};

/// A file-system object id (`fsobj_id`).
struct FSObjID {
  std::uint32_t fid_objno = 0;
  std::uint32_t fid_generation = 0;
  friend constexpr bool operator==(const FSObjID&, const FSObjID&) noexcept = default;
};

/// A user or group GUID (`guid_t`): 16 bytes.
struct GUID {
  std::array<std::uint8_t, 16> g_guid{};
  friend constexpr bool operator==(const GUID&, const GUID&) noexcept = default;
};

/// A point in time (`timespec` with 64-bit fields).
struct TimeSpec {
  std::int64_t tv_sec = 0;
  std::int64_t tv_nsec = 0;
  friend constexpr bool operator==(const TimeSpec&, const TimeSpec&) noexcept = default;
};

static_assert(sizeof(AttributeSet) == 20);
static_assert(sizeof(VolCapabilities) == 32);
static_assert(sizeof(VolAttributes) == 40);
static_assert(sizeof(FSID) == 8);
static_assert(sizeof(FSObjID) == 8);
static_assert(sizeof(GUID) == 16);
static_assert(sizeof(TimeSpec) == 16);

// Printed forms, as they appear in log records of attribute maps.
std::ostream& operator<<(std::ostream& out, const AttributeSet& value);
std::ostream& operator<<(std::ostream& out, const VolCapabilities& value);
std::ostream& operator<<(std::ostream& out, const VolAttributes& value);
std::ostream& operator<<(std::ostream& out, const FSID& value);
std::ostream& operator<<(std::ostream& out, const FSObjID& value);
std::ostream& operator<<(std::ostream& out, const GUID& value);
std::ostream& operator<<(std::ostream& out, const TimeSpec& value);

}  // namespace carrow
