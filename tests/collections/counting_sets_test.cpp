#include <array>
#include <cstdint>
#include <limits>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <carrow/collections/bucketed_set.h>
#include <carrow/collections/flag_counter.h>
#include <carrow/collections/keyed_set.h>

namespace carrow {

enum class Outcome : std::uint8_t { copied, skipped, failed };

template <>
struct CaseList<Outcome> {
  static constexpr std::array allCases{Outcome::copied, Outcome::skipped, Outcome::failed};
};

namespace {

using nlohmann::json;

// An option set in the usual shape: a class over its raw integer.
class Permissions {
 public:
  explicit constexpr Permissions(std::uint8_t raw) : raw_(raw) {}
  constexpr std::uint8_t rawValue() const { return raw_; }
  friend std::ostream& operator<<(std::ostream& out, Permissions p) {
    return out << "P" << +p.raw_;
  }

 private:
  std::uint8_t raw_;
};

enum class Mask : std::int16_t {};

std::string decodingFailure(auto decode) {
  try {
    decode();
  } catch (const DecodingError& error) {
    return error.codingPath() + " | " + error.what();
  }
  return "decoded";
}

TEST(BucketedSet, ReadsPlainWritesAndIteration) {
  BucketedSet<int, int> set(4);
  EXPECT_EQ(set[3], 0);
  set.setKeepingTotal(1, 5);
  EXPECT_EQ(set[1], 5);
  EXPECT_EQ(set.count(), 1);
  EXPECT_EQ(set.total(), 0);
  EXPECT_EQ(set.description(), "0:0,1:5,2:0,3:0");
  std::vector<std::pair<int, int>> pairs(set.begin(), set.end());
  EXPECT_EQ(pairs, (std::vector<std::pair<int, int>>{{0, 0}, {1, 5}, {2, 0}, {3, 0}}));

  BucketedSet<std::uint8_t, double> amounts(3);
  amounts.set(2, 1.5);  // not an integer amount: a plain write
  EXPECT_EQ(amounts.total(), 0.0);
  EXPECT_EQ(amounts.count(), 1);
  EXPECT_EQ(amounts.description(), "0:0,1:0,2:1.5");
}

TEST(BucketedSet, DefaultBucketCountIsTheBitWidthOfTheValue) {
  EXPECT_EQ((BucketedSet<std::int64_t, int>().bucketCount()), 64);
  EXPECT_EQ((BucketedSet<std::uint8_t, int>().bucketCount()), 8);
  EXPECT_EQ((BucketedSet<int, int>::forCases<Outcome>().bucketCount()), 3);
}

TEST(BucketedSet, WeightedWritesKeepTheTotalAndTheAverage) {
  BucketedSet<int, std::int64_t> set(8);
  EXPECT_EQ(set.average(), 0);
  set.set(3, 1);
  set.set(5, 2);
  EXPECT_EQ(set.total(), 13);
  EXPECT_EQ(set.count(), 2);
  EXPECT_EQ(set.average(), 6);
  set.set(3, 0);
  EXPECT_EQ(set.total(), 10);
  EXPECT_EQ(set.count(), 3);
  EXPECT_EQ(set.average(), 3);
  // Counting values one by one makes the average their mean.
  BucketedSet<std::int8_t, int> counted(10);
  for (std::int8_t value : {2, 4, 4, 9}) counted.set(value, counted[value] + 1);
  EXPECT_EQ(counted.total(), 19);
  EXPECT_EQ(counted.average(), 4);
}

TEST(BucketedSet, AdditionAddsIntoTheLeftOperandsBuckets) {
  BucketedSet<int, int> left(4);
  left.set(1, 1);
  left.set(3, 2);
  BucketedSet<int, int> right(2);
  right.set(0, 7);
  right.set(1, 1);
  BucketedSet<int, int> sum = left + right;
  EXPECT_EQ(sum.store(), (std::vector<int>{7, 2, 0, 2}));
  EXPECT_EQ(sum.total(), left.total());
  EXPECT_EQ(sum.count(), left.count());
  EXPECT_EQ(sum.bucketCount(), 4);
  left += left;
  EXPECT_EQ(left.store(), (std::vector<int>{0, 2, 0, 4}));
}

TEST(BucketedSetCoding, RoundTripsWithTheFieldNames) {
  BucketedSet<int, std::int64_t> set(3);
  set.set(2, 5);
  json encoded = set;
  EXPECT_EQ(encoded, json::parse(R"({"store":[0,0,5],"bucketCount":3,"total":10,"count":1})"));
  EXPECT_EQ((encoded.get<BucketedSet<int, std::int64_t>>()), set);
}

TEST(BucketedSetCoding, FieldsThatDisagreeAreDecodingErrorsNamingTheField) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"store":[4],"bucketCount":3,"total":0,"count":1})",
       "bucketCount | Cannot decode \"bucketCount\": bucket count 3 disagrees with the 1 amounts "
       "of the store"},
      {R"({"store":[],"bucketCount":-1,"total":0,"count":0})",
       "bucketCount | Cannot decode \"bucketCount\": bucket count -1 disagrees with the 0 "
       "amounts of the store"},
      {R"({"store":[1,2],"bucketCount":2,"total":0,"count":-1})",
       "count | Cannot decode \"count\": count -1 is negative"},
      {R"({"store":[1,2],"bucketCount":2,"total":0,"count":128})",
       "count | Cannot decode \"count\": count 128 does not fit the amount type"},
  };
  for (const auto& [text, failure] : cases) {
    EXPECT_EQ(
        decodingFailure([&] { (void)json::parse(text).get<BucketedSet<int, std::int8_t>>(); }),
        failure)
        << text;
  }
  // 129 buckets cannot all be addressed by an 8-bit signed value.
  json wide = BucketedSet<int, int>(129);
  EXPECT_EQ(decodingFailure([&] { (void)wide.get<BucketedSet<std::int8_t, int>>(); }),
            "store | Cannot decode \"store\": 129 buckets cannot all be addressed by the value "
            "type");
  EXPECT_EQ((json(BucketedSet<int, int>(128)).get<BucketedSet<std::int8_t, int>>().bucketCount()),
            128);
}

