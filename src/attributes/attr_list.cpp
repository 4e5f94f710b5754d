#include <cerrno>
#include <memory>
#include <system_error>

#include <carrow/attributes/attr_list.h>
#include <carrow/platform/attr.h>

namespace carrow {

// The reply structures are copied out byte for byte, so they must be the platform's own size.
static_assert(sizeof(AttributeSet) == sizeof(platform::attribute_set_t));
static_assert(sizeof(VolCapabilities) == sizeof(platform::vol_capabilities_attr_t));
static_assert(sizeof(VolAttributes) == sizeof(platform::vol_attributes_attr_t));
static_assert(sizeof(FSID) == sizeof(platform::fsid_t));
static_assert(sizeof(FSObjID) == sizeof(platform::fsobj_id_t));
static_assert(sizeof(GUID) == sizeof(platform::guid_t));
static_assert(sizeof(TimeSpec) == sizeof(platform::attr_timespec));

AttrList::Attributes AttrList::attributes(const std::string& path, std::span<const Key> keys,
                                          Options options) {
  const Request request = AttrList::request(keys, options);
  platform::attrlist record{};
  record.bitmapcount = request.bitmapCount;
  record.reserved = request.reserved;
  record.commonattr = request.attributes.commonattr;
  record.volattr = request.attributes.volattr;
  record.dirattr = request.attributes.dirattr;
  record.fileattr = request.attributes.fileattr;
  record.forkattr = request.attributes.forkattr;

  // The buffer is written by the kernel and read only within the length it reports, so it is
  // not cleared first.
  auto buffer = std::make_unique_for_overwrite<std::byte[]>(request.bufferSize);
  if (platform::getattrlist(path.c_str(), &record, buffer.get(), request.bufferSize,
                            request.kernelOptions)
      != 0) {
    throw std::system_error(errno, std::generic_category());
  }
  return parseReply(std::span<const std::byte>(buffer.get(), request.bufferSize));
}

}  // namespace carrow
