/* Lists the mounted volumes through the C interface, as a C program would. */
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

static void printText(const char* label, char* text) {
  printf(" %s=%s", label, text ? text : "-");
  free(text);
}

int main(void) {
  int records = 0;
  CRLogSetHandler(logToStderr, &records);

  CRError error = {CRErrorDomainOther, -1};
  CRAttrListDiskList* volumes = CRAttrListDiskFactoryMountedVolumes(&error);
  CHECK(volumes != NULL);
  CHECK(error.domain == CRErrorDomainNone);
  if (!volumes) return 1;

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
  CRAttrListDiskListRelease(volumes);

  CHECK(CRAttrListDiskFactoryAttrVolumeWithMountPoint("/nonexistent/carrow", &error) == NULL);
  CHECK(error.domain == CRErrorDomainPOSIX && error.code == 2);
  CHECK(strcmp(CRErrorDomainName(CRErrorDomainAttrList), "AttrList.Error") == 0);

  if (failures) fprintf(stderr, "%d failures\n", failures);
  return failures ? 1 : 0;
}
