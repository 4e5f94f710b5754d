#pragma once

#include <concepts>
#include <functional>
#include <type_traits>

namespace carrow {

/// Names how a value yields the key it is sorted by.
///
/// The default reads two members of the value type: a type `SortKey` and a static `sortKeyPath`,
/// usually a pointer to a data member:
///
///     struct Job {
///       int priority;
///       std::string name;
///       using SortKey = int;
///       static constexpr auto sortKeyPath = &Job::priority;
///     };
///
/// Types that cannot be changed get the same two members from a specialisation of this trait.
template <class Value>
struct SortKeyPath {};

template <class Value>
requires requires {
  typename Value::SortKey;
  Value::sortKeyPath;
}
struct SortKeyPath<Value> {
  using SortKey = typename Value::SortKey;
  static constexpr auto sortKeyPath = Value::sortKeyPath;
};

/// A value that carries its own totally ordered sort key, read through `SortKeyPath<Value>`.
template <class Value>
concept SortKeyPathed = requires(const Value& value) {
  typename SortKeyPath<Value>::SortKey;
  {
    std::invoke(SortKeyPath<Value>::sortKeyPath, value)
    } -> std::convertible_to<const typename SortKeyPath<Value>::SortKey&>;
}
&&std::totally_ordered<typename SortKeyPath<Value>::SortKey>;

/// A value that carries its own sort key, of type `Key`.
template <class Value, class Key>
concept SortKeyedBy =
    SortKeyPathed<Value> && std::same_as<typename SortKeyPath<Value>::SortKey, Key>;

/// The sort key of `value`.
template <SortKeyPathed Value>
decltype(auto) sortKey(const Value& value) {
  return std::invoke(SortKeyPath<Value>::sortKeyPath, value);
}

}  // namespace carrow
