#include <cstdio>
#include <string>

#include <carrow/runtime/continuation.h>

namespace carrow::detail {

void reportLeakedContinuation(const std::string& name) noexcept {
  std::fprintf(stderr,
               "CarrowPrivate/Runtime: continuation '%s' was destroyed without being resumed; "
               "the task waiting on it will never continue\n",
               name.c_str());
}

void reportResumedTwice(const std::string& name) noexcept {
  const std::string message = "continuation '" + name + "' was resumed more than once";
  runtimeFatal(__LINE__, message.c_str());
}

}  // namespace carrow::detail
