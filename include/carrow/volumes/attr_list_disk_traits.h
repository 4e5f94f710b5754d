#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include <carrow/attributes/option_set.h>

namespace carrow {

/// What kind of volume a description is: its file-system type, mount flags and capabilities,
/// summarised as bits over 64 bits (the values are fixed: clients store and exchange them).
class CRAttrListDiskTraits : public OptionSet<CRAttrListDiskTraits, std::uint64_t> {
 public:
  using OptionSet::OptionSet;

  // File-system type (at most one is set; the type name must match exactly).
  static const CRAttrListDiskTraits apfs;
  static const CRAttrListDiskTraits hfs;
  static const CRAttrListDiskTraits afpfs;
  static const CRAttrListDiskTraits afcs;
  static const CRAttrListDiskTraits exfat;
  static const CRAttrListDiskTraits msdos;
  static const CRAttrListDiskTraits ntfs;
  static const CRAttrListDiskTraits smbfs;
  // Mount flags.
  static const CRAttrListDiskTraits rootFileSystem;
  static const CRAttrListDiskTraits local;
  static const CRAttrListDiskTraits browsable;
  static const CRAttrListDiskTraits readOnly;
  static const CRAttrListDiskTraits journaled;
  static const CRAttrListDiskTraits snapshot;
  static const CRAttrListDiskTraits ignoresOwnership;
  static const CRAttrListDiskTraits contentProtection;
  // Mount flags or format capabilities.
  static const CRAttrListDiskTraits journalingSupported;
  static const CRAttrListDiskTraits caseSensitive;
  static const CRAttrListDiskTraits volumeGroups;

  /// The names of the members in this set ("apfs", "local", ...), in bit order. Bits without a
  /// member are left out.
  std::vector<std::string_view> memberNames() const;
};

inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::apfs{0x1};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::hfs{0x2};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::afpfs{0x4};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::afcs{0x8};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::exfat{0x10};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::msdos{0x20};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::ntfs{0x40};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::smbfs{0x80};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::rootFileSystem{0x100};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::local{0x200};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::browsable{0x400};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::readOnly{0x800};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::journaled{0x1000};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::snapshot{0x2000};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::ignoresOwnership{0x4000};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::contentProtection{0x8000};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::journalingSupported{0x100000};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::caseSensitive{0x200000};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::volumeGroups{0x400000};

}  // namespace carrow
