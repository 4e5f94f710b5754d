#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include <carrow/attributes/attr_value.h>

namespace carrow::tool {

/// Thrown for a command line that does not parse: main prints it with the usage and exits 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The arguments after the command's name.
using Arguments = std::span<char* const>;

/// Reports the exception in flight as "carrow: PATH: message" on stderr; returns exit status 1.
int reportFailure(std::string_view path);

/// 1536 -> "1.5K", 270553174016 -> "252G" (powers of 1024, as df -h prints); none -> "-".
std::string humanBytes(std::optional<std::int64_t> bytes);

/// An attribute value as typed JSON: numbers, text, times as {seconds, nanoseconds}, file-system
/// ids as two numbers, UUIDs as text, attribute sets as objects of their words.
nlohmann::ordered_json toJSON(const AttrValue& value);
/// The same value as one line of text.
std::string toText(const AttrValue& value);

/// Prints JSON on stdout, ill-formed UTF-8 replaced.
void printJSON(const nlohmann::ordered_json& json);

int runVolumes(Arguments arguments);
int runVolume(Arguments arguments);
int runAttrs(Arguments arguments);

}  // namespace carrow::tool
