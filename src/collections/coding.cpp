#include <string>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include <carrow/collections/decoding_error.h>
#include <carrow/collections/detail/coding.h>

namespace carrow {

namespace {

std::string describeFailure(const std::string& codingPath, const std::string& reason) {
  if (codingPath.empty()) return "Cannot decode: " + reason;
  return "Cannot decode \"" + codingPath + "\": " + reason;
}

}  // namespace

DecodingError::DecodingError(std::string codingPath, const std::string& reason)
    : std::runtime_error(describeFailure(codingPath, reason)), codingPath_(std::move(codingPath)) {}

namespace detail {

std::string codingPath(std::string_view parent, std::string_view key) {
  std::string path(parent);
  if (!path.empty()) path += '.';
  path += key;
  return path;
}

const nlohmann::json& requireField(const nlohmann::json& object, std::string_view key,
                                   std::string_view parentPath) {
  if (!object.is_object()) throwTypeMismatch(object, "an object", std::string(parentPath));
  auto found = object.find(std::string(key));
  if (found == object.end()) throw DecodingError(codingPath(parentPath, key), "key not found");
  return *found;
}

void throwTypeMismatch(const nlohmann::json& value, std::string_view expected,
                       const std::string& path) {
  throw DecodingError(path, "expected " + std::string(expected) + ", found " + value.type_name());
}

}  // namespace detail
}  // namespace carrow
