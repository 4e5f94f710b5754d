#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace carrow {

/// One entry of a service description's class table: the classes (wire names, see
/// `xpcClassName`) allowed at one position of a method or of its reply. A regular value type.
struct ArgumentExpectation {
  /// The remote method.
  std::string selector;
  /// The classes allowed; repeats collapse into one set when applied.
  std::vector<std::string> expectedClasses;
  /// The position (0 = first).
  std::int64_t argumentIndex = 0;
  /// True: a value of the reply; false: an argument of the method.
  bool ofReply = false;

  friend bool operator==(const ArgumentExpectation&, const ArgumentExpectation&) = default;
};

}  // namespace carrow
