#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <system_error>
#include <vector>

#include <carrow/CRAttrListDisk.h>
#include <carrow/logging/log.h>
#include <carrow/platform/fatal_error.h>
#include <carrow/volumes/attr_list_disk.h>

// The handle behind `CRAttrListDisk`: one immutable description and its reference count.
struct CRAttrListDisk {
  explicit CRAttrListDisk(carrow::AttrListDisk disk) : disk(std::move(disk)) {}
  std::atomic<std::int64_t> references{1};
  const carrow::AttrListDisk disk;
};

struct CRAttrListDiskList {
  std::vector<CRAttrListDisk*> disks;
};

namespace {

using carrow::AttrListDisk;

void store(CRError* error, CRErrorDomain domain, std::int64_t code) {
  if (error) *error = CRError{domain, code};
}

// Reduces the exception in flight to a domain and code.
void storeCurrentError(CRError* error) {
  try {
    throw;
  } catch (const carrow::AttrList::Error& caught) {
    store(error, CRErrorDomainAttrList, caught.code().value());
  } catch (const std::system_error& caught) {
    const bool posix = caught.code().category() == std::generic_category()
                       || caught.code().category() == std::system_category();
    store(error, posix ? CRErrorDomainPOSIX : CRErrorDomainOther,
          posix ? caught.code().value() : 0);
  } catch (const std::bad_alloc&) {
    store(error, CRErrorDomainPOSIX, ENOMEM);
  } catch (...) {
    store(error, CRErrorDomainOther, 0);
  }
}

char* copy(const std::string& text) {
  char* copied = static_cast<char*>(std::malloc(text.size() + 1));
  if (copied) std::memcpy(copied, text.c_str(), text.size() + 1);
  return copied;
}

char* copy(const std::optional<std::string>& text) {
  return text ? copy(*text) : nullptr;
}

bool get(const std::optional<std::int64_t>& value, std::int64_t* out) {
  if (value && out) *out = *value;
  return value.has_value();
}

CRAttrListDisk* wrap(AttrListDisk disk) {
  return new CRAttrListDisk(std::move(disk));
}

class HandlerLogger final : public carrow::CRLogger {
 public:
  HandlerLogger(CRLogHandler handler, void* context) : handler_(handler), context_(context) {}
  bool shouldLog(std::optional<std::string_view>) override { return true; }
  void log(std::string_view message, carrow::CRLogLevel level,
           std::optional<std::string_view> category, const char*, std::uint32_t) override {
    const std::string text(message);
    const std::string categoryText = category ? std::string(*category) : std::string();
    handler_(context_, CRLogLevelC(level), category ? categoryText.c_str() : nullptr, text.c_str());
  }

 private:
  CRLogHandler handler_;
  void* context_;
};

}  // namespace

