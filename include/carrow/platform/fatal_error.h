#pragma once

#include <cstdint>
#include <string_view>

namespace carrow {

/// Stops the process after printing "<label>:<line>: Fatal error: <message>" to stderr.
///
/// This is the library's counterpart of a runtime trap: it is reserved for broken invariants and
/// for the conditions the library documents as process stops (logging before a logger is
/// installed, arithmetic overflow, positions out of range). `label` names the source family, for
/// example "CarrowPrivate/Locks".
[[noreturn]] void fatalError(std::string_view label, std::uint64_t line, std::string_view message);

/// Adds two integers, stopping the process on overflow as checked arithmetic does elsewhere.
template <class Int>
constexpr Int checkedAdd(Int lhs, Int rhs, std::string_view label, std::uint64_t line) {
  Int sum{};
  if (__builtin_add_overflow(lhs, rhs, &sum)) fatalError(label, line, "arithmetic overflow");
  return sum;
}

}  // namespace carrow
