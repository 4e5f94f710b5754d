#pragma once

#include <any>
#include <concepts>
#include <ostream>
#include <sstream>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace carrow {

/// One decoded attribute value of any type, as the result map of an attribute read holds it.
/// It carries its type: `get<T>()` answers the value only when it is exactly a `T`. Values of
/// types with an `operator<<` print as themselves (in log records, for example); others print as
/// their type's name.
///
///     if (auto* size = attributes.at(AttrList::Key::volumeSize).get<std::int64_t>()) ...
class AttrValue {
 public:
  template <class T>
  requires(!std::same_as<std::decay_t<T>, AttrValue>) AttrValue(T&& value)
      : value_(std::forward<T>(value)), describe_(&describeAs<std::decay_t<T>>) {}

  /// The held value when it is a `T`, else null.
  template <class T>
  const T* get() const noexcept {
    return std::any_cast<T>(&value_);
  }
  template <class T>
  bool holds() const noexcept {
    return get<T>() != nullptr;
  }
  const std::type_info& type() const noexcept { return value_.type(); }
  /// The erased value itself.
  const std::any& any() const noexcept { return value_; }

  std::string description() const { return describe_(value_); }
  friend std::ostream& operator<<(std::ostream& out, const AttrValue& value) {
    return out << value.description();
  }

 private:
  template <class T>
  static std::string describeAs(const std::any& value) {
    const T& held = *std::any_cast<T>(&value);
    if constexpr (std::is_same_v<T, std::string>) {
      return "\"" + held + "\"";
    } else if constexpr (std::is_same_v<T, bool>) {
      return held ? "true" : "false";
    } else if constexpr (requires(std::ostream & out) { out << held; }) {
      std::ostringstream out;
      out << held;
      return std::move(out).str();
    } else {
      return typeid(T).name();
    }
  }

  std::any value_;
  std::string (*describe_)(const std::any&);
};

}  // namespace carrow
