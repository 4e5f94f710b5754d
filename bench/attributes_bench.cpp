// Attribute reads and the volume list, each beside the raw system calls or table parse that
// they are built on.

#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>

#include <carrow/attributes/attr_list.h>
#include <carrow/logging/log.h>
#include <carrow/platform/attr.h>
#include <carrow/platform/mount_table.h>
#include <carrow/volumes/attr_list_disk.h>

namespace {

using carrow::AttrList;
using Key = AttrList::Key;

class DroppingLogger final : public carrow::CRLogger {
 public:
  bool shouldLog(std::optional<std::string_view>) override { return false; }
  void log(std::string_view, carrow::CRLogLevel, std::optional<std::string_view>, const char*,
           std::uint32_t) override {}
};

// A regular file that lives for the whole run.
const std::string& benchFile() {
  static const std::string path = [] {
    char pattern[] = "/tmp/carrow-bench-XXXXXX";
    const int fd = mkstemp(pattern);
    if (fd < 0) std::abort();
    if (write(fd, "bench", 5) != 5) std::abort();
    close(fd);
    std::atexit([] { unlink(benchFile().c_str()); });
    return std::string(pattern);
  }();
  return path;
}

const std::vector<Key>& fileKeys() {
  static const std::vector<Key> keys = {Key::name,         Key::objectType, Key::ownerID,
                                        Key::groupID,      Key::accessMask, Key::modificationTime,
                                        Key::changeTime,   Key::fileID,     Key::fsID,
                                        Key::fileLinkCount};
  return keys;
}

void BM_FileKeys(benchmark::State& state) {
  const auto& path = benchFile();
  for (auto _ : state) benchmark::DoNotOptimize(AttrList::attributes(path, fileKeys(), {}));
}
BENCHMARK(BM_FileKeys)->Name("File/AttrList 10 keys");

void BM_RawStatx(benchmark::State& state) {
  const auto& path = benchFile();
  for (auto _ : state) {
    struct statx info;
    benchmark::DoNotOptimize(statx(AT_FDCWD, path.c_str(), AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT,
                                   STATX_BASIC_STATS | STATX_BTIME | STATX_MNT_ID, &info));
    benchmark::DoNotOptimize(info);
  }
}
BENCHMARK(BM_RawStatx)->Name("File/raw statx");

void rawStatxStatfs(benchmark::State& state, const std::string& path) {
  for (auto _ : state) {
    struct statx info;
    struct statfs fs;
    benchmark::DoNotOptimize(statx(AT_FDCWD, path.c_str(), AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT,
                                   STATX_BASIC_STATS | STATX_BTIME | STATX_MNT_ID, &info));
    benchmark::DoNotOptimize(statfs(path.c_str(), &fs));
    benchmark::DoNotOptimize(info);
    benchmark::DoNotOptimize(fs);
  }
}

void BM_FileRawStatxStatfs(benchmark::State& state) {
  rawStatxStatfs(state, benchFile());
}
BENCHMARK(BM_FileRawStatxStatfs)->Name("File/raw statx+statfs");

void BM_VolumeKeys(benchmark::State& state) {
  const auto keys = carrow::AttrListDisk::volumeKeys();
  for (auto _ : state) {
    benchmark::DoNotOptimize(AttrList::attributes("/", keys, AttrList::Options::volumeDefault()));
  }
}
BENCHMARK(BM_VolumeKeys)->Name("Volume/AttrList 15 volume keys of /");

void BM_VolumeRawStatxStatfs(benchmark::State& state) {
  rawStatxStatfs(state, "/");
}
BENCHMARK(BM_VolumeRawStatxStatfs)->Name("Volume/raw statx+statfs of /");

void BM_VolumeDescription(benchmark::State& state) {
  const auto root = carrow::FileURL::fileURLWithPath("/", true);
  for (auto _ : state) benchmark::DoNotOptimize(carrow::AttrListDisk(root, false));
}
BENCHMARK(BM_VolumeDescription)->Name("Volume/AttrListDisk of /");

// The walk alone, on a reply captured once: what the library adds to the kernel's work.
void BM_ParseFileReply(benchmark::State& state) {
  const auto request = AttrList::request(fileKeys(), {});
  std::vector<std::byte> reply(request.bufferSize);
  carrow::platform::attrlist record{request.bitmapCount,           request.reserved,
                                    request.attributes.commonattr, request.attributes.volattr,
                                    request.attributes.dirattr,    request.attributes.fileattr,
                                    request.attributes.forkattr};
  if (carrow::platform::getattrlist(benchFile().c_str(), &record, reply.data(), reply.size(),
                                    request.kernelOptions)
      != 0) {
    state.SkipWithError("getattrlist failed");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(AttrList::parseReply(reply));
}
BENCHMARK(BM_ParseFileReply)->Name("File/parseReply of 10 keys (no system call)");

void BM_MountedVolumes(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(carrow::AttrListDisk::mountedVolumes());
}
BENCHMARK(BM_MountedVolumes)->Name("Volumes/AttrListDisk::mountedVolumes");

void BM_MountTable(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(carrow::platform::readMountTable());
}
BENCHMARK(BM_MountTable)->Name("Volumes/mount table parse alone (libmount)");

}  // namespace

int main(int argc, char** argv) {
  carrow::CRLog::setLogger(std::make_shared<DroppingLogger>());
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
