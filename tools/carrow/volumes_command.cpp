#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <carrow/runtime/run_main.h>
#include <carrow/volumes/attr_list_disk.h>

#include "cli.h"
#include "volume_protocol.h"

namespace carrow::tool {

namespace {

template <class T>
nlohmann::ordered_json orNull(const std::optional<T>& value) {
  return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

// The properties of the C interface's CRAttrListDisk, in its order.
nlohmann::ordered_json toJSON(const AttrListDisk& disk) {
  nlohmann::ordered_json traitNames = nlohmann::ordered_json::array();
  for (auto name : disk.traits().memberNames()) traitNames.push_back(name);
  return {
      {"mountPoint", disk.mountPoint().path()},
      {"name", orNull(disk.name())},
      {"userVisibleName", orNull(disk.userVisibleName())},
      {"snapshotName", orNull(disk.snapshotName())},
      {"fsid", {disk.fsid().val[0], disk.fsid().val[1]}},
      {"devicePath", disk.devicePath()},
      {"deviceName", disk.deviceName()},
      {"liveDiskDevicePath", orNull(disk.liveDiskDevicePath())},
      {"volumeUUID", orNull(disk.uuid())},
      {"filesystemTypeName", disk.filesystemTypeName()},
      {"capacity", orNull(disk.capacity())},
      {"bytesUsed", orNull(disk.bytesUsed())},
      {"bytesFree", orNull(disk.bytesFree())},
      {"quota", orNull(disk.quota())},
      {"traits", disk.traits().rawValue()},
      {"traitNames", traitNames},
  };
}

std::string joined(const std::vector<std::string_view>& names) {
  std::string text;
  for (auto name : names) {
    if (!text.empty()) text += ",";
    text += name;
  }
  return text.empty() ? "-" : text;
}

using Rows = std::vector<std::vector<std::string>>;

Rows tableHeader() {
  return {{"MOUNT POINT", "DEVICE", "TYPE", "NAME", "UUID", "SIZE", "USED", "FREE", "TRAITS"}};
}

void printRows(const Rows& rows);

void printTable(const std::vector<AttrListDisk>& volumes) {
  Rows rows = tableHeader();
  for (const auto& disk : volumes) {
    rows.push_back({disk.mountPoint().path(), disk.devicePath(), disk.filesystemTypeName(),
                    disk.userVisibleName().value_or("-"), disk.uuid().value_or("-"),
                    humanBytes(disk.capacity()), humanBytes(disk.bytesUsed()),
                    humanBytes(disk.bytesFree()), joined(disk.traits().memberNames())});
  }
  printRows(rows);
}

// The same table, from the records a volume service sent.
void printTable(const std::vector<volumes_example::VolumeRecord>& volumes) {
  Rows rows = tableHeader();
  for (const auto& record : volumes) {
    std::vector<std::string_view> names(record.traitNames.begin(), record.traitNames.end());
    rows.push_back({record.mountPoint, record.devicePath, record.filesystemTypeName,
                    record.userVisibleName.value_or("-"), record.uuid.value_or("-"),
                    humanBytes(record.capacity), humanBytes(record.bytesUsed),
                    humanBytes(record.bytesFree), joined(names)});
  }
  printRows(rows);
}

void printRows(const Rows& rows) {
  std::vector<std::size_t> widths(rows[0].size());
  for (const auto& row : rows) {
    for (std::size_t column = 0; column < row.size(); ++column) {
      widths[column] = std::max(widths[column], row[column].size());
    }
  }
  constexpr std::size_t kFirstNumber = 5, kLast = 8;  // sizes align right; traits are not padded
  std::string out;
  for (const auto& row : rows) {
    for (std::size_t column = 0; column < row.size(); ++column) {
      const auto padding = std::string(widths[column] - row[column].size(), ' ');
      if (column > 0) out += "  ";
      if (column >= kFirstNumber && column < kLast) {
        out += padding + row[column];
      } else {
        out += row[column];
        if (column != kLast) out += padding;
      }
    }
    out += "\n";
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
}

void printDisk(const AttrListDisk& disk) {
  auto line = [](const char* label, const std::string& value) {
    std::printf("%-20s %s\n", label, value.c_str());
  };
  auto number = [](const std::optional<std::int64_t>& value) {
    return value ? std::to_string(*value) + " (" + humanBytes(value) + ")" : "-";
  };
  line("mountPoint", disk.mountPoint().path());
  line("name", disk.name().value_or("-"));
  line("userVisibleName", disk.userVisibleName().value_or("-"));
  line("snapshotName", disk.snapshotName().value_or("-"));
  line("fsid", std::to_string(disk.fsid().val[0]) + " " + std::to_string(disk.fsid().val[1]));
  line("devicePath", disk.devicePath());
  line("deviceName", disk.deviceName());
  line("liveDiskDevicePath", disk.liveDiskDevicePath().value_or("-"));
  line("volumeUUID", disk.uuid().value_or("-"));
  line("filesystemTypeName", disk.filesystemTypeName());
  line("capacity", number(disk.capacity()));
  line("bytesUsed", number(disk.bytesUsed()));
  line("bytesFree", number(disk.bytesFree()));
  line("quota", number(disk.quota()));
  char traits[24];
  std::snprintf(traits, sizeof traits, "0x%llx",
                static_cast<unsigned long long>(disk.traits().rawValue()));
  line("traits", std::string(traits) + " " + joined(disk.traits().memberNames()));
}

}  // namespace

// `volumes --service NAME`: the list as the volume service NAME sees it.
int runVolumesThroughService(const std::string& service, bool all, bool json) {
  using volumes_example::VolumeRecord;
  volumes_example::VolumeServiceConnection::serviceName = service;
  std::vector<VolumeRecord> volumes;
  try {
    volumes = runMain([all]() -> Async<std::vector<VolumeRecord>> {
      auto body =
          [all](
              XPCProxy<volumes_example::VolumeProtocol> proxy) -> Async<std::vector<VolumeRecord>> {
        co_return co_await proxy.call(volumes_example::MountedVolumes{}, all);
      };
      co_return co_await withProxy<volumes_example::VolumeServiceConnection>(body);
    });
  } catch (const CancellationError&) {
    std::fprintf(stderr, "carrow: %s: the service is not running or refused the connection\n",
                 service.c_str());
    return 1;
  } catch (...) {
    return reportFailure(service);
  }
  if (json) {
    printJSON(nlohmann::ordered_json::parse(nlohmann::json(volumes).dump()));
  } else {
    printTable(volumes);
  }
  return 0;
}

int runVolumes(Arguments arguments) {
  bool all = false, json = false;
  std::optional<std::string> service;
  for (std::size_t index = 0; index < arguments.size(); ++index) {
    const std::string_view argument = arguments[index];
    if (argument == "--all") {
      all = true;
    } else if (argument == "--json") {
      json = true;
    } else if (argument == "--service") {
      if (index + 1 == arguments.size()) throw UsageError("volumes: --service needs a NAME");
      service = arguments[++index];
    } else {
      throw UsageError("volumes: unexpected argument '" + std::string(argument) + "'");
    }
  }
  if (service) return runVolumesThroughService(*service, all, json);
  std::vector<AttrListDisk> volumes;
  try {
    volumes = AttrListDisk::mountedVolumes();
  } catch (...) {
    return reportFailure("volumes");
  }
  if (!all) {
    std::erase_if(volumes, [](const AttrListDisk& disk) {
      return !disk.traits().contains(CRAttrListDiskTraits::browsable);
    });
  }
  if (json) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const auto& disk : volumes) list.push_back(toJSON(disk));
    printJSON(list);
  } else {
    printTable(volumes);
  }
  return 0;
}

int runVolume(Arguments arguments) {
  std::optional<std::string> path;
  bool json = false;
  for (std::string_view argument : arguments) {
    if (argument == "--json") {
      json = true;
    } else if (!argument.starts_with("-") && !path) {
      path = argument;
    } else {
      throw UsageError("volume: unexpected argument '" + std::string(argument) + "'");
    }
  }
  if (!path) throw UsageError("volume: a mount point is required");
  try {
    const auto disk = AttrListDisk::volume(FileURL::fileURLWithPath(*path, true));
    if (json) {
      printJSON(toJSON(disk));
    } else {
      printDisk(disk);
    }
    return 0;
  } catch (...) {
    return reportFailure(*path);
  }
}

}  // namespace carrow::tool