TEST(BucketedSetCoding, ADecodedSetNeverStopsTheProcessOnReading) {
  auto set = json::parse(R"({"store":[1,2,0],"bucketCount":3,"total":7,"count":9})")
                 .get<BucketedSet<int, int>>();
  EXPECT_EQ(set[2], 0);
  EXPECT_EQ(set.description(), "0:1,1:2,2:0");
  EXPECT_EQ(set.average(), 0);
  EXPECT_EQ(set.total(), 7);  // taken as decoded
}

TEST(BucketedSetCoding, MalformedInputNamesTheField) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"bucketCount":1,"total":0,"count":0})",
       "store | Cannot decode \"store\": key not found"},
      {R"({"store":[0],"total":0,"count":0})",
       "bucketCount | Cannot decode \"bucketCount\": key not found"},
      {R"({"store":[0],"bucketCount":1,"count":0})",
       "total | Cannot decode \"total\": key not found"},
      {R"({"store":[0],"bucketCount":1,"total":0})",
       "count | Cannot decode \"count\": key not found"},
      {R"({"store":[0],"bucketCount":1,"total":"0","count":0})",
       "total | Cannot decode \"total\": expected an integer, found string"},
      {R"({"store":[0, 1.5],"bucketCount":1,"total":0,"count":0})",
       "store[1] | Cannot decode \"store[1]\": expected an integer, found number"},
      {R"({"store":[300],"bucketCount":1,"total":0,"count":0})",
       "store[0] | Cannot decode \"store[0]\": integer 300 is out of range"},
      {R"({"store":{},"bucketCount":1,"total":0,"count":0})",
       "store | Cannot decode \"store\": expected an array, found object"},
      {R"([1, 2])", " | Cannot decode: expected an object, found array"},
      {R"({"store":[0],"bucketCount":null,"total":0,"count":0})",
       "bucketCount | Cannot decode \"bucketCount\": expected an integer, found null"},
  };
  for (const auto& [text, failure] : cases) {
    EXPECT_EQ(
        decodingFailure([&] { (void)json::parse(text).get<BucketedSet<int, std::int8_t>>(); }),
        failure)
        << text;
  }
}

TEST(KeyedSet, InsertCountsIntoTheCasesBucket) {
  KeyedSet<Outcome, int> set;
  EXPECT_EQ(set.store().bucketCount(), 3);
  set.insert(Outcome::failed);
  set.insert(Outcome::failed);
  EXPECT_EQ(set[Outcome::failed], 2);
  EXPECT_EQ(set.store().count(), 2);
  EXPECT_EQ(set.store().total(), 0);
  set.set(Outcome::copied, 7);
  EXPECT_EQ(set.description(), "0:7,1:0,2:2");
  std::vector<std::pair<std::uint8_t, int>> pairs(set.begin(), set.end());
  EXPECT_EQ(pairs.size(), 3U);
}

TEST(KeyedSetCoding, NestsTheBucketedSet) {
  KeyedSet<Outcome, int> set;
  set.insert(Outcome::skipped);
  json encoded = set;
  EXPECT_EQ(encoded,
            json::parse(R"({"store":{"store":[0,1,0],"bucketCount":3,"total":0,"count":1}})"));
  EXPECT_EQ((encoded.get<KeyedSet<Outcome, int>>()), set);
  encoded["store"].erase("total");
  EXPECT_EQ(decodingFailure([&] { (void)encoded.get<KeyedSet<Outcome, int>>(); }),
            "store.total | Cannot decode \"store.total\": key not found");
  EXPECT_EQ(decodingFailure([&] { (void)json::object().get<KeyedSet<Outcome, int>>(); }),
            "store | Cannot decode \"store\": key not found");

  const std::pair<const char*, const char*> inconsistent[] = {
      {R"({"store":{"store":[4],"bucketCount":3,"total":0,"count":1}})",
       "store.bucketCount | Cannot decode \"store.bucketCount\": bucket count 3 disagrees with "
       "the 1 amounts of the store"},
      {R"({"store":{"store":[0,0],"bucketCount":2,"total":0,"count":1}})",
       "store.bucketCount | Cannot decode \"store.bucketCount\": bucket count 2 disagrees with "
       "the 3 cases of the key"},
      {R"({"store":{"store":[0,1,0],"bucketCount":3,"total":5,"count":1}})",
       "store.total | Cannot decode \"store.total\": a keyed set's total is always zero"},
  };
  for (const auto& [text, failure] : inconsistent) {
    EXPECT_EQ(decodingFailure([&] { (void)json::parse(text).get<KeyedSet<Outcome, int>>(); }),
              failure)
        << text;
  }
}

