#pragma once

// A reader of attribute-list replies for the tests, written from the platform's reply format
// independently of the library's walker: it locates each returned attribute by the returned set
// and the sizes below, and checks every reference against the reply's bounds.

#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <carrow/platform/attr.h>

namespace carrow::platform::testing {

enum Word { kCommon, kVolume, kDirectory, kFile, kFork };

struct Call {
  int rc = 0;
  int error = 0;
  std::vector<unsigned char> bytes;
};

inline attrlist request(attrgroup_t common, attrgroup_t volume = 0, attrgroup_t directory = 0,
                        attrgroup_t file = 0, attrgroup_t fork = 0) {
  return attrlist{ATTR_BIT_MAP_COUNT, 0, common, volume, directory, file, fork};
}

inline Call call(const std::string& path, attrlist list, unsigned int options,
                 std::size_t size = 8192) {
  Call result;
  result.bytes.assign(size, 0xEE);
  errno = 0;
  result.rc = getattrlist(path.c_str(), &list, result.bytes.data(), size, options);
  result.error = errno;
  return result;
}

// Size in the fixed part (0 for an attribute reference) of every attribute the tests ask for.
inline std::optional<std::uint32_t> fixedSize(Word word, attrgroup_t bit) {
  static const std::map<std::pair<int, attrgroup_t>, std::uint32_t> kSizes = {
      {{kCommon, ATTR_CMN_NAME}, 0},          {{kCommon, ATTR_CMN_DEVID}, 4},
      {{kCommon, ATTR_CMN_FSID}, 8},          {{kCommon, ATTR_CMN_OBJTYPE}, 4},
      {{kCommon, ATTR_CMN_OBJID}, 8},         {{kCommon, ATTR_CMN_PAROBJID}, 8},
      {{kCommon, ATTR_CMN_CRTIME}, 16},       {{kCommon, ATTR_CMN_MODTIME}, 16},
      {{kCommon, ATTR_CMN_CHGTIME}, 16},      {{kCommon, ATTR_CMN_ACCTIME}, 16},
      {{kCommon, ATTR_CMN_BKUPTIME}, 16},     {{kCommon, ATTR_CMN_OWNERID}, 4},
      {{kCommon, ATTR_CMN_GRPID}, 4},         {{kCommon, ATTR_CMN_ACCESSMASK}, 4},
      {{kCommon, ATTR_CMN_FLAGS}, 4},         {{kCommon, ATTR_CMN_USERACCESS}, 4},
      {{kCommon, ATTR_CMN_FILEID}, 8},        {{kCommon, ATTR_CMN_PARENTID}, 8},
      {{kCommon, ATTR_CMN_FULLPATH}, 0},      {{kCommon, ATTR_CMN_DOCUMENT_ID}, 4},
      {{kVolume, ATTR_VOL_FSTYPE}, 4},        {{kVolume, ATTR_VOL_SIGNATURE}, 4},
      {{kVolume, ATTR_VOL_SIZE}, 8},          {{kVolume, ATTR_VOL_SPACEFREE}, 8},
      {{kVolume, ATTR_VOL_SPACEAVAIL}, 8},    {{kVolume, ATTR_VOL_SPACEUSED}, 8},
      {{kVolume, ATTR_VOL_MINALLOCATION}, 8}, {{kVolume, ATTR_VOL_IOBLOCKSIZE}, 4},
      {{kVolume, ATTR_VOL_MOUNTPOINT}, 0},    {{kVolume, ATTR_VOL_NAME}, 0},
      {{kVolume, ATTR_VOL_MOUNTFLAGS}, 4},    {{kVolume, ATTR_VOL_MOUNTEDDEVICE}, 0},
      {{kVolume, ATTR_VOL_CAPABILITIES}, 32}, {{kVolume, ATTR_VOL_UUID}, 16},
      {{kVolume, ATTR_VOL_QUOTA_SIZE}, 8},    {{kVolume, ATTR_VOL_RESERVED_SIZE}, 8},
      {{kVolume, ATTR_VOL_ATTRIBUTES}, 40},   {{kVolume, ATTR_VOL_FSTYPENAME}, 0},
      {{kVolume, ATTR_VOL_INFO}, 4},          {{kDirectory, ATTR_DIR_LINKCOUNT}, 4},
      {{kDirectory, ATTR_DIR_ENTRYCOUNT}, 4}, {{kDirectory, ATTR_DIR_MOUNTSTATUS}, 4},
      {{kFile, ATTR_FILE_LINKCOUNT}, 4},      {{kFile, ATTR_FILE_TOTALSIZE}, 8},
      {{kFile, ATTR_FILE_ALLOCSIZE}, 8},      {{kFile, ATTR_FILE_DEVTYPE}, 4},
      {{kFork, ATTR_CMNEXT_REALFSID}, 8},     {{kFork, ATTR_CMNEXT_LINKID}, 8},
  };
  auto found = kSizes.find({word, bit});
  if (found == kSizes.end()) return std::nullopt;
  return found->second;
}

// The platform's reply order of the volume group, where it departs from bit order.
inline std::vector<attrgroup_t> volumeOrder() {
  return {
      ATTR_VOL_FSTYPE,       ATTR_VOL_SIGNATURE,  ATTR_VOL_SIZE,          ATTR_VOL_SPACEFREE,
      ATTR_VOL_SPACEAVAIL,   ATTR_VOL_SPACEUSED,  ATTR_VOL_MINALLOCATION, ATTR_VOL_IOBLOCKSIZE,
      ATTR_VOL_MOUNTPOINT,   ATTR_VOL_NAME,       ATTR_VOL_MOUNTFLAGS,    ATTR_VOL_MOUNTEDDEVICE,
      ATTR_VOL_CAPABILITIES, ATTR_VOL_UUID,       ATTR_VOL_QUOTA_SIZE,    ATTR_VOL_RESERVED_SIZE,
      ATTR_VOL_ATTRIBUTES,   ATTR_VOL_FSTYPENAME, ATTR_VOL_INFO};
}

class ParsedReply {
 public:
  // Walks a reply that starts with a returned-attributes set.
  explicit ParsedReply(const std::vector<unsigned char>& bytes) : bytes_(bytes) {
    length_ = read<std::uint32_t>(0);
    if (length_ > bytes.size()) throw std::runtime_error("length word beyond the buffer");
    returned_ = read<attribute_set_t>(4);
    std::size_t cursor = 24;
    attrgroup_t words[5] = {returned_.commonattr & ~ATTR_CMN_RETURNED_ATTRS, returned_.volattr,
                            returned_.dirattr, returned_.fileattr, returned_.forkattr};
    for (int word = kCommon; word <= kFork; ++word) {
      std::vector<attrgroup_t> order;
      if (word == kVolume) {
        order = volumeOrder();
      } else {
        for (int bit = 0; bit < 32; ++bit) order.push_back(attrgroup_t{1} << bit);
      }
      attrgroup_t seen = 0;
      for (attrgroup_t bit : order) {
        if ((words[word] & bit) == 0) continue;
        seen |= bit;
        auto size = fixedSize(static_cast<Word>(word), bit);
        if (!size) throw std::runtime_error("unexpected attribute in reply");
        if (cursor % 4 != 0) throw std::runtime_error("misaligned entry");
        offsets_[{word, bit}] = cursor;
        cursor += *size == 0 ? 8 : (*size + 3) / 4 * 4;
      }
      if (seen != words[word]) throw std::runtime_error("attribute outside the known order");
    }
    fixedEnd_ = cursor;
  }

