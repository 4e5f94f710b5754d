#pragma once

#include <concepts>
#include <cstddef>
#include <new>
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
/// Like `std::any`, but values of up to 40 bytes (every kernel structure a reply holds, and
/// `std::string`) are stored inline, so that decoding a reply allocates only for long texts.
///
///     if (auto* size = attributes.at(AttrList::Key::volumeSize).get<std::int64_t>()) ...
class AttrValue {
 public:
  template <class T>
  requires(!std::same_as<std::decay_t<T>, AttrValue>) AttrValue(T&& value)  // NOLINT: implicit
      : ops_(&opsOf<std::decay_t<T>>) {
    using Held = std::decay_t<T>;
    if constexpr (kInline<Held>) {
      ::new (static_cast<void*>(storage_)) Held(std::forward<T>(value));
    } else {
      ::new (static_cast<void*>(storage_)) Held*(new Held(std::forward<T>(value)));
    }
  }

  AttrValue(const AttrValue& other) : ops_(other.ops_) { ops_->copy(storage_, other.storage_); }
  AttrValue(AttrValue&& other) noexcept : ops_(other.ops_) { ops_->move(storage_, other.storage_); }
  AttrValue& operator=(const AttrValue& other) {
    if (this != &other) *this = AttrValue(other);
    return *this;
  }
  AttrValue& operator=(AttrValue&& other) noexcept {
    if (this != &other) {
      ops_->destroy(storage_);
      ops_ = other.ops_;
      ops_->move(storage_, other.storage_);
    }
    return *this;
  }
  ~AttrValue() { ops_->destroy(storage_); }

  /// The held value when it is a `T`, else null.
  template <class T>
  const T* get() const noexcept {
    if (ops_ != &opsOf<T> && ops_->type != typeid(T)) return nullptr;
    return static_cast<const T*>(ops_->address(storage_));
  }
  template <class T>
  bool holds() const noexcept {
    return get<T>() != nullptr;
  }
  const std::type_info& type() const noexcept { return ops_->type; }

  std::string description() const { return ops_->describe(ops_->address(storage_)); }
  friend std::ostream& operator<<(std::ostream& out, const AttrValue& value) {
    return out << value.description();
  }

 private:
  static constexpr std::size_t kInlineSize = 40;

  template <class T>
  static constexpr bool kInline = sizeof(T) <= kInlineSize
                                  && alignof(T) <= alignof(std::max_align_t)
                                  && std::is_nothrow_move_constructible_v<T>;

  // What the erased value can do; one table per type. A moved-from value is destroyed by its
  // own table, so `move` leaves `from` destructible.
  struct Ops {
    const std::type_info& type;
    void (*copy)(void* to, const void* from);
    void (*move)(void* to, void* from) noexcept;
    void (*destroy)(void* storage) noexcept;
    const void* (*address)(const void* storage) noexcept;
    std::string (*describe)(const void* value);
  };

  template <class T>
  static std::string describeAs(const void* erased) {
    const T& held = *static_cast<const T*>(erased);
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

  template <class T>
  static constexpr Ops makeOps() {
    if constexpr (kInline<T>) {
      return Ops{
          typeid(T),
          [](void* to, const void* from) { ::new (to) T(*static_cast<const T*>(from)); },
          [](void* to, void* from) noexcept { ::new (to) T(std::move(*static_cast<T*>(from))); },
          [](void* storage) noexcept { static_cast<T*>(storage)->~T(); },
          [](const void* storage) noexcept { return storage; },
          &describeAs<T>,
      };
    } else {
      return Ops{
          typeid(T),
          [](void* to, const void* from) { ::new (to) T*(new T(**static_cast<T* const*>(from))); },
          [](void* to, void* from) noexcept {
            ::new (to) T*(std::exchange(*static_cast<T**>(from), nullptr));
          },
          [](void* storage) noexcept { delete *static_cast<T**>(storage); },
          [](const void* storage) noexcept -> const void* {
            return *static_cast<T* const*>(storage);
          },
          &describeAs<T>,
      };
    }
  }

  template <class T>
  static constexpr Ops opsOf = makeOps<T>();

  const Ops* ops_;
  alignas(std::max_align_t) unsigned char storage_[kInlineSize];
};

}  // namespace carrow
