#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace carrow {

/// A type that can key a hash table: equality plus `std::hash`.
template <class T>
concept Hashable = std::equality_comparable<T> && requires(const T& value) {
  { std::hash<T>{}(value) } -> std::convertible_to<std::size_t>;
};

/// A type whose values can be written to a `std::ostream`.
template <class T>
concept Printable = requires(std::ostream& out, const T& value) {
  out << value;
};

namespace detail {

/// The interface behind `AnyHashable`: hashing, equality across types, and a printed form.
class HashableValue {
 public:
  virtual ~HashableValue() = default;
  virtual std::size_t hash() const noexcept = 0;
  virtual const std::type_info& type() const noexcept = 0;
  virtual std::string description() const = 0;
  /// An owned, immutable copy of this value (a borrowed value copies what it refers to).
  virtual std::shared_ptr<const HashableValue> retain() const = 0;

  /// The held value, as an object of the type that `type()` names.
  virtual const void* address() const noexcept = 0;

  /// Equal when both hold the same type and the values compare equal by that type's `==`.
  bool equals(const HashableValue& other) const {
    return type() == other.type() && equalsSameType(other.address());
  }

 protected:
  virtual bool equalsSameType(const void* other) const = 0;
};

template <class T>
std::string describe(const T& value) {
  if constexpr (Printable<T>) {
    std::ostringstream out;
    out << value;
    return std::move(out).str();
  } else {
    return typeid(T).name();
  }
}

template <class T>
std::size_t hashOf(const T& value) noexcept {
  // Mixing in the type keeps equal hashes of values of different types apart. `hash_code` hashes
  // the type's name on every call, so it is computed once per type.
  static const std::size_t typeSalt = typeid(T).hash_code() * 0x9e3779b97f4a7c15ULL;
  return std::hash<T>{}(value) ^ typeSalt;
}

/// Text of any string-like type (`std::string`, `std::string_view`, literals) is one key type, so
/// that a record keyed by a literal and one keyed by an equal `std::string` share their count. It
/// is identified as `std::string_view`. `Holder` is `std::string` when owned, `std::string_view`
/// when borrowed.
template <class Holder>
class TextValue final : public HashableValue {
 public:
  explicit TextValue(std::string_view text) : text_(text), view_(text_) {}
  TextValue(const TextValue&) = delete;
  TextValue& operator=(const TextValue&) = delete;

  std::size_t hash() const noexcept override { return hashOf(view_); }
  const std::type_info& type() const noexcept override { return typeid(std::string_view); }
  std::string description() const override { return std::string(view_); }
  std::shared_ptr<const HashableValue> retain() const override {
    return std::make_shared<TextValue<std::string>>(view_);
  }
  const void* address() const noexcept override { return &view_; }

 protected:
  bool equalsSameType(const void* other) const override {
    return view_ == *static_cast<const std::string_view*>(other);
  }

 private:
  Holder text_;
  std::string_view view_;  // Into text_: one representation whichever Holder is used.
};

/// Any other hashable `T`, owned (`Holder = T`) or borrowed (`Holder = const T&`).
template <class T, class Holder>
class ValueOf final : public HashableValue {
 public:
  template <class U>
  explicit ValueOf(U&& value) : value_(std::forward<U>(value)) {}

  std::size_t hash() const noexcept override { return hashOf<T>(value_); }
  const std::type_info& type() const noexcept override { return typeid(T); }
  std::string description() const override { return describe<T>(value_); }
  std::shared_ptr<const HashableValue> retain() const override {
    return std::make_shared<ValueOf<T, T>>(value_);
  }
  const void* address() const noexcept override { return std::addressof(value_); }

 protected:
  bool equalsSameType(const void* other) const override {
    return value_ == *static_cast<const T*>(other);
  }

 private:
  Holder value_;
};

template <class T>
inline constexpr bool kIsText = std::is_convertible_v<const T&, std::string_view>;

/// Views `key` as a `HashableValue` without copying it; the result must not outlive `key`.
template <class K>
auto borrow(const K& key) {
  if constexpr (kIsText<K>) {
    return TextValue<std::string_view>(std::string_view(key));
  } else {
    return ValueOf<K, const K&>(key);
  }
}

}  // namespace detail

/// A type-erased hashable value: any `Hashable` type, compared by its own equality, hashed by its
/// own hash, printable for diagnostics (through `operator<<` when the type has one). All
/// string-like types erase to one text type. Copies share the immutable erased value.
class AnyHashable {
 public:
  template <class T>
  requires(!std::same_as<std::decay_t<T>, AnyHashable>)
      && (detail::kIsText<std::decay_t<T>> || Hashable<std::decay_t<T>>)explicit AnyHashable(
          const T& value)
      : value_(detail::borrow(value).retain()) {}

  /// An owned copy of an erased value, for tables that were looked up with a borrowed one.
  static AnyHashable retaining(const detail::HashableValue& value) {
    return AnyHashable(value.retain());
  }

  /// The erased value's interface, for heterogeneous lookups in hash tables.
  const detail::HashableValue& erased() const noexcept { return *value_; }

  std::size_t hash() const noexcept { return value_->hash(); }
  /// The printed form of the erased value.
  std::string description() const { return value_->description(); }
  const std::type_info& type() const noexcept { return value_->type(); }

  friend bool operator==(const AnyHashable& lhs, const AnyHashable& rhs) {
    return lhs.value_->equals(*rhs.value_);
  }

 private:
  explicit AnyHashable(std::shared_ptr<const detail::HashableValue> value)
      : value_(std::move(value)) {}

  std::shared_ptr<const detail::HashableValue> value_;
};

/// Transparent hash and equality over `AnyHashable` and borrowed `HashableValue`s.
struct AnyHashableHash {
  using is_transparent = void;
  std::size_t operator()(const AnyHashable& key) const noexcept { return key.hash(); }
  std::size_t operator()(const detail::HashableValue& key) const noexcept { return key.hash(); }
};
struct AnyHashableEqual {
  using is_transparent = void;
  static const detail::HashableValue& erased(const AnyHashable& key) { return key.erased(); }
  static const detail::HashableValue& erased(const detail::HashableValue& key) { return key; }
  template <class A, class B>
  bool operator()(const A& lhs, const B& rhs) const {
    return erased(lhs).equals(erased(rhs));
  }
};

}  // namespace carrow

template <>
struct std::hash<carrow::AnyHashable> {
  std::size_t operator()(const carrow::AnyHashable& key) const noexcept { return key.hash(); }
};
