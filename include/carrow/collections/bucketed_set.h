#pragma once

#include <climits>
#include <concepts>
#include <cstddef>
#include <iterator>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include <carrow/collections/case_list.h>
#include <carrow/collections/detail/checked.h>
#include <carrow/collections/detail/coding.h>
#include <carrow/collections/detail/counting_pairs.h>

namespace carrow {

/// A dense histogram: one amount per bucket, bucket `v` at index `v`, plus a running weighted
/// total and a count of writes from which it derives an average.
///
/// `Value` is the integer type that addresses buckets; `Total` is the amount type, anything with
/// a zero (`Total{}`) and `+`. With an integer `Total`, `set` keeps `total()` equal to the sum of
/// `v × amount` over all buckets, so counting a value `v` into its bucket makes `average()` the
/// mean of the values counted. A bucket outside the store, and integer overflow, stop the process.
///
/// Encoded as {"store": [amounts], "bucketCount": n, "total": t, "count": c}.
template <std::integral Value, class Total>
class BucketedSet {
 public:
  using Pair = std::pair<Value, Total>;
  using const_iterator = detail::PairIterator<BucketedSet, Pair>;
  using iterator = const_iterator;

  /// `bucketCount` zero buckets.
  explicit BucketedSet(std::ptrdiff_t bucketCount)
      : store_(checkedSize(bucketCount), Total{}), bucketCount_(bucketCount) {}

  /// One bucket per bit of `Value` (64 for a 64-bit value).
  BucketedSet() : BucketedSet(static_cast<std::ptrdiff_t>(sizeof(Value) * CHAR_BIT)) {}

  /// One bucket per case of `Enum`.
  template <CaseIterable Enum>
  static BucketedSet forCases() {
    return BucketedSet(static_cast<std::ptrdiff_t>(CaseList<Enum>::allCases.size()));
  }

  /// The amount in bucket `v`.
  const Total& operator[](Value v) const { return store_[bucketIndex(v)]; }

  /// Sets bucket `v` to `amount` and counts the write. For an integer `Total` the write is
  /// weighted: `total()` loses `v × old amount` and gains `v × amount`. For other amount types it
  /// is `setKeepingTotal`.
  void set(Value v, Total amount) {
    if constexpr (std::integral<Total>) {
      std::size_t index = bucketIndex(v);
      Total weight = detail::checkedConvert<Total>(v, __LINE__);
      Total newTotal = detail::checkedSubtract(
          total_, detail::checkedMultiply(store_[index], weight, __LINE__), __LINE__);
      newTotal = checkedAdd(newTotal, detail::checkedMultiply(amount, weight, __LINE__),
                            detail::kCollectionsLabel, __LINE__);
      std::ptrdiff_t newCount =
          checkedAdd(count_, std::ptrdiff_t{1}, detail::kCollectionsLabel, __LINE__);
      store_[index] = amount;
      total_ = newTotal;
      count_ = newCount;
    } else {
      setKeepingTotal(v, std::move(amount));
    }
  }

  /// Sets bucket `v` to `amount` and counts the write, leaving `total()` alone.
  void setKeepingTotal(Value v, Total amount) {
    std::size_t index = bucketIndex(v);
    count_ = checkedAdd(count_, std::ptrdiff_t{1}, detail::kCollectionsLabel, __LINE__);
    store_[index] = std::move(amount);
  }

  /// `total() / count()` with integer division; zero before the first write.
  Total average() const requires std::integral<Total> {
    if (count_ < 1) return Total{};
    return total_ / detail::checkedConvert<Total>(count_, __LINE__);
  }

  const std::vector<Total>& store() const noexcept { return store_; }
  std::ptrdiff_t bucketCount() const noexcept { return bucketCount_; }
  const Total& total() const noexcept { return total_; }
  /// The number of writes since construction.
  std::ptrdiff_t count() const noexcept { return count_; }

