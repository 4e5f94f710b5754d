#pragma once

// How values travel in XPC messages. Every argument and reply value is sent with the name of its
// "class" (its wire name) so that the receiver can check it against an allow-list before
// anything of it is decoded.

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

namespace carrow {

/// The coding of one argument type. Built in: `bool` ("Bool"), integers ("Int"), floating point
/// ("Double"), `std::string` ("String"), `std::vector<std::uint8_t>` ("Data"), `std::vector<T>`
/// ("Array"), and `std::variant<A, B, ...>`, which carries the class of the alternative it holds.
///
/// A type of one's own is an XPC class when it names itself and converts to and from JSON
/// (nlohmann's `to_json`/`from_json`, found by argument-dependent lookup):
///
/// ```
/// struct Volume {
///   static constexpr std::string_view xpcClassName = "Volume";
///   std::string path;
/// };
/// NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Volume, path)
/// ```
///
/// Requirements of a specialisation: `classes()` (every class it may carry: the default
/// allow-list), `classOf(value)`, `encode(value)`, `decode(className, json)`; `decode` is only
/// called with a class the allow-list admitted and may throw on a value of the wrong shape.
template <class T, class = void>
struct XPCCoding;

namespace detail {

template <class T>
struct NamedXPCCoding {
  static std::vector<std::string> classes() { return {std::string(T::xpcClassName)}; }
  static std::string_view classOf(const T&) { return T::xpcClassName; }
  static nlohmann::json encode(const T& value) { return nlohmann::json(value); }
  static T decode(std::string_view, const nlohmann::json& json) { return json.get<T>(); }
};

}  // namespace detail

template <class T>
struct XPCCoding<T, std::void_t<decltype(T::xpcClassName)>> : detail::NamedXPCCoding<T> {};

template <>
struct XPCCoding<bool> {
  static std::vector<std::string> classes() { return {"Bool"}; }
  static std::string_view classOf(bool) { return "Bool"; }
  static nlohmann::json encode(bool value) { return value; }
  static bool decode(std::string_view, const nlohmann::json& json) { return json.get<bool>(); }
};

template <class T>
struct XPCCoding<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>> {
  static std::vector<std::string> classes() { return {"Int"}; }
  static std::string_view classOf(T) { return "Int"; }
  static nlohmann::json encode(T value) { return value; }
  static T decode(std::string_view, const nlohmann::json& json) {
    // Refuse a number that does not fit instead of wrapping it.
    if (!json.is_number_integer())
      throw nlohmann::json::type_error::create(302, "not an integer", &json);
    if constexpr (std::is_signed_v<T>) {
      const auto wide = json.get<std::int64_t>();
      if (json.is_number_unsigned()
          && json.get<std::uint64_t>()
                 > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        throw nlohmann::json::out_of_range::create(406, "integer out of range", &json);
      }
      if (wide < static_cast<std::int64_t>(std::numeric_limits<T>::min())
          || wide > static_cast<std::int64_t>(std::numeric_limits<T>::max())) {
        throw nlohmann::json::out_of_range::create(406, "integer out of range", &json);
      }
      return static_cast<T>(wide);
    } else {
      if (!json.is_number_unsigned())
        throw nlohmann::json::out_of_range::create(406, "negative integer", &json);
      const auto wide = json.get<std::uint64_t>();
      if (wide > static_cast<std::uint64_t>(std::numeric_limits<T>::max())) {
        throw nlohmann::json::out_of_range::create(406, "integer out of range", &json);
      }
      return static_cast<T>(wide);
    }
  }
};

template <class T>
struct XPCCoding<T, std::enable_if_t<std::is_floating_point_v<T>>> {
  static std::vector<std::string> classes() { return {"Double"}; }
  static std::string_view classOf(T) { return "Double"; }
  static nlohmann::json encode(T value) { return static_cast<double>(value); }
  static T decode(std::string_view, const nlohmann::json& json) {
    if (!json.is_number()) throw nlohmann::json::type_error::create(302, "not a number", &json);
    return static_cast<T>(json.get<double>());
  }
};

template <>
struct XPCCoding<std::string> {
  static std::vector<std::string> classes() { return {"String"}; }
  static std::string_view classOf(const std::string&) { return "String"; }
  static nlohmann::json encode(const std::string& value) { return value; }
  static std::string decode(std::string_view, const nlohmann::json& json) {
    return json.get<std::string>();
  }
};

template <>
struct XPCCoding<std::vector<std::uint8_t>> {
  static std::vector<std::string> classes() { return {"Data"}; }
  static std::string_view classOf(const std::vector<std::uint8_t>&) { return "Data"; }
  static nlohmann::json encode(const std::vector<std::uint8_t>& value) {
    return nlohmann::json::binary(value);
  }
  static std::vector<std::uint8_t> decode(std::string_view, const nlohmann::json& json) {
    return json.get_binary();
  }
};

template <class T>
struct XPCCoding<std::vector<T>, std::enable_if_t<!std::is_same_v<T, std::uint8_t>>> {
  static std::vector<std::string> classes() { return {"Array"}; }
  static std::string_view classOf(const std::vector<T>&) { return "Array"; }
  static nlohmann::json encode(const std::vector<T>& values) {
    nlohmann::json array = nlohmann::json::array();
    for (const T& value : values) {
      array.push_back(nlohmann::json::array(
          {std::string(XPCCoding<T>::classOf(value)), XPCCoding<T>::encode(value)}));
    }
    return array;
  }
  static std::vector<T> decode(std::string_view, const nlohmann::json& json) {
    std::vector<T> values;
    values.reserve(json.size());
    const auto allowed = XPCCoding<T>::classes();
    for (const auto& element : json) {
      // Elements carry their class too; one outside the element type's classes is refused
      // before it is decoded.
      const auto& name = element.at(0).get_ref<const std::string&>();
      if (std::find(allowed.begin(), allowed.end(), name) == allowed.end()) {
        throw nlohmann::json::other_error::create(501, "element class " + name + " not allowed",
                                                  &element);
      }
      values.push_back(XPCCoding<T>::decode(name, element.at(1)));
    }
    return values;
  }
};

template <class... Alternatives>
struct XPCCoding<std::variant<Alternatives...>> {
  using Variant = std::variant<Alternatives...>;
  static std::vector<std::string> classes() {
    std::vector<std::string> all;
    (appendAll(all, XPCCoding<Alternatives>::classes()), ...);
    return all;
  }
  static std::string_view classOf(const Variant& value) {
    return std::visit(
        [](const auto& held) { return XPCCoding<std::decay_t<decltype(held)>>::classOf(held); },
        value);
  }
  static nlohmann::json encode(const Variant& value) {
    return std::visit(
        [](const auto& held) { return XPCCoding<std::decay_t<decltype(held)>>::encode(held); },
        value);
  }
  static Variant decode(std::string_view className, const nlohmann::json& json) {
    std::optional<Variant> decoded;
    (tryDecode<Alternatives>(decoded, className, json) || ...);
    if (!decoded) {
      throw nlohmann::json::other_error::create(
          501, "no alternative of class " + std::string(className), &json);
    }
    return std::move(*decoded);
  }

