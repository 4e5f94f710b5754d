#include <cstdlib>
#include <cxxabi.h>
#include <memory>

#include <carrow/logging/log.h>
#include <carrow/xpc/connection.h>

namespace carrow::detail {

std::string unqualifiedTypeName(const std::type_info& type) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> demangled(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  std::string name = status == 0 && demangled ? demangled.get() : type.name();
  // Cut at the last "::" outside template arguments.
  int angle = 0;
  std::size_t start = 0;
  for (std::size_t index = 0; index < name.size(); ++index) {
    if (name[index] == '<') ++angle;
    if (name[index] == '>') --angle;
    if (angle == 0 && name.compare(index, 2, "::") == 0) start = index + 2;
  }
  return name.substr(start);
}

void throwWrongProxy(const std::type_info& proxyType) {
  CRLog::error("XPC", "Couldn't create XPC proxy of type: " + unqualifiedTypeName(proxyType));
  throw std::system_error(kWrongProxyErrno, std::generic_category());
}

}  // namespace carrow::detail
