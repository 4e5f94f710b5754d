#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <ranges>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <carrow/collections/detail/checked.h>
#include <carrow/collections/detail/value_iterator.h>
#include <carrow/collections/sort_key_path.h>

namespace carrow {

namespace detail {
template <class Range, class Element>
concept RangeOf =
    std::ranges::input_range<Range> && std::convertible_to<std::ranges::range_reference_t<Range>,
                                                           Element>;

// Keeps a constructor template from standing in for the copy constructor.
template <class T, class Self>
concept NotSame = !std::same_as<std::remove_cvref_t<T>, Self>;
}  // namespace detail

/// A map kept as one contiguous array of (key, value) entries sorted by key.
///
/// Lookups are binary searches; inserting or removing by key shifts the tail of the array. Besides
/// the keyed operations the dictionary is a random-access range of its *values* in key order,
/// indexed by plain integers from 0 to `count()`. Positional writes (`d[i] = v`, or any algorithm
/// writing through the iterators) replace the value at a position and never move keys, so
/// `std::sort(d.begin(), d.end())` reorders the values among the fixed keys.
///
/// The order is fixed at construction: every constructor without a `Direction` argument, the
/// default one included, produces a `descending` dictionary. Constructors add their elements one
/// at a time through `setValue`, so among equal keys the last one wins. Copies are independent
/// values. A position outside the bounds stops the process; unknown keys never do.
template <std::totally_ordered Key, class Value>
class SortedDictionary {
  struct Entry {
    Key key;
    Value value;
    bool operator==(const Entry&) const = default;
  };

 public:
  using key_type = Key;
  using value_type = Value;
  using size_type = std::size_t;
  using difference_type = std::ptrdiff_t;
  using reference = Value&;
  using const_reference = const Value&;
  using iterator = detail::ValueIterator<Entry, false>;
  using const_iterator = detail::ValueIterator<Entry, true>;

  /// The order of the entries.
  enum class Direction : std::uint8_t { ascending, descending };

  /// Where a binary search ended. `match`: the entry at `position` has the key. `indexBefore`:
  /// the key belongs just before the entry at `position`. `indexAfter`: just after it.
  struct Find {
    enum class Kind : std::uint8_t { match, indexBefore, indexAfter };
    Kind kind;
    std::ptrdiff_t position;

    static constexpr Find match(std::ptrdiff_t i) noexcept { return {Kind::match, i}; }
    static constexpr Find indexBefore(std::ptrdiff_t i) noexcept { return {Kind::indexBefore, i}; }
    static constexpr Find indexAfter(std::ptrdiff_t i) noexcept { return {Kind::indexAfter, i}; }

    /// The position at which an absent key would be inserted (or the match's own position).
    constexpr std::ptrdiff_t insertionPosition() const noexcept {
      return kind == Kind::indexAfter ? position + 1 : position;
    }
    constexpr bool operator==(const Find&) const = default;
  };

  /// A view of the positions lower ..< upper. It shares positions with the dictionary:
  /// `slice[i]` is `dictionary[i]`, valid for i in startIndex() ..< endIndex().
  template <bool Const>
  class BasicSlice {
    using Dictionary = std::conditional_t<Const, const SortedDictionary, SortedDictionary>;

   public:
    BasicSlice(Dictionary& base, std::ptrdiff_t lower, std::ptrdiff_t upper) noexcept
        : base_(&base), lower_(lower), upper_(upper) {}

    std::ptrdiff_t startIndex() const noexcept { return lower_; }
    std::ptrdiff_t endIndex() const noexcept { return upper_; }
    std::ptrdiff_t count() const noexcept { return upper_ - lower_; }
    bool empty() const noexcept { return lower_ == upper_; }

    decltype(auto) operator[](std::ptrdiff_t position) const {
      if (position < lower_ || position >= upper_) {
        fatalError(detail::kCollectionsLabel, __LINE__, "Index out of range");
      }
      return (*base_)[position];
    }
    auto begin() const noexcept { return base_->begin() + lower_; }
    auto end() const noexcept { return base_->begin() + upper_; }

