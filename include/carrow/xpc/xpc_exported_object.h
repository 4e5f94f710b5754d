#pragma once

#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <carrow/runtime/async.h>
#include <carrow/xpc/xpc_protocol.h>

namespace carrow {

/// An exported object as a connection sees it: one entry point that serves a call by selector.
/// Made by `exportObject`; the connection runs `invoke` in a task on its serial executor.
class XPCExportedObject {
 public:
  virtual ~XPCExportedObject() = default;
  /// The protocol served.
  virtual const XPCProtocolDescription& protocol() const noexcept = 0;
  /// Decodes `arguments` (already checked against the allow-lists), runs the method, and
  /// encodes its reply (none for a void reply). Throws the method's error.
  virtual Async<std::vector<XPCValue>> invoke(std::string selector,
                                              std::vector<XPCValue> arguments) = 0;
};

/// True when `Object` serves `Method`: `object.serve(Method{}, arguments...)` returns
/// `Async<Reply>`.
template <class Object, class Method, class Arguments = typename Method::ArgumentTypes>
struct ServesMethod;
template <class Object, class Method, class... Arguments>
    struct ServesMethod<Object, Method, std::tuple<Arguments...>>
    : std::bool_constant < requires(Object& object, Arguments... arguments) {
  {
    object.serve(Method{}, std::move(arguments)...)
    } -> std::same_as<Async<typename Method::ReplyType>>;
} > {};

/// An object that serves every method of protocol `P` through `serve` overloads:
///
/// ```
/// class PingService {
///  public:
///    Async<std::string> serve(Ping, std::string text) { co_return text; }
///    Async<void> serve(Sleep, double seconds) { ... }
/// };
/// ```
template <class Object, class P>
concept XPCExports = []<class... Methods>(std::tuple<Methods...>*) {
  return (ServesMethod<Object, Methods>::value && ...);
}(static_cast<typename P::MethodTypes*>(nullptr));

namespace detail {

template <class T>
T decodeXPCValue(const XPCValue& value) {
  return XPCCoding<T>::decode(value.className, value.value);
}

template <XPCProtocolType P, class Object>
class ExportedObject final : public XPCExportedObject {
 public:
  explicit ExportedObject(std::shared_ptr<Object> object) : object_(std::move(object)) {}

  const XPCProtocolDescription& protocol() const noexcept override { return P::description(); }

  Async<std::vector<XPCValue>> invoke(std::string selector,
                                      std::vector<XPCValue> arguments) override {
    std::optional<Async<std::vector<XPCValue>>> work;
    auto pick = [&]<class... Methods>(std::tuple<Methods...>*) {
      (void)((Methods::selector == selector
              && (work.emplace(invokeMethod<Methods>(object_, std::move(arguments))), true))
             || ...);
    };
    pick(static_cast<typename P::MethodTypes*>(nullptr));
    if (!work) return unknownMethod();
    return std::move(*work);
  }

 private:
  static Async<std::vector<XPCValue>> unknownMethod() {
    throw std::system_error(std::make_error_code(std::errc::function_not_supported));
    co_return {};
  }

  template <class Method>
  static Async<std::vector<XPCValue>> invokeMethod(std::shared_ptr<Object> object,
                                                   std::vector<XPCValue> arguments) {
    auto decoded =
        decodeArguments<Method>(arguments, static_cast<typename Method::ArgumentTypes*>(nullptr));
    auto call = [&object](auto&... values) {
      return object->serve(Method{}, std::move(values)...);
    };
    auto work = std::apply(call, decoded);
    using Reply = typename Method::ReplyType;
    if constexpr (std::is_void_v<Reply>) {
      co_await std::move(work);
      co_return std::vector<XPCValue>{};
    } else {
      Reply reply = co_await std::move(work);
      std::vector<XPCValue> encoded;
      encoded.push_back(encodeXPCValue(reply));
      co_return encoded;
    }
  }

  template <class Method, class... Arguments>
  static std::tuple<std::decay_t<Arguments>...> decodeArguments(
      const std::vector<XPCValue>& arguments, std::tuple<Arguments...>*) {
    return [&]<std::size_t... I>(std::index_sequence<I...>) {
      return std::tuple<std::decay_t<Arguments>...>(
          decodeXPCValue<std::decay_t<Arguments>>(arguments.at(I))...);
    }
    (std::index_sequence_for<Arguments...>{});
  }

  std::shared_ptr<Object> object_;
};

}  // namespace detail

/// Wraps `object` for export under protocol `P`; checked at compile time to serve every method.
/// The wrapper holds `object` strongly; the connection drops the wrapper when it is invalidated.
template <XPCProtocolType P, class Object>
requires XPCExports<Object, P> std::shared_ptr<XPCExportedObject> exportObject(
    std::shared_ptr<Object> object) {
  return std::make_shared<detail::ExportedObject<P, Object>>(std::move(object));
}

}  // namespace carrow