extern "C" {

const char* CRErrorDomainName(CRErrorDomain domain) {
  switch (domain) {
    case CRErrorDomainNone:
      return "None";
    case CRErrorDomainPOSIX:
      return "POSIX";
    case CRErrorDomainAttrList:
      return "AttrList.Error";
    case CRErrorDomainOther:
      return "Other";
  }
  return "Other";
}

void CRLogSetHandler(CRLogHandler handler, void* context) {
  if (!handler) carrow::fatalError("CarrowPrivate/CRLog", __LINE__, "no log handler");
  carrow::CRLog::setLogger(std::make_shared<HandlerLogger>(handler, context));
}

CRAttrListDisk* CRAttrListDiskRetain(CRAttrListDisk* disk) {
  if (disk) disk->references.fetch_add(1, std::memory_order_relaxed);
  return disk;
}

void CRAttrListDiskRelease(CRAttrListDisk* disk) {
  if (disk && disk->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete disk;
}

char* CRAttrListDiskCopyMountPoint(const CRAttrListDisk* disk) {
  return copy(disk->disk.mountPoint().path());
}
char* CRAttrListDiskCopyName(const CRAttrListDisk* disk) {
  return copy(disk->disk.name());
}
char* CRAttrListDiskCopyUserVisibleName(const CRAttrListDisk* disk) {
  return copy(disk->disk.userVisibleName());
}
char* CRAttrListDiskCopySnapshotName(const CRAttrListDisk* disk) {
  return copy(disk->disk.snapshotName());
}
CRFSID CRAttrListDiskGetFSID(const CRAttrListDisk* disk) {
  return CRFSID{{disk->disk.fsid().val[0], disk->disk.fsid().val[1]}};
}
char* CRAttrListDiskCopyDevicePath(const CRAttrListDisk* disk) {
  return copy(disk->disk.devicePath());
}
char* CRAttrListDiskCopyDeviceName(const CRAttrListDisk* disk) {
  return copy(disk->disk.deviceName());
}
char* CRAttrListDiskCopyLiveDiskDevicePath(const CRAttrListDisk* disk) {
  return copy(disk->disk.liveDiskDevicePath());
}
char* CRAttrListDiskCopyVolumeUUID(const CRAttrListDisk* disk) {
  return copy(disk->disk.uuid());
}
char* CRAttrListDiskCopyFilesystemTypeName(const CRAttrListDisk* disk) {
  return copy(disk->disk.filesystemTypeName());
}
bool CRAttrListDiskGetCapacity(const CRAttrListDisk* disk, int64_t* out) {
  return get(disk->disk.capacity(), out);
}
bool CRAttrListDiskGetBytesUsed(const CRAttrListDisk* disk, int64_t* out) {
  return get(disk->disk.bytesUsed(), out);
}
bool CRAttrListDiskGetBytesFree(const CRAttrListDisk* disk, int64_t* out) {
  return get(disk->disk.bytesFree(), out);
}
bool CRAttrListDiskGetQuota(const CRAttrListDisk* disk, int64_t* out) {
  return get(disk->disk.quota(), out);
}
uint64_t CRAttrListDiskGetTraits(const CRAttrListDisk* disk) {
  return disk->disk.traits().rawValue();
}
char* CRAttrListDiskCopyDescription(const CRAttrListDisk* disk) {
  return copy(disk->disk.description());
}

size_t CRAttrListDiskListCount(const CRAttrListDiskList* list) {
  return list->disks.size();
}

CRAttrListDisk* CRAttrListDiskListGet(const CRAttrListDiskList* list, size_t index) {
  if (index >= list->disks.size()) {
    carrow::fatalError("CarrowPrivate/AttrList", __LINE__, "volume index out of range");
  }
  return list->disks[index];
}

void CRAttrListDiskListRelease(CRAttrListDiskList* list) {
  if (!list) return;
  for (CRAttrListDisk* disk : list->disks) CRAttrListDiskRelease(disk);
  delete list;
}

CRAttrListDiskList* CRAttrListDiskFactoryMountedVolumes(CRError* error) {
  CRAttrListDiskList* list = nullptr;
  try {
    auto volumes = AttrListDisk::mountedVolumes();
    list = new CRAttrListDiskList();
    list->disks.reserve(volumes.size());
    for (auto& volume : volumes) list->disks.push_back(wrap(std::move(volume)));
    store(error, CRErrorDomainNone, 0);
    return list;
  } catch (...) {
    CRAttrListDiskListRelease(list);
    storeCurrentError(error);
    return nullptr;
  }
}

CRAttrListDisk* CRAttrListDiskFactoryBootedDataVolume(void) {
  try {
    return wrap(AttrListDisk::bootedDataVolume());
  } catch (...) {
    return nullptr;
  }
}

CRAttrListDisk* CRAttrListDiskFactoryAttrVolumeWithMountPoint(const char* mountPoint,
                                                              CRError* error) {
  if (!mountPoint) {
    store(error, CRErrorDomainPOSIX, EINVAL);
    return nullptr;
  }
  try {
    auto* disk = wrap(AttrListDisk(carrow::FileURL::fileURLWithPath(mountPoint, true), false));
    store(error, CRErrorDomainNone, 0);
    return disk;
  } catch (...) {
    storeCurrentError(error);
    return nullptr;
  }
}

}  // extern "C"
