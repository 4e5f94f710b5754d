/* The volume descriptions of CarrowPrivate for C and other object runtimes.
 *
 * Volumes are opaque, immutable, reference-counted `CRAttrListDisk` handles: every function that
 * returns one returns it retained (the caller releases it); handles may be shared between
 * threads. Text comes back as a fresh malloc'd copy that the caller frees, NULL when absent.
 * Failing functions return NULL and, when `error` is not NULL, store the error's domain and
 * code there.
 *
 *     CRError error;
 *     CRAttrListDiskList* volumes = CRAttrListDiskFactoryMountedVolumes(&error);
 *     for (size_t i = 0; volumes && i < CRAttrListDiskListCount(volumes); ++i) {
 *       char* path = CRAttrListDiskCopyMountPoint(CRAttrListDiskListGet(volumes, i));
 *       puts(path);
 *       free(path);
 *     }
 *     CRAttrListDiskListRelease(volumes);
 *
 * The library logs through one process-wide logger (a volume that cannot be described is logged
 * in category "AttrListDisk"); a C program installs it with CRLogSetHandler before it lists
 * volumes, since a record without a logger stops the process. */
#ifndef CARROW_CR_ATTR_LIST_DISK_H
#define CARROW_CR_ATTR_LIST_DISK_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Where an error comes from. */
typedef enum CRErrorDomain {
  CRErrorDomainNone = 0,     /* no error */
  CRErrorDomainPOSIX = 1,    /* code is an errno value (ENOTSUP: a volume lacks attributes) */
  CRErrorDomainAttrList = 2, /* code is a CRAttrListErrorCode */
  CRErrorDomainOther = 3     /* any other failure; code is 0 */
} CRErrorDomain;

typedef enum CRAttrListErrorCode {
  CRAttrListErrorKeyTypeMismatch = 1,
  CRAttrListErrorMalformedReply = 2
} CRAttrListErrorCode;

typedef struct CRError {
  CRErrorDomain domain;
  int64_t code;
} CRError;

/* "None", "POSIX", "AttrList.Error" or "Other". */
const char* CRErrorDomainName(CRErrorDomain domain);

/* Log levels of CRLogHandler. */
typedef enum CRLogLevelC {
  CRLogLevelDebug = 0,
  CRLogLevelInfo = 1,
  CRLogLevelError = 2
} CRLogLevelC;

/* Receives every log record of the library: its level, its category (NULL when none) and its
 * message, valid for the duration of the call. Called from any thread; must not call back into
 * the library. */
typedef void (*CRLogHandler)(void* context, CRLogLevelC level, const char* category,
                             const char* message);
/* Installs `handler` as the library's logger (replacing the one installed before). */
void CRLogSetHandler(CRLogHandler handler, void* context);

/* Bits of CRAttrListDiskGetTraits. */
enum {
  CRAttrListDiskTraitsApfs = 0x1,
  CRAttrListDiskTraitsHfs = 0x2,
  CRAttrListDiskTraitsAfpfs = 0x4,
  CRAttrListDiskTraitsAfcs = 0x8,
  CRAttrListDiskTraitsExfat = 0x10,
  CRAttrListDiskTraitsMsdos = 0x20,
  CRAttrListDiskTraitsNtfs = 0x40,
  CRAttrListDiskTraitsSmbfs = 0x80,
  CRAttrListDiskTraitsRootFileSystem = 0x100,
  CRAttrListDiskTraitsLocal = 0x200,
  CRAttrListDiskTraitsBrowsable = 0x400,
  CRAttrListDiskTraitsReadOnly = 0x800,
  CRAttrListDiskTraitsJournaled = 0x1000,
  CRAttrListDiskTraitsSnapshot = 0x2000,
  CRAttrListDiskTraitsIgnoresOwnership = 0x4000,
  CRAttrListDiskTraitsContentProtection = 0x8000,
  CRAttrListDiskTraitsJournalingSupported = 0x100000,
  CRAttrListDiskTraitsCaseSensitive = 0x200000,
  CRAttrListDiskTraitsVolumeGroups = 0x400000
};

/* A file-system id: two signed words. */
typedef struct CRFSID {
  int32_t val[2];
} CRFSID;

/* One described volume. */
typedef struct CRAttrListDisk CRAttrListDisk;
/* A list of volumes, owned by the caller. */
typedef struct CRAttrListDiskList CRAttrListDiskList;

/* Reference counting; both accept NULL. Retain returns its argument. */
CRAttrListDisk* CRAttrListDiskRetain(CRAttrListDisk* disk);
void CRAttrListDiskRelease(CRAttrListDisk* disk);

/* Properties, in interface order. `disk` must not be NULL. */
char* CRAttrListDiskCopyMountPoint(const CRAttrListDisk* disk); /* the mount point's path */
char* CRAttrListDiskCopyName(const CRAttrListDisk* disk);
char* CRAttrListDiskCopyUserVisibleName(const CRAttrListDisk* disk);
char* CRAttrListDiskCopySnapshotName(const CRAttrListDisk* disk);
CRFSID CRAttrListDiskGetFSID(const CRAttrListDisk* disk);
char* CRAttrListDiskCopyDevicePath(const CRAttrListDisk* disk);
char* CRAttrListDiskCopyDeviceName(const CRAttrListDisk* disk);
char* CRAttrListDiskCopyLiveDiskDevicePath(const CRAttrListDisk* disk);
char* CRAttrListDiskCopyVolumeUUID(const CRAttrListDisk* disk);
char* CRAttrListDiskCopyFilesystemTypeName(const CRAttrListDisk* disk);
/* Numbers in bytes: true with the value stored in *out (when out is not NULL), false when the
 * volume does not report it. */
bool CRAttrListDiskGetCapacity(const CRAttrListDisk* disk, int64_t* out);
bool CRAttrListDiskGetBytesUsed(const CRAttrListDisk* disk, int64_t* out);
bool CRAttrListDiskGetBytesFree(const CRAttrListDisk* disk, int64_t* out);
bool CRAttrListDiskGetQuota(const CRAttrListDisk* disk, int64_t* out);
uint64_t CRAttrListDiskGetTraits(const CRAttrListDisk* disk);
/* AttrListDisk("name","apfs","UUID","/path"). */
char* CRAttrListDiskCopyDescription(const CRAttrListDisk* disk);

/* Lists. Get returns a borrowed handle (retain it to keep it past the list). Release accepts
 * NULL and releases every handle the list holds. */
size_t CRAttrListDiskListCount(const CRAttrListDiskList* list);
CRAttrListDisk* CRAttrListDiskListGet(const CRAttrListDiskList* list, size_t index);
void CRAttrListDiskListRelease(CRAttrListDiskList* list);

/* Every mounted volume that can be described, in the kernel's order (possibly none); NULL with
 * the error when the kernel cannot list the file systems. */
CRAttrListDiskList* CRAttrListDiskFactoryMountedVolumes(CRError* error);
/* The booted system's data volume ("/System/Volumes/Data/"), or NULL. */
CRAttrListDisk* CRAttrListDiskFactoryBootedDataVolume(void);
/* The volume mounted at the path `mountPoint`, or NULL with the error. */
CRAttrListDisk* CRAttrListDiskFactoryAttrVolumeWithMountPoint(const char* mountPoint,
                                                              CRError* error);

#ifdef __cplusplus
}
#endif

#endif
