#pragma once

#include <iterator>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

#include <nlohmann/json.hpp>

#include <carrow/collections/bucketed_set.h>
#include <carrow/collections/case_list.h>
#include <carrow/collections/detail/checked.h>
#include <carrow/collections/detail/coding.h>

namespace carrow {

/// A histogram over the cases of an enumeration: a `BucketedSet` with one bucket per case,
/// addressed by the case's underlying value.
///
/// Writes go through `BucketedSet::setKeepingTotal`, so `store().count()` counts writes and
/// `store().total()` stays zero. The cases' underlying values must run from 0 to the number of
/// cases minus one; another value stops the process when used.
///
/// Encoded as {"store": <the BucketedSet>}.
template <CaseIterable Key, class Total>
class KeyedSet {
 public:
  using RawValue = std::underlying_type_t<Key>;
  using Store = BucketedSet<RawValue, Total>;
  using const_iterator = typename Store::const_iterator;
  using iterator = const_iterator;

  /// One zero bucket per case.
  KeyedSet() : store_(Store::template forCases<Key>()) {}

  const Total& operator[](Key key) const { return store_[rawValue(key)]; }
  void set(Key key, Total amount) { store_.setKeepingTotal(rawValue(key), std::move(amount)); }

  /// Adds one to the bucket of `key`.
  void insert(Key key) {
    set(key, detail::addAmounts((*this)[key], static_cast<Total>(1), __LINE__));
  }

  const Store& store() const noexcept { return store_; }

  /// (underlying value, amount) for every case, in the order of the underlying values.
  const_iterator begin() const noexcept { return store_.begin(); }
  const_iterator end() const noexcept { return store_.end(); }

  /// The store's text, "0:2,1:0,2:1".
  std::string description() const { return store_.description(); }
  friend std::ostream& operator<<(std::ostream& out, const KeyedSet& set) {
    return out << set.description();
  }

  bool operator==(const KeyedSet&) const = default;

  /// Decodes the encoded form; `codingPath` prefixes the field names in errors. Besides the
  /// store's own checks, the store must have one bucket per case and a zero total, as every
  /// `KeyedSet` does; anything else is a `DecodingError` naming the field.
  static KeyedSet fromJson(const nlohmann::json& json, std::string_view codingPath = {}) {
    const std::string storePath = detail::codingPath(codingPath, "store");
    KeyedSet result;
    result.store_ = Store::fromJson(detail::requireField(json, "store", codingPath), storePath);
    const auto cases = std::ssize(CaseList<Key>::allCases);
    if (result.store_.bucketCount() != cases) {
      throw DecodingError(detail::codingPath(storePath, "bucketCount"),
                          "bucket count " + std::to_string(result.store_.bucketCount())
                              + " disagrees with the " + std::to_string(cases)
                              + " cases of the key");
    }
    if (!(result.store_.total() == Total{})) {
      throw DecodingError(detail::codingPath(storePath, "total"),
                          "a keyed set's total is always zero");
    }
    return result;
  }

 private:
  static RawValue rawValue(Key key) noexcept { return static_cast<RawValue>(key); }

  Store store_;
};

template <CaseIterable Key, class Total>
void to_json(nlohmann::json& json, const KeyedSet<Key, Total>& set) {
  json = nlohmann::json{{"store", set.store()}};
}

template <CaseIterable Key, class Total>
void from_json(const nlohmann::json& json, KeyedSet<Key, Total>& set) {
  set = KeyedSet<Key, Total>::fromJson(json);
}

}  // namespace carrow