   private:
    Dictionary* base_;
    std::ptrdiff_t lower_;
    std::ptrdiff_t upper_;
  };
  using Slice = BasicSlice<true>;
  using MutableSlice = BasicSlice<false>;

  // Construction.

  // Whether a dictionary can be built from keys alone: each key is its own value, or the values
  // are empty (a sorted set).
  static constexpr bool kValuesAreKeys = std::same_as<Key, Value> || std::is_empty_v<Value>;

  /// An empty, descending dictionary.
  SortedDictionary() noexcept = default;

  /// An empty dictionary in the given order.
  explicit SortedDictionary(Direction direction) noexcept : direction_(direction) {}

  /// Values that carry their own keys (see `SortKeyPathed`), each stored under its sort key.
  template <detail::RangeOf<Value> Values>
  requires SortKeyedBy<Value, Key> SortedDictionary(Values&& values, Direction direction)
      : direction_(direction) {
    for (auto&& value : values) addSortKeyed(std::forward<decltype(value)>(value));
  }

  /// (key, value) pairs, in a descending dictionary: `{{1, "one"}, {2, "two"}}`.
  SortedDictionary(std::initializer_list<std::pair<Key, Value>> pairs) {
    for (const auto& [key, value] : pairs) setValue(key, value);
  }

  /// Values that carry their own keys, in a descending dictionary.
  SortedDictionary(std::initializer_list<Value> values) requires SortKeyedBy<Value, Key> {
    for (const auto& value : values) addSortKeyed(value);
  }

  /// Keys, in a descending dictionary. When `Value` is `Key`, each element is its own key and
  /// value; when `Value` is an empty type, this builds a sorted set.
  template <detail::RangeOf<Key> Keys>
  requires kValuesAreKeys && detail::NotSame<Keys, SortedDictionary>
  explicit SortedDictionary(Keys&& keys) {
    for (auto&& key : keys) addKey(std::forward<decltype(key)>(key));
  }

  /// Keys, in a descending dictionary (see the range constructor above).
  SortedDictionary(std::initializer_list<Key> keys) requires kValuesAreKeys {
    for (const auto& key : keys) addKey(key);
  }

  // Keyed access.

  /// The binary search behind every keyed operation: about log2(n) order tests and one equality
  /// test. On a miss, the position names the entry the key would sit next to.
  Find find(const Key& key) const {
    return direction_ == Direction::ascending ? findIn<true>(key) : findIn<false>(key);
  }

  /// A copy of the value stored under `key`, or nullopt.
  std::optional<Value> value(const Key& key) const {
    Find found = find(key);
    if (found.kind != Find::Kind::match) return std::nullopt;
    return inner_[static_cast<std::size_t>(found.position)].value;
  }

  /// As above; an absent key reads as absent without a search.
  std::optional<Value> value(const std::same_as<std::optional<Key>> auto& key) const {
    if (!key) return std::nullopt;
    return value(*key);
  }

  /// True when an entry has `key`.
  bool contains(const Key& key) const { return find(key).kind == Find::Kind::match; }

  /// Stores `newValue` under `key`, inserting at its sorted position or replacing the entry with
  /// an equal key (key and value both). nullopt removes the entry; removing an unknown key does
  /// nothing.
  void setValue(Key key, std::optional<Value> newValue) {
    Find found = find(key);
    if (!newValue) {
      if (found.kind == Find::Kind::match) removeAt(found.position);
      return;
    }
    if (found.kind == Find::Kind::match) {
      inner_[static_cast<std::size_t>(found.position)] =
          Entry{std::move(key), std::move(*newValue)};
    } else {
      inner_.insert(inner_.begin() + found.insertionPosition(),
                    Entry{std::move(key), std::move(*newValue)});
    }
  }

