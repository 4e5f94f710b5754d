#include "cli.h"

#include <cinttypes>
#include <cstdio>
#include <system_error>

#include <carrow/attributes/attr_list.h>

namespace carrow::tool {

int reportFailure(std::string_view path) {
  std::string message;
  try {
    throw;
  } catch (const AttrList::Error& error) {
    message = error.code().message();
  } catch (const std::system_error& error) {
    message = error.code().message();
  } catch (const std::exception& error) {
    message = error.what();
  }
  std::fprintf(stderr, "carrow: %.*s: %s\n", int(path.size()), path.data(), message.c_str());
  return 1;
}

std::string humanBytes(std::optional<std::int64_t> bytes) {
  if (!bytes) return "-";
  static constexpr const char* kUnits[] = {"K", "M", "G", "T", "P", "E"};
  if (*bytes < 1024) return std::to_string(*bytes) + "B";
  double value = double(*bytes);
  int unit = -1;
  while (value >= 1024 && unit < 5) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  if (value < 10) {
    std::snprintf(text, sizeof text, "%.1f%s", value, kUnits[unit]);
  } else {
    std::snprintf(text, sizeof text, "%.0f%s", value, kUnits[unit]);
  }
  return text;
}

namespace {

nlohmann::ordered_json words(const AttributeSet& set) {
  return {{"commonattr", set.commonattr},
          {"volattr", set.volattr},
          {"dirattr", set.dirattr},
          {"fileattr", set.fileattr},
          {"forkattr", set.forkattr}};
}

}  // namespace

nlohmann::ordered_json toJSON(const AttrValue& value) {
  if (auto* v = value.get<std::string>()) return *v;
  if (auto* v = value.get<std::uint32_t>()) return *v;
  if (auto* v = value.get<std::int32_t>()) return *v;
  if (auto* v = value.get<std::uint64_t>()) return *v;
  if (auto* v = value.get<std::int64_t>()) return *v;
  if (auto* v = value.get<TimeSpec>()) return {{"seconds", v->tv_sec}, {"nanoseconds", v->tv_nsec}};
  if (auto* v = value.get<FSID>()) return {v->val[0], v->val[1]};
  if (auto* v = value.get<FSObjID>()) {
    return {{"fid_objno", v->fid_objno}, {"fid_generation", v->fid_generation}};
  }
  if (auto* v = value.get<UUID>()) return v->uuidString();
  if (auto* v = value.get<GUID>()) return UUID(v->g_guid).uuidString();
  if (auto* v = value.get<AttributeSet>()) return words(*v);
  if (auto* v = value.get<VolAttributes>()) {
    return {{"validattr", words(v->validattr)}, {"nativeattr", words(v->nativeattr)}};
  }
  if (auto* v = value.get<VolCapabilities>()) {
    return {{"capabilities", v->capabilities}, {"valid", v->valid}};
  }
  return value.description();
}

std::string toText(const AttrValue& value) {
  if (auto* v = value.get<std::string>()) return *v;
  if (auto* v = value.get<TimeSpec>()) {
    char text[48];
    std::snprintf(text, sizeof text, "%" PRId64 ".%09" PRId64, v->tv_sec, v->tv_nsec);
    return text;
  }
  if (auto* v = value.get<FSID>())
    return std::to_string(v->val[0]) + " " + std::to_string(v->val[1]);
  if (auto* v = value.get<GUID>()) return UUID(v->g_guid).uuidString();
  return value.description();
}

void printJSON(const nlohmann::ordered_json& json) {
  const std::string text =
      json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
}

}  // namespace carrow::tool