 private:
  static void appendAll(std::vector<std::string>& all, std::vector<std::string> more) {
    for (auto& name : more) {
      if (std::find(all.begin(), all.end(), name) == all.end()) all.push_back(std::move(name));
    }
  }
  template <class A>
  static bool tryDecode(std::optional<Variant>& decoded, std::string_view className,
                        const nlohmann::json& json) {
    const auto names = XPCCoding<A>::classes();
    if (std::find(names.begin(), names.end(), className) == names.end()) return false;
    decoded.emplace(std::in_place_type<A>, XPCCoding<A>::decode(className, json));
    return true;
  }
};

/// One value as it travels: its class and its encoded form.
struct XPCValue {
  std::string className;
  nlohmann::json value;
};

/// Encodes `value` with its class.
template <class T>
XPCValue encodeXPCValue(const T& value) {
  return XPCValue{std::string(XPCCoding<T>::classOf(value)), XPCCoding<T>::encode(value)};
}

/// The classes a value of `T` may carry: the allow-list of a position declared as `T`.
template <class T>
std::vector<std::string> xpcClasses() {
  return XPCCoding<T>::classes();
}

/// The wire name of a type that carries exactly one class (for example a type with
/// `xpcClassName`), for `ArgumentExpectation::expectedClasses`.
template <class T>
std::string xpcClassName() {
  auto names = XPCCoding<T>::classes();
  return names.empty() ? std::string() : names.front();
}

}  // namespace carrow