  /// Removes the entry with `key`; returns whether there was one.
  bool removeValue(const Key& key) {
    Find found = find(key);
    if (found.kind != Find::Kind::match) return false;
    removeAt(found.position);
    return true;
  }

  /// Adds `key` to a sorted set (a dictionary whose values are an empty type).
  void insert(Key key) requires std::is_empty_v<Value> && std::default_initializable<Value> {
    setValue(std::move(key), Value{});
  }

  /// Hands the current value (or nullopt) to `change` and stores what it leaves there through
  /// `setValue`, also when `change` exits by throwing.
  template <std::invocable<std::optional<Value>&> Change>
  void modifyValue(const Key& key, Change&& change) {
    std::optional<Value> current = value(key);
    try {
      std::invoke(change, current);
    } catch (...) {
      setValue(key, std::move(current));
      throw;
    }
    setValue(key, std::move(current));
  }

  /// The position of the entry with `key`, or nullopt.
  std::optional<std::ptrdiff_t> index(const Key& key) const {
    Find found = find(key);
    if (found.kind != Find::Kind::match) return std::nullopt;
    return found.position;
  }

  std::optional<Key> firstKey() const {
    return inner_.empty() ? std::nullopt : std::optional<Key>(inner_.front().key);
  }
  std::optional<Key> lastKey() const {
    return inner_.empty() ? std::nullopt : std::optional<Key>(inner_.back().key);
  }
  std::optional<Value> firstValue() const {
    return inner_.empty() ? std::nullopt : std::optional<Value>(inner_.front().value);
  }
  std::optional<Value> lastValue() const {
    return inner_.empty() ? std::nullopt : std::optional<Value>(inner_.back().value);
  }

  /// All keys, in the dictionary's order.
  std::vector<Key> keys() const {
    std::vector<Key> result;
    result.reserve(inner_.size());
    for (const Entry& entry : inner_) result.push_back(entry.key);
    return result;
  }

  /// All values, in the dictionary's order.
  std::vector<Value> values() const { return std::vector<Value>(begin(), end()); }

  // Positional access.

  /// The value at `position`; a position outside 0 ..< count() stops the process. Writing
  /// through the reference replaces the value and keeps the key.
  Value& operator[](std::ptrdiff_t position) { return checkedEntry(position).value; }
  const Value& operator[](std::ptrdiff_t position) const { return checkedEntry(position).value; }

  /// The key at `position`, checked like `operator[]`.
  const Key& keyAt(std::ptrdiff_t position) const { return checkedEntry(position).key; }

  /// The positions lower ..< upper; lower > upper or an end outside 0 ... count() stops the
  /// process.
  Slice slice(std::ptrdiff_t lower, std::ptrdiff_t upper) const {
    checkRange(lower, upper);
    return Slice(*this, lower, upper);
  }
  MutableSlice slice(std::ptrdiff_t lower, std::ptrdiff_t upper) {
    checkRange(lower, upper);
    return MutableSlice(*this, lower, upper);
  }

  iterator begin() noexcept { return iterator(inner_.data()); }
  iterator end() noexcept { return iterator(inner_.data() + inner_.size()); }
  const_iterator begin() const noexcept { return const_iterator(inner_.data()); }
  const_iterator end() const noexcept { return const_iterator(inner_.data() + inner_.size()); }
  const_iterator cbegin() const noexcept { return begin(); }
  const_iterator cend() const noexcept { return end(); }

  std::ptrdiff_t startIndex() const noexcept { return 0; }
  std::ptrdiff_t endIndex() const noexcept { return count(); }
  std::ptrdiff_t count() const noexcept { return static_cast<std::ptrdiff_t>(inner_.size()); }
  std::size_t size() const noexcept { return inner_.size(); }
  bool empty() const noexcept { return inner_.empty(); }

  Direction direction() const noexcept { return direction_; }