  /// Adds the right operand's buckets into the left operand's, index by index; `total()`,
  /// `count()` and `bucketCount()` stay the left operand's. A right operand with more buckets
  /// stops the process.
  BucketedSet& operator+=(const BucketedSet& other) {
    for (std::size_t i = 0; i < other.store_.size(); ++i) {
      detail::checkPosition(static_cast<std::ptrdiff_t>(i), std::ssize(store_), __LINE__);
      store_[i] = detail::addAmounts(store_[i], other.store_[i], __LINE__);
    }
    return *this;
  }
  friend BucketedSet operator+(BucketedSet lhs, const BucketedSet& rhs) { return lhs += rhs; }

  /// (bucket value, amount) for every bucket in order, empty buckets included.
  const_iterator begin() const noexcept { return const_iterator(this, 0); }
  const_iterator end() const noexcept { return const_iterator(this, std::ssize(store_)); }

  /// "0:0,1:5,2:0": every bucket as value:amount.
  std::string description() const { return detail::describePairs(*this); }
  friend std::ostream& operator<<(std::ostream& out, const BucketedSet& set) {
    return out << set.description();
  }

  bool operator==(const BucketedSet&) const = default;

  /// Decodes the encoded form; `codingPath` prefixes the field names in errors. Fields that
  /// disagree with each other are a `DecodingError` naming the field, so a decoded set never
  /// stops the process later: `bucketCount` must be the length of `store`, every bucket must be
  /// addressable by `Value`, and `count` must be non-negative (and, for an integer `Total`, fit
  /// it, since `average()` divides by it). `total` is taken as decoded: `setKeepingTotal` and `+`
  /// legitimately leave it apart from the weighted sum of the buckets.
  static BucketedSet fromJson(const nlohmann::json& json, std::string_view codingPath = {}) {
    BucketedSet result(0);
    result.store_ = detail::decodeArrayField<Total>(json, "store", codingPath);
    result.bucketCount_ = detail::decodeField<std::ptrdiff_t>(json, "bucketCount", codingPath);
    result.total_ = detail::decodeField<Total>(json, "total", codingPath);
    result.count_ = detail::decodeField<std::ptrdiff_t>(json, "count", codingPath);
    result.checkDecoded(codingPath);
    return result;
  }

 private:
  friend const_iterator;

  void checkDecoded(std::string_view codingPath) const {
    auto fail = [&](std::string_view field, const std::string& reason) {
      throw DecodingError(detail::codingPath(codingPath, field), reason);
    };
    if (bucketCount_ != std::ssize(store_)) {
      fail("bucketCount", "bucket count " + std::to_string(bucketCount_) + " disagrees with the "
                              + std::to_string(store_.size()) + " amounts of the store");
    }
    if (!store_.empty() && !std::in_range<Value>(store_.size() - 1)) {
      fail("store",
           std::to_string(store_.size()) + " buckets cannot all be addressed by the value type");
    }
    if (count_ < 0) fail("count", "count " + std::to_string(count_) + " is negative");
    if constexpr (std::integral<Total>) {
      if (!std::in_range<Total>(count_)) {
        fail("count", "count " + std::to_string(count_) + " does not fit the amount type");
      }
    }
  }

  static std::size_t checkedSize(std::ptrdiff_t bucketCount) {
    return detail::checkedConvert<std::size_t>(bucketCount, __LINE__);
  }

  std::size_t bucketIndex(Value v) const {
    auto index = detail::checkedConvert<std::ptrdiff_t>(v, __LINE__);
    detail::checkPosition(index, std::ssize(store_), __LINE__);
    return static_cast<std::size_t>(index);
  }

  Pair pairAt(std::ptrdiff_t position) const {
    return Pair(detail::checkedConvert<Value>(position, __LINE__),
                store_[static_cast<std::size_t>(position)]);
  }

  std::vector<Total> store_;
  std::ptrdiff_t bucketCount_;
  Total total_{};
  std::ptrdiff_t count_ = 0;
};

template <std::integral Value, class Total>
void to_json(nlohmann::json& json, const BucketedSet<Value, Total>& set) {
  json = nlohmann::json{{"store", set.store()},
                        {"bucketCount", set.bucketCount()},
                        {"total", set.total()},
                        {"count", set.count()}};
}

template <std::integral Value, class Total>
void from_json(const nlohmann::json& json, BucketedSet<Value, Total>& set) {
  set = BucketedSet<Value, Total>::fromJson(json);
}

}  // namespace carrow
