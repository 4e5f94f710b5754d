#pragma once

#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <carrow/runtime/async.h>
#include <carrow/xpc/xpc_connection.h>
#include <carrow/xpc/xpc_protocol.h>

namespace carrow {

/// The remote object of a connection seen through protocol `P`: calls are checked at compile
/// time against `P`'s methods.
///
/// ```
/// std::string echoed = co_await proxy.call(Ping{}, std::string("hello"));
/// ```
///
/// A copyable handle; it keeps its connection alive. Calls may be made from any number of tasks
/// at once; each waits for its own reply (see `XPCConnection::sendCall` for cancellation and
/// errors). A reply value the allow-list refuses fails the call with EACCES.
template <XPCProtocolType P>
class XPCProxy {
 public:
  using Protocol = P;

  explicit XPCProxy(std::shared_ptr<XPCConnection> connection) noexcept
      : connection_(std::move(connection)) {}

  /// Calls `Method` with `arguments` (each converted to the declared argument type).
  template <class Method, class... Arguments>
  Async<typename Method::ReplyType> call(Method, Arguments&&... arguments) const {
    static_assert(P::template hasMethod<Method>, "the method is not part of the protocol");
    static_assert(sizeof...(Arguments) == Method::argumentCount,
                  "the wrong number of arguments for the method");
    return send<Method>(connection_,
                        encode<Method>(static_cast<typename Method::ArgumentTypes*>(nullptr),
                                       std::forward<Arguments>(arguments)...));
  }

  const std::shared_ptr<XPCConnection>& connection() const noexcept { return connection_; }

 private:
  template <class Method, class... Declared, class... Arguments>
  static std::vector<XPCValue> encode(std::tuple<Declared...>*, Arguments&&... arguments) {
    std::vector<XPCValue> values;
    values.reserve(sizeof...(Arguments));
    (values.push_back(encodeXPCValue<std::decay_t<Declared>>(
         std::decay_t<Declared>(std::forward<Arguments>(arguments)))),
     ...);
    return values;
  }

  template <class Method>
  static Async<typename Method::ReplyType> send(std::shared_ptr<XPCConnection> connection,
                                                std::vector<XPCValue> arguments) {
    using Reply = typename Method::ReplyType;
    auto work = XPCConnection::sendCall(std::move(connection), std::string(Method::selector),
                                        std::move(arguments));
    std::vector<XPCValue> reply = co_await std::move(work);
    if constexpr (!std::is_void_v<Reply>) {
      co_return XPCCoding<Reply>::decode(reply.at(0).className, reply.at(0).value);
    }
  }

  std::shared_ptr<XPCConnection> connection_;
};

}  // namespace carrow
