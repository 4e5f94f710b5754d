#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include <carrow/collections/decoding_error.h>

// Strict readers for the encoded forms of the counting collections: every failure becomes a
// `DecodingError` that names the field, and integers must fit their type instead of wrapping.

namespace carrow::detail {

/// "parent.key", or "key" at the top level.
std::string codingPath(std::string_view parent, std::string_view key);

/// The member `key` of `object`; throws when `object` is not an object or lacks the key.
const nlohmann::json& requireField(const nlohmann::json& object, std::string_view key,
                                   std::string_view parentPath);

/// Throws the error for a field whose JSON type is not the expected one.
[[noreturn]] void throwTypeMismatch(const nlohmann::json& value, std::string_view expected,
                                    const std::string& path);

template <class T>
T decodeValue(const nlohmann::json& value, const std::string& path);

template <std::integral T>
T decodeInteger(const nlohmann::json& value, const std::string& path) {
  if (value.is_number_unsigned()) {
    auto raw = value.get<std::uint64_t>();
    if (std::in_range<T>(raw)) return static_cast<T>(raw);
  } else if (value.is_number_integer()) {
    auto raw = value.get<std::int64_t>();
    if (std::in_range<T>(raw)) return static_cast<T>(raw);
  } else {
    throwTypeMismatch(value, "an integer", path);
  }
  throw DecodingError(path, "integer " + value.dump() + " is out of range");
}

template <class T>
std::vector<T> decodeArray(const nlohmann::json& value, const std::string& path) {
  if (!value.is_array()) throwTypeMismatch(value, "an array", path);
  std::vector<T> result;
  result.reserve(value.size());
  for (std::size_t i = 0; i < value.size(); ++i) {
    result.push_back(decodeValue<T>(value[i], path + "[" + std::to_string(i) + "]"));
  }
  return result;
}

template <class T>
T decodeValue(const nlohmann::json& value, const std::string& path) {
  if constexpr (std::integral<T> && !std::same_as<T, bool>) {
    return decodeInteger<T>(value, path);
  } else if constexpr (std::floating_point<T>) {
    if (!value.is_number()) throwTypeMismatch(value, "a number", path);
    return value.get<T>();
  } else {
    try {
      return value.get<T>();
    } catch (const nlohmann::json::exception& error) {
      throw DecodingError(path, error.what());
    }
  }
}

/// The member `key` of `object`, decoded as `T`.
template <class T>
T decodeField(const nlohmann::json& object, std::string_view key, std::string_view parentPath) {
  return decodeValue<T>(requireField(object, key, parentPath), codingPath(parentPath, key));
}

/// The member `key` of `object`, decoded as an array of `T`.
template <class T>
std::vector<T> decodeArrayField(const nlohmann::json& object, std::string_view key,
                                std::string_view parentPath) {
  return decodeArray<T>(requireField(object, key, parentPath), codingPath(parentPath, key));
}

}  // namespace carrow::detail