  std::uint32_t length() const { return length_; }
  const attribute_set_t& returned() const { return returned_; }
  std::size_t fixedEnd() const { return fixedEnd_; }
  bool has(Word word, attrgroup_t bit) const { return offsets_.count({word, bit}) != 0; }
  std::size_t offsetOf(Word word, attrgroup_t bit) const { return offsets_.at({word, bit}); }

  template <class T>
  T value(Word word, attrgroup_t bit) const {
    return read<T>(offsetOf(word, bit));
  }

  // The data of a variable attribute: checks that it lies after the fixed part, within the
  // reply, and ends in a zero byte.
  std::string text(Word word, attrgroup_t bit) const {
    std::size_t at = offsetOf(word, bit);
    auto reference = read<attrreference_t>(at);
    std::size_t start = at + static_cast<std::size_t>(reference.attr_dataoffset);
    if (reference.attr_dataoffset < 0 || start < fixedEnd_ || reference.attr_length == 0
        || start + reference.attr_length > length_) {
      throw std::runtime_error("reference outside the reply");
    }
    if (bytes_[start + reference.attr_length - 1] != 0) throw std::runtime_error("no zero end");
    return std::string(reinterpret_cast<const char*>(&bytes_[start]), reference.attr_length - 1);
  }

  template <class T>
  T read(std::size_t offset) const {
    if (offset + sizeof(T) > bytes_.size()) throw std::runtime_error("read beyond the buffer");
    T result;
    std::memcpy(&result, bytes_.data() + offset, sizeof(T));
    return result;
  }

 private:
  const std::vector<unsigned char>& bytes_;
  std::uint32_t length_ = 0;
  attribute_set_t returned_{};
  std::size_t fixedEnd_ = 0;
  std::map<std::pair<int, attrgroup_t>, std::size_t> offsets_;
};

}  // namespace carrow::platform::testing
