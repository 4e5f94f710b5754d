#pragma once

// Compile-time descriptions of remote interfaces. A protocol is written once, as its methods
// (selector, argument types, reply type); the same description types the client's proxy, checks
// the exported object of a service, and yields the runtime description the handshake compares.
//
//   struct Ping : carrow::XPCMethod<"ping:", std::string(std::string)> {};
//   struct Sleep : carrow::XPCMethod<"sleepFor:", void(double)> {};
//   struct Pinger : carrow::XPCProtocol<"Pinger", Ping, Sleep> {};
//
// A reply type of `void` means the call completes without a value (it still waits for the
// service to finish, and receives its error).

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include <carrow/xpc/xpc_class.h>

namespace carrow {

/// A string usable as a template argument: `XPCMethod<"ping:", ...>`.
template <std::size_t N>
struct FixedString {
  // NOLINTNEXTLINE(google-explicit-constructor): the point is to convert a literal.
  constexpr FixedString(const char (&text)[N]) { std::copy_n(text, N, value); }
  constexpr std::string_view view() const { return std::string_view(value, N - 1); }
  char value[N]{};
};

/// One method of a protocol: its selector and signature `Reply(Arguments...)`. Derive a named
/// type from it (the name is the method's tag in calls: `proxy.call(Ping{}, "hello")`).
template <FixedString Selector, class Signature>
struct XPCMethod;

template <FixedString Selector, class Reply, class... Arguments>
struct XPCMethod<Selector, Reply(Arguments...)> {
  static constexpr std::string_view selector = Selector.view();
  using ReplyType = Reply;
  using ArgumentTypes = std::tuple<Arguments...>;
  static constexpr std::size_t argumentCount = sizeof...(Arguments);
};

/// The runtime view of one method: selector and the classes each position may carry.
struct XPCMethodDescription {
  std::string selector;
  std::vector<std::vector<std::string>> argumentClasses;
  /// Empty for a `void` reply, otherwise one position.
  std::vector<std::vector<std::string>> replyClasses;
};

/// The runtime view of a protocol: its name, its methods, and a digest of both that the two
/// ends of a connection compare when they meet. One instance per protocol type lives for the
/// whole process, so its address identifies the protocol.
struct XPCProtocolDescription {
  std::string name;
  std::vector<XPCMethodDescription> methods;
  std::uint64_t digest = 0;

  /// The method with `selector`, or null.
  const XPCMethodDescription* method(std::string_view selector) const noexcept;
};

namespace detail {

std::uint64_t protocolDigest(const XPCProtocolDescription& description);

template <class Method, class... Arguments>
XPCMethodDescription describeMethod(std::tuple<Arguments...>*) {
  XPCMethodDescription method;
  method.selector = std::string(Method::selector);
  (method.argumentClasses.push_back(xpcClasses<std::decay_t<Arguments>>()), ...);
  if constexpr (!std::is_void_v<typename Method::ReplyType>) {
    method.replyClasses.push_back(xpcClasses<typename Method::ReplyType>());
  }
  return method;
}

}  // namespace detail

/// A protocol: a name and its methods. Derive a named type from it.
template <FixedString Name, class... Methods>
struct XPCProtocol {
  static constexpr std::string_view protocolName = Name.view();
  using MethodTypes = std::tuple<Methods...>;

  /// True when `Method` is one of the protocol's methods.
  template <class Method>
  static constexpr bool hasMethod = (std::is_same_v<Method, Methods> || ...);

  /// The runtime description (made once).
  static const XPCProtocolDescription& description() {
    static const XPCProtocolDescription made = [] {
      XPCProtocolDescription description;
      description.name = std::string(Name.view());
      (description.methods.push_back(
           detail::describeMethod<Methods>(static_cast<typename Methods::ArgumentTypes*>(nullptr))),
       ...);
      description.digest = detail::protocolDigest(description);
      return description;
    }();
    return made;
  }
};

/// A type made with `XPCProtocol`.
template <class P>
concept XPCProtocolType = requires {
  { P::protocolName } -> std::convertible_to<std::string_view>;
  { P::description() } -> std::same_as<const XPCProtocolDescription&>;
};

}  // namespace carrow