TEST(FlagCounter, InsertCountsEverySetBit) {
  FlagCounter<Permissions> counter;
  EXPECT_EQ(counter.byBitIndex().size(), 8U);
  counter.insert(Permissions(0b1010'0001));
  EXPECT_EQ(counter.byBitIndex(), (std::vector<std::ptrdiff_t>{1, 0, 0, 0, 0, 1, 0, 1}));
  EXPECT_EQ(counter[Permissions(0b1000'0001)], 2);
  EXPECT_EQ(counter[Permissions(0)], 0);
  counter.insert(Permissions(0));
  counter.set(Permissions(0b0000'0011), 4);
  EXPECT_EQ(counter.byBitIndex(), (std::vector<std::ptrdiff_t>{4, 4, 0, 0, 0, 1, 0, 1}));
  EXPECT_EQ(counter.description(), "P1:4,P2:4,P4:0,P8:0,P16:0,P32:1,P64:0,P128:1");
}

TEST(FlagCounter, EnumerationMasksWithASignedRawValue) {
  FlagCounter<Mask> counter;
  EXPECT_EQ(counter.byBitIndex().size(), 16U);
  counter.insert(static_cast<Mask>(std::numeric_limits<std::int16_t>::min()));
  counter.insert(static_cast<Mask>(-1));
  EXPECT_EQ(counter.byBitIndex()[15], 2);
  EXPECT_EQ(counter.byBitIndex()[0], 1);
  EXPECT_EQ(counter[static_cast<Mask>(-1)], 17);
  auto last = *std::next(counter.begin(), 15);
  EXPECT_EQ(last.first, static_cast<Mask>(std::numeric_limits<std::int16_t>::min()));
  EXPECT_EQ(counter.description().substr(0, 4), "1:1,");
}

TEST(FlagCounterCoding, RoundTripsAndWantsOneCounterPerBit) {
  FlagCounter<Permissions> counter;
  counter.insert(Permissions(0b10));
  json encoded = counter;
  EXPECT_EQ(encoded, json::parse(R"({"byBitIndex":[0,1,0,0,0,0,0,0]})"));
  EXPECT_EQ(encoded.get<FlagCounter<Permissions>>(), counter);

  EXPECT_EQ(
      decodingFailure([] {
        (void)json::parse(R"({"byBitIndex":[0,0,0,0,0,0,0,0,3]})").get<FlagCounter<Permissions>>();
      }),
      "byBitIndex | Cannot decode \"byBitIndex\": 9 counters disagree with the 8 bits of "
      "the raw value");
  EXPECT_EQ(decodingFailure(
                [] { (void)json::parse(R"({"byBitIndex":[1]})").get<FlagCounter<Permissions>>(); }),
            "byBitIndex | Cannot decode \"byBitIndex\": 1 counters disagree with the 8 bits of "
            "the raw value");
  EXPECT_EQ(decodingFailure([] { (void)json::object().get<FlagCounter<Permissions>>(); }),
            "byBitIndex | Cannot decode \"byBitIndex\": key not found");
}

using CountingSetsDeathTest = ::testing::Test;

TEST(CountingSetsDeathTest, BucketsOutOfRangeStopTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  BucketedSet<int, int> set(4);
  EXPECT_DEATH((void)set[4], "CarrowPrivate/Collections:[0-9]+: Fatal error: Index out of range");
  EXPECT_DEATH((void)set[-1], "Index out of range");
  EXPECT_DEATH(set.set(7, 1), "Index out of range");
  BucketedSet<std::uint64_t, int> wide(1);
  EXPECT_DEATH((void)wide[std::numeric_limits<std::uint64_t>::max()],
               "Not enough bits to represent the passed value");
  EXPECT_DEATH((void)(BucketedSet<int, int>(2) + BucketedSet<int, int>(3)), "Index out of range");
}

TEST(CountingSetsDeathTest, OverflowStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  BucketedSet<int, std::int32_t> set(4);
  EXPECT_DEATH(set.set(3, std::numeric_limits<std::int32_t>::max()), "arithmetic overflow");
  FlagCounter<Mask> counter;
  counter.set(static_cast<Mask>(1), std::numeric_limits<std::ptrdiff_t>::max());
  EXPECT_DEATH(counter.insert(static_cast<Mask>(1)), "arithmetic overflow");
}

}  // namespace
}  // namespace carrow
