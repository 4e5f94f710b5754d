#pragma once

// The protocol of the example volume service, shared by the service and its clients (the
// `carrow volumes --service NAME` command).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include <carrow/xpc/xpc.h>

namespace carrow::volumes_example {

/// One mounted volume as the service describes it: the columns of `carrow volumes`.
struct VolumeRecord {
  static constexpr std::string_view xpcClassName = "VolumeRecord";

  std::string mountPoint;
  std::string devicePath;
  std::string filesystemTypeName;
  std::optional<std::string> userVisibleName;
  std::optional<std::string> uuid;
  std::optional<std::int64_t> capacity;
  std::optional<std::int64_t> bytesUsed;
  std::optional<std::int64_t> bytesFree;
  std::uint64_t traits = 0;
  std::vector<std::string> traitNames;
};

void to_json(nlohmann::json& json, const VolumeRecord& record);
void from_json(const nlohmann::json& json, VolumeRecord& record);

/// The mounted volumes (all of them, or the browsable ones).
struct MountedVolumes : XPCMethod<"mountedVolumes:", std::vector<VolumeRecord>(bool)> {};
/// Sleeps for the given seconds, for showing cancellation; returns the seconds slept.
struct SlowSleep : XPCMethod<"sleepFor:", double(double)> {};

struct VolumeProtocol : XPCProtocol<"VolumeProtocol", MountedVolumes, SlowSleep> {};

/// The service as a client reaches it: a privileged service (it runs as root) named
/// `serviceName`, in `defaultServiceDirectory()` ("/run/carrow" or $CARROW_XPC_SERVICE_DIR).
struct VolumeServiceConnection {
  using ProxyProtocol = VolumeProtocol;
  using Kind = XPCConnectionKind;
  static const XPCProtocolDescription& interfaceProtocol() { return VolumeProtocol::description(); }
  static Kind kind() { return Kind::privilegedMachService(serviceName); }
  static std::vector<ArgumentExpectation> argumentExpectations() {
    return {{std::string(MountedVolumes::selector), {"Array"}, 0, true}};
  }
  static inline std::string serviceName = "com.carrow.volumes";
};

}  // namespace carrow::volumes_example
