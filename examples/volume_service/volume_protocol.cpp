#include "volume_protocol.h"

namespace carrow::volumes_example {

void to_json(nlohmann::json& json, const VolumeRecord& record) {
  json = {
      {"mountPoint", record.mountPoint},
      {"devicePath", record.devicePath},
      {"filesystemTypeName", record.filesystemTypeName},
      {"userVisibleName",
       record.userVisibleName ? nlohmann::json(*record.userVisibleName) : nlohmann::json(nullptr)},
      {"volumeUUID", record.uuid ? nlohmann::json(*record.uuid) : nlohmann::json(nullptr)},
      {"capacity", record.capacity ? nlohmann::json(*record.capacity) : nlohmann::json(nullptr)},
      {"bytesUsed", record.bytesUsed ? nlohmann::json(*record.bytesUsed) : nlohmann::json(nullptr)},
      {"bytesFree", record.bytesFree ? nlohmann::json(*record.bytesFree) : nlohmann::json(nullptr)},
      {"traits", record.traits},
      {"traitNames", record.traitNames}};
}

namespace {

template <class T>
std::optional<T> optional(const nlohmann::json& json, const char* key) {
  const auto& value = json.at(key);
  if (value.is_null()) return std::nullopt;
  return value.get<T>();
}

}  // namespace

void from_json(const nlohmann::json& json, VolumeRecord& record) {
  record.mountPoint = json.at("mountPoint").get<std::string>();
  record.devicePath = json.at("devicePath").get<std::string>();
  record.filesystemTypeName = json.at("filesystemTypeName").get<std::string>();
  record.userVisibleName = optional<std::string>(json, "userVisibleName");
  record.uuid = optional<std::string>(json, "volumeUUID");
  record.capacity = optional<std::int64_t>(json, "capacity");
  record.bytesUsed = optional<std::int64_t>(json, "bytesUsed");
  record.bytesFree = optional<std::int64_t>(json, "bytesFree");
  record.traits = json.at("traits").get<std::uint64_t>();
  record.traitNames = json.at("traitNames").get<std::vector<std::string>>();
}

}  // namespace carrow::volumes_example
