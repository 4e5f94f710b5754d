#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include <carrow/CRAttrListDisk.h>
#include <carrow/attributes/option_set.h>

namespace carrow {

/// What kind of volume a description is: its file-system type, mount flags and capabilities,
/// summarised as bits over 64 bits (the values are fixed: clients store and exchange them). The
/// bits are those of the C interface (`CRAttrListDiskTraitsApfs`, ...), which defines them once.
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

inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::apfs{CRAttrListDiskTraitsApfs};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::hfs{CRAttrListDiskTraitsHfs};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::afpfs{CRAttrListDiskTraitsAfpfs};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::afcs{CRAttrListDiskTraitsAfcs};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::exfat{CRAttrListDiskTraitsExfat};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::msdos{CRAttrListDiskTraitsMsdos};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::ntfs{CRAttrListDiskTraitsNtfs};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::smbfs{CRAttrListDiskTraitsSmbfs};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::rootFileSystem{
    CRAttrListDiskTraitsRootFileSystem};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::local{CRAttrListDiskTraitsLocal};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::browsable{
    CRAttrListDiskTraitsBrowsable};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::readOnly{CRAttrListDiskTraitsReadOnly};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::journaled{
    CRAttrListDiskTraitsJournaled};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::snapshot{CRAttrListDiskTraitsSnapshot};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::ignoresOwnership{
    CRAttrListDiskTraitsIgnoresOwnership};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::contentProtection{
    CRAttrListDiskTraitsContentProtection};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::journalingSupported{
    CRAttrListDiskTraitsJournalingSupported};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::caseSensitive{
    CRAttrListDiskTraitsCaseSensitive};
inline constexpr CRAttrListDiskTraits CRAttrListDiskTraits::volumeGroups{
    CRAttrListDiskTraitsVolumeGroups};

}  // namespace carrow
