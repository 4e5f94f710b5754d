#include <cstdio>

#include <carrow/attributes/kernel_types.h>

namespace carrow {

namespace {

std::ostream& hex32(std::ostream& out, std::uint32_t word) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", word);
  return out << text;
}

template <std::size_t N>
std::ostream& words(std::ostream& out, const std::array<std::uint32_t, N>& values) {
  out << "[";
  for (std::size_t i = 0; i < N; ++i) hex32(i ? out << ", " : out, values[i]);
  return out << "]";
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const AttributeSet& value) {
  return words<5>(out << "attribute_set",
                  {value.commonattr, value.volattr, value.dirattr, value.fileattr, value.forkattr});
}

std::ostream& operator<<(std::ostream& out, const VolCapabilities& value) {
  words(out << "vol_capabilities_attr(capabilities: ", value.capabilities);
  return words(out << ", valid: ", value.valid) << ")";
}

std::ostream& operator<<(std::ostream& out, const VolAttributes& value) {
  return out << "vol_attributes_attr(validattr: " << value.validattr
             << ", nativeattr: " << value.nativeattr << ")";
}

std::ostream& operator<<(std::ostream& out, const FSID& value) {
  return out << "fsid(" << value.val[0] << ", " << value.val[1] << ")";
}

std::ostream& operator<<(std::ostream& out, const FSObjID& value) {
  return out << "fsobj_id(" << value.fid_objno << ", " << value.fid_generation << ")";
}

std::ostream& operator<<(std::ostream& out, const GUID& value) {
  char text[3];
  out << "guid_t(";
  for (auto byte : value.g_guid) {
    std::snprintf(text, sizeof text, "%02X", byte);
    out << text;
  }
  return out << ")";
}

std::ostream& operator<<(std::ostream& out, const TimeSpec& value) {
  return out << "timespec(" << value.tv_sec << ", " << value.tv_nsec << ")";
}

}  // namespace carrow
