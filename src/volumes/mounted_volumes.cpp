#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

#include <carrow/platform/mount.h>
#include <carrow/volumes/attr_list_disk.h>

#include "mounted_file_systems.h"

namespace carrow {

namespace {

// Room for file systems mounted between counting them and listing them.
constexpr int kSpareRecords = 10;

[[noreturn]] void throwErrno() {
  const int code = errno;
  throw std::system_error(code > 0 ? code : ENODEV, std::generic_category());
}

std::string mountOnName(const platform::statfs& record) {
  const auto* end =
      static_cast<const char*>(std::memchr(record.f_mntonname, 0, sizeof record.f_mntonname));
  return std::string(record.f_mntonname,
                     end ? std::size_t(end - record.f_mntonname) : sizeof record.f_mntonname);
}

}  // namespace

detail::StatfsRecords detail::mountedFileSystems(const GetFSStat& getfsstat) {
  const int count = getfsstat(nullptr, 0, platform::MNT_NOWAIT);
  if (count < 0) throwErrno();
  if (count == 0) return {};
  StatfsRecords records(std::size_t(count) + kSpareRecords);
  const int listed = getfsstat(records.data(), int(records.size() * sizeof(platform::statfs)),
                               platform::MNT_NOWAIT);
  if (listed < 0) throwErrno();
  records.resize(std::min(std::size_t(listed), records.size()));
  return records;
}

std::vector<AttrListDisk> AttrListDisk::mountedVolumes() {
  std::vector<AttrListDisk> volumes;
  for (const auto& record : detail::mountedFileSystems(platform::getfsstat)) {
    try {
      volumes.push_back(AttrListDisk(FileURL::fileURLWithPath(mountOnName(record), true), false));
    } catch (...) {
      // A volume that cannot be described is left out; a missing attribute was logged.
    }
  }
  return volumes;
}

AttrListDisk AttrListDisk::bootedDataVolume() {
  return AttrListDisk(FileURL::fileURLWithPath("/System/Volumes/Data/", true), true);
}

}  // namespace carrow
