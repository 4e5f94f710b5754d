// carrow-volume-service: an example service built on the library. It exports the mounted-volume
// list and a slow method that sleeps (cancel a client to see the service's task cancelled).
//
//   carrow-volume-service [--name NAME] [--directory DIR]
//
// Listens on DIR/NAME.sock (default: /run/carrow/com.carrow.volumes.sock, or the folder in
// $CARROW_XPC_SERVICE_DIR), or on the socket systemd passes when started by the
// carrow-volumes.socket unit. Log records go to standard output.

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>

#include <carrow/logging/log.h>
#include <carrow/runtime/runtime.h>
#include <carrow/volumes/attr_list_disk.h>

#include "volume_protocol.h"

namespace {

using namespace carrow;
using namespace carrow::volumes_example;

VolumeRecord recordOf(const AttrListDisk& disk) {
  VolumeRecord record;
  record.mountPoint = disk.mountPoint().path();
  record.devicePath = disk.devicePath();
  record.filesystemTypeName = disk.filesystemTypeName();
  record.userVisibleName = disk.userVisibleName();
  record.uuid = disk.uuid();
  record.capacity = disk.capacity();
  record.bytesUsed = disk.bytesUsed();
  record.bytesFree = disk.bytesFree();
  record.traits = disk.traits().rawValue();
  for (auto name : disk.traits().memberNames()) record.traitNames.emplace_back(name);
  return record;
}

// The object exported on each accepted connection.
class VolumeEndpoint {
 public:
  using ConnectionType = VolumeServiceConnection;

  explicit VolumeEndpoint(const void* connectionID)
      : taskGroup_(std::make_shared<XPCTaskGroup>(connectionID)) {}

  std::shared_ptr<XPCTaskGroup> taskGroup() const { return taskGroup_; }

  Async<std::vector<VolumeRecord>> serve(MountedVolumes, bool all) {
    auto list = [all]() -> Async<std::vector<VolumeRecord>> {
      std::vector<VolumeRecord> records;
      for (const AttrListDisk& disk : AttrListDisk::mountedVolumes()) {
        if (all || disk.traits().contains(CRAttrListDiskTraits::browsable)) {
          records.push_back(recordOf(disk));
        }
      }
      co_return records;
    };
    co_return co_await taskGroup_->withXPCTask({}, std::string(MountedVolumes::selector), list);
  }

  Async<double> serve(SlowSleep, double seconds) {
    auto nap = [seconds]() -> Async<double> {
      const auto started = std::chrono::steady_clock::now();
      co_await sleep(std::chrono::duration_cast<ContinuousClock::duration>(
          std::chrono::duration<double>(seconds)));
      co_return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    };
    co_return co_await taskGroup_->withXPCTask(XPCTaskGroup::TaskOptions::cancelOnInvalidation(),
                                               std::string(SlowSleep::selector), nap);
  }

 private:
  std::shared_ptr<XPCTaskGroup> taskGroup_;
};

int usage() {
  std::fprintf(stderr, "usage: carrow-volume-service [--name NAME] [--directory DIR]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string name = VolumeServiceConnection::serviceName;
  std::string directory = defaultServiceDirectory();
  for (int index = 1; index < argc; ++index) {
    if (std::strcmp(argv[index], "--name") == 0 && index + 1 < argc) {
      name = argv[++index];
    } else if (std::strcmp(argv[index], "--directory") == 0 && index + 1 < argc) {
      directory = argv[++index];
    } else {
      return usage();
    }
  }
  CRLog::setLogger(std::make_shared<CRPrintLogger>());
  std::shared_ptr<XPCListener> listener;
  try {
    listener = std::getenv("LISTEN_FDS") != nullptr ? XPCListener::fromSocketActivation()
                                                    : XPCListener::make(name, directory);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "carrow-volume-service: %s\n", error.what());
    return 1;
  }
  listener->setNewConnectionHandler([](std::shared_ptr<XPCConnection> connection) {
    const auto peer = connection->peerCredentials();
    CRLog::info("VolumeService", "Client pid " + std::to_string(peer ? peer->pid : 0) + " uid "
                                     + std::to_string(peer ? peer->uid : 0));
    configure(connection, std::make_shared<VolumeEndpoint>(connection.get()), VolumeProtocol{});
    return true;
  });
  listener->resume();
  CRLog::info("VolumeService", "Serving on "
                                   + (listener->path().empty() ? std::string("the activated socket")
                                                               : listener->path()));
  for (;;) ::pause();
}