  /// Reserves room for `capacity` entries, so that inserting up to that many moves no entry
  /// to a new block.
  void reserve(std::size_t capacity) { inner_.reserve(capacity); }

  /// Same entries (keys and values, position by position) and the same direction.
  friend bool operator==(const SortedDictionary& a,
                         const SortedDictionary& b) requires std::equality_comparable<Value> {
    return a.direction_ == b.direction_ && a.inner_ == b.inner_;
  }

 private:
  // Halves the span lower ..< upper until one entry is left: the entry in the middle goes to the
  // upper half unless it comes after the key. An entry with the key is never dropped (it never
  // comes after the key), so it is the one left, and testing equality once at the end gives the
  // same answer as testing it in every round, with one comparison per round instead of two.
  // When no entry matches, the one left is the key's neighbour, and its side is the answer.
  //
  // The halving is branch-free and the candidates of the next round are prefetched: an
  // unpredictable branch per round costs more than the extra work once the array outgrows the
  // caches. Below kPrefetchSpan entries the rest of the search is a few cache lines, and
  // prefetching only costs.
  static constexpr std::size_t kPrefetchSpan = 64;

  template <bool Ascending>
  Find findIn(const Key& key) const {
    if (inner_.empty()) return Find::indexBefore(0);
    const Entry* entries = inner_.data();
    const Entry* lower = entries;
    std::size_t span = inner_.size();
    auto halve = [&](auto prefetch) {
      std::size_t half = span / 2;
      const Entry* middle = lower + half;
      if constexpr (prefetch) {
        __builtin_prefetch(lower + half / 2);
        __builtin_prefetch(middle + (span - half) / 2);
      }
      bool comesAfter = Ascending ? key < middle->key : middle->key < key;
      lower = comesAfter ? lower : middle;
      span = comesAfter ? half : span - half;
    };
    while (span > kPrefetchSpan) halve(std::true_type());
    while (span > 1) halve(std::false_type());
    auto position = static_cast<std::ptrdiff_t>(lower - entries);
    const Key& k = lower->key;
    if (k == key) return Find::match(position);
    bool comesAfter = Ascending ? key < k : k < key;
    return comesAfter ? Find::indexBefore(position) : Find::indexAfter(position);
  }

  template <class V>
  void addSortKeyed(V&& value) {
    Key key = sortKey(static_cast<const Value&>(value));
    setValue(std::move(key), Value(std::forward<V>(value)));
  }

  template <class K>
  void addKey(K&& key) {
    if constexpr (std::same_as<Key, Value>) {
      Key copy(key);
      setValue(std::move(copy), Value(std::forward<K>(key)));
    } else {
      setValue(Key(std::forward<K>(key)), Value{});
    }
  }

  void removeAt(std::ptrdiff_t position) {
    // A one-element range: g++ 12 misreads erase(iterator) here as reaching before the array.
    auto first = inner_.begin() + position;
    inner_.erase(first, first + 1);
  }

  const Entry& checkedEntry(std::ptrdiff_t position) const {
    detail::checkPosition(position, count(), __LINE__);
    return inner_[static_cast<std::size_t>(position)];
  }
  Entry& checkedEntry(std::ptrdiff_t position) {
    detail::checkPosition(position, count(), __LINE__);
    return inner_[static_cast<std::size_t>(position)];
  }

  void checkRange(std::ptrdiff_t lower, std::ptrdiff_t upper) const {
    if (lower > upper) {
      fatalError(detail::kCollectionsLabel, __LINE__, "Range requires lowerBound <= upperBound");
    }
    if (lower < 0 || upper > count()) {
      fatalError(detail::kCollectionsLabel, __LINE__, "Range out of bounds");
    }
  }

  std::vector<Entry> inner_;
  Direction direction_ = Direction::descending;
};

/// A sorted set: a `SortedDictionary` whose values are empty.
template <std::totally_ordered Key>
using SortedSet = SortedDictionary<Key, std::monostate>;

}  // namespace carrow
