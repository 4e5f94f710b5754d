#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <tuple>

#include <carrow/xpc/xpc_protocol.h>

namespace carrow {

/// A protocol together with the classes each of its positions may carry (the allow-lists that
/// received messages are checked against). Made from a protocol, every position first allows
/// the classes of its declared type; `setClasses` replaces one position's set.
///
/// A value type. Configure it before handing it to a connection; the connection keeps its own
/// copy.
class XPCInterface {
 public:
  /// The interface of `protocol` with the declared classes; `protocol` must live for the whole
  /// process (the descriptions of `XPCProtocol` types do).
  explicit XPCInterface(const XPCProtocolDescription& protocol);

  /// `XPCInterface(P::description())`.
  template <XPCProtocolType P>
  static XPCInterface withProtocol() {
    return XPCInterface(P::description());
  }

  /// Allows exactly `classes` at position `argumentIndex` (0 = first) of the method `selector`,
  /// or of its reply when `ofReply`. Throws std::invalid_argument for a selector the protocol
  /// lacks or a position it does not have.
  void setClasses(std::set<std::string> classes, std::string_view selector,
                  std::int64_t argumentIndex, bool ofReply);

  /// The classes allowed at a position; null for a position the protocol lacks.
  const std::set<std::string>* classes(std::string_view selector, std::int64_t argumentIndex,
                                       bool ofReply) const;

  const XPCProtocolDescription& protocol() const noexcept { return *protocol_; }

 private:
  using Position = std::tuple<std::string, std::int64_t, bool>;
  const XPCProtocolDescription* protocol_;
  std::map<Position, std::set<std::string>, std::less<>> allowed_;
};

}  // namespace carrow
