/* Uses the C interface as a C program would: lists the volumes, describes the root through its
 * handle, and checks errors and reference counting. */
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <carrow/CRAttrListDisk.h>

static int failures = 0;

#define CHECK(condition)                                                            \
  do {                                                                              \
    if (!(condition)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      ++failures;                                                                   \
    }                                                                               \
  } while (0)

static void logToStderr(void* context, CRLogLevelC level, const char* category,
                        const char* message) {
  int* records = context;
  ++*records;
  fprintf(stderr, "log %d %s: %s\n", (int)level, category ? category : "-", message);
}

/* Whether `text` (which this frees) equals `expected`; NULL matches NULL only. */
static int takeEquals(char* text, const char* expected) {
  int equal = text && expected ? strcmp(text, expected) == 0 : text == expected;
  free(text);
  return equal;
}

static void printText(const char* label, char* text) {
  printf(" %s=%s", label, text ? text : "-");
  free(text);
}

static void listVolumes(void) {
  CRError error = {CRErrorDomainOther, -1};
  CRAttrListDiskList* volumes = CRAttrListDiskFactoryMountedVolumes(&error);
  CHECK(volumes != NULL);
  CHECK(error.domain == CRErrorDomainNone);
  if (!volumes) return;

  int sawRoot = 0;
  for (size_t i = 0; i < CRAttrListDiskListCount(volumes); ++i) {
    const CRAttrListDisk* disk = CRAttrListDiskListGet(volumes, i);
    char* mountPoint = CRAttrListDiskCopyMountPoint(disk);
    CHECK(mountPoint != NULL);
    if (mountPoint && strcmp(mountPoint, "/") == 0) {
      sawRoot = 1;
      CHECK((CRAttrListDiskGetTraits(disk) & CRAttrListDiskTraitsRootFileSystem) != 0);
    }
    printText("mountPoint", mountPoint);
    printText("name", CRAttrListDiskCopyName(disk));
    printText("type", CRAttrListDiskCopyFilesystemTypeName(disk));
    printText("device", CRAttrListDiskCopyDevicePath(disk));
    printText("uuid", CRAttrListDiskCopyVolumeUUID(disk));
    CRFSID fsid = CRAttrListDiskGetFSID(disk);
    int64_t capacity = 0;
    if (CRAttrListDiskGetCapacity(disk, &capacity)) {
      CHECK(capacity >= 0);
      printf(" capacity=%" PRId64, capacity);
    }
    printf(" fsid=%d,%d traits=0x%" PRIx64 "\n", (int)fsid.val[0], (int)fsid.val[1],
           CRAttrListDiskGetTraits(disk));
  }
  CHECK(sawRoot);

  /* A retained handle outlives its list. */
  CRAttrListDisk* first = CRAttrListDiskRetain(CRAttrListDiskListGet(volumes, 0));
  CRAttrListDiskListRelease(volumes);
  CHECK(!takeEquals(CRAttrListDiskCopyMountPoint(first), NULL));
  CRAttrListDiskRelease(first);
  CRAttrListDiskListRelease(NULL);
}

static void describeRoot(void) {
  CRError error = {CRErrorDomainOther, -1};
  CRAttrListDisk* root = CRAttrListDiskFactoryAttrVolumeWithMountPoint("/", &error);
  CHECK(root != NULL);
  CHECK(error.domain == CRErrorDomainNone);
  if (!root) return;
  CHECK(takeEquals(CRAttrListDiskCopyMountPoint(root), "/"));
  CHECK(!takeEquals(CRAttrListDiskCopyFilesystemTypeName(root), NULL));
  CHECK(!takeEquals(CRAttrListDiskCopyDevicePath(root), NULL));
  CHECK(takeEquals(CRAttrListDiskCopySnapshotName(root), NULL));
  CHECK(!CRAttrListDiskGetQuota(root, NULL));
  char* description = CRAttrListDiskCopyDescription(root);
  CHECK(description && strncmp(description, "AttrListDisk(", 13) == 0);
  free(description);

  /* A retained handle outlives the first release. */
  CHECK(CRAttrListDiskRetain(root) == root);
  CRAttrListDiskRelease(root);
  CHECK(takeEquals(CRAttrListDiskCopyMountPoint(root), "/"));
  CRAttrListDiskRelease(root);
  CRAttrListDiskRelease(NULL);
}

static void reportErrors(void) {
  CRError error = {CRErrorDomainOther, -1};
  CHECK(CRAttrListDiskFactoryAttrVolumeWithMountPoint("/nonexistent/carrow", &error) == NULL);
  CHECK(error.domain == CRErrorDomainPOSIX && error.code == ENOENT);
  CHECK(strcmp(CRErrorDomainName(CRErrorDomainPOSIX), "POSIX") == 0);
  CHECK(strcmp(CRErrorDomainName(CRErrorDomainAttrList), "AttrList.Error") == 0);
  /* The error pointer is optional. */
  CHECK(CRAttrListDiskFactoryAttrVolumeWithMountPoint("/nonexistent/carrow", NULL) == NULL);
  CHECK(CRAttrListDiskFactoryAttrVolumeWithMountPoint(NULL, &error) == NULL);
  CHECK(error.domain == CRErrorDomainPOSIX && error.code == EINVAL);
  /* Where there is no booted data volume the answer is NULL. */
  CRAttrListDisk* data = CRAttrListDiskFactoryBootedDataVolume();
  CHECK(!data || takeEquals(CRAttrListDiskCopyMountPoint(data), "/System/Volumes/Data"));
  CRAttrListDiskRelease(data);
}

int main(void) {
  int records = 0;
  CRLogSetHandler(logToStderr, &records);
  listVolumes();
  describeRoot();
  reportErrors();
  if (failures) fprintf(stderr, "%d failures\n", failures);
  return failures ? 1 : 0;
}
