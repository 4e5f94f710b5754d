#include <algorithm>
#include <iterator>
#include <optional>
#include <ranges>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/collections/sorted_dictionary.h>

namespace carrow {
namespace {

using Dictionary = SortedDictionary<int, std::string>;
using Direction = Dictionary::Direction;
using Find = Dictionary::Find;

static_assert(std::ranges::random_access_range<Dictionary>);
static_assert(std::ranges::random_access_range<const Dictionary>);
static_assert(std::random_access_iterator<Dictionary::iterator>);
static_assert(std::sortable<Dictionary::iterator>);
static_assert(std::convertible_to<Dictionary::iterator, Dictionary::const_iterator>);

Dictionary withKeys(std::vector<int> keys, Direction direction) {
  Dictionary dictionary(direction);
  for (int key : keys) dictionary.setValue(key, "v" + std::to_string(key));
  return dictionary;
}

struct Job {
  int priority;
  std::string name;
  using SortKey = int;
  static constexpr auto sortKeyPath = &Job::priority;
  bool operator==(const Job&) const = default;
};
static_assert(SortKeyPathed<Job>);
static_assert(!SortKeyPathed<std::string>);

// A key whose equality ignores `tag`, to see which of two equal keys is stored.
struct TaggedKey {
  int id;
  char tag;
  friend bool operator==(const TaggedKey& a, const TaggedKey& b) { return a.id == b.id; }
  friend auto operator<=>(const TaggedKey& a, const TaggedKey& b) { return a.id <=> b.id; }
};

TEST(SortedDictionary, EmptyDictionaryAnswersAbsent) {
  Dictionary dictionary(Direction::ascending);
  EXPECT_EQ(dictionary.find(1), Find::indexBefore(0));
  EXPECT_EQ(dictionary.value(1), std::nullopt);
  EXPECT_EQ(dictionary.index(1), std::nullopt);
  EXPECT_EQ(dictionary.firstKey(), std::nullopt);
  EXPECT_EQ(dictionary.lastKey(), std::nullopt);
  EXPECT_EQ(dictionary.firstValue(), std::nullopt);
  EXPECT_EQ(dictionary.lastValue(), std::nullopt);
  EXPECT_FALSE(dictionary.removeValue(1));
  dictionary.setValue(1, "one");
  EXPECT_EQ(dictionary.count(), 1);
  EXPECT_EQ(dictionary.value(1), "one");
  EXPECT_EQ(dictionary.value(std::optional<int>()), std::nullopt);
  EXPECT_EQ(dictionary.value(std::optional<int>(1)), "one");
}

// Every probe below, between and above the keys of every size up to 33 and a few larger ones,
// in both directions: matches land on their entry, and misses name an entry that the key sits
// right next to.
TEST(SortedDictionary, SearchAgreesWithALinearScanAtEverySize) {
  std::vector<int> sizes{64, 65, 100, 129, 1000};
  for (int size = 0; size <= 33; ++size) sizes.push_back(size);
  for (Direction direction : {Direction::ascending, Direction::descending}) {
    for (int size : sizes) {
      std::vector<int> keys;
      for (int i = 0; i < size; ++i) keys.push_back(2 * i + 1);
      Dictionary dictionary = withKeys(keys, direction);
      if (direction == Direction::descending) std::ranges::reverse(keys);
      ASSERT_EQ(dictionary.keys(), keys);
      for (int probe = -1; probe <= 2 * size + 1; ++probe) {
        auto belongsBefore = [&](int key) {
          return direction == Direction::ascending ? probe < key : probe > key;
        };
        auto expectedPosition =
            std::ranges::find_if(keys, [&](int key) { return key == probe || belongsBefore(key); })
            - keys.begin();
        Find found = dictionary.find(probe);
        SCOPED_TRACE(testing::Message() << "size " << size << " probe " << probe);
        EXPECT_EQ(found.insertionPosition(), expectedPosition);
        if (probe % 2 != 0 && probe > 0 && probe < 2 * size) {
          EXPECT_EQ(found, Find::match(expectedPosition));
        } else if (size == 0) {
          EXPECT_EQ(found, Find::indexBefore(0));
        } else if (found.kind == Find::Kind::indexBefore) {
          EXPECT_TRUE(belongsBefore(keys.at(static_cast<std::size_t>(found.position))));
        } else {
          ASSERT_EQ(found.kind, Find::Kind::indexAfter);
          EXPECT_FALSE(belongsBefore(keys.at(static_cast<std::size_t>(found.position))));
        }
      }
    }
  }
}

TEST(SortedDictionary, WritesInsertAtTheSortedPosition) {
  Dictionary ascending = withKeys({1, 3, 5}, Direction::ascending);
  ascending.setValue(4, "four");
  EXPECT_EQ(ascending.index(4), 2);
  ascending.setValue(6, "six");
  EXPECT_EQ(ascending.index(6), 4);
  ascending.setValue(0, "zero");
  EXPECT_EQ(ascending.keys(), (std::vector<int>{0, 1, 3, 4, 5, 6}));

  Dictionary descending = withKeys({5, 3, 1}, Direction::descending);
  EXPECT_EQ(descending.find(4).insertionPosition(), 1);
  EXPECT_EQ(descending.find(0).insertionPosition(), 3);
  descending.setValue(4, "four");
  descending.setValue(0, "zero");
  EXPECT_EQ(descending.keys(), (std::vector<int>{5, 4, 3, 1, 0}));
  EXPECT_EQ(descending.firstKey(), 5);
  EXPECT_EQ(descending.lastKey(), 0);
  EXPECT_EQ(descending.firstValue(), "v5");
  EXPECT_EQ(descending.lastValue(), "zero");
}

TEST(SortedDictionary, WritingAbsentRemovesExactlyThatEntry) {
  Dictionary dictionary = withKeys({1, 3, 5}, Direction::ascending);
  Dictionary before = dictionary;
  dictionary.setValue(4, std::nullopt);
  EXPECT_EQ(dictionary, before);
  dictionary.setValue(3, std::nullopt);
  EXPECT_EQ(dictionary.keys(), (std::vector<int>{1, 5}));
  EXPECT_EQ(dictionary.values(), (std::vector<std::string>{"v1", "v5"}));
  EXPECT_TRUE(dictionary.removeValue(5));
  EXPECT_FALSE(dictionary.contains(5));
}

TEST(SortedDictionary, WritingAnEqualKeyReplacesKeyAndValue) {
  SortedDictionary<TaggedKey, int> dictionary(
      SortedDictionary<TaggedKey, int>::Direction::ascending);
  dictionary.setValue(TaggedKey{1, 'a'}, 10);
  dictionary.setValue(TaggedKey{2, 'a'}, 20);
  dictionary.setValue(TaggedKey{1, 'b'}, 11);
  EXPECT_EQ(dictionary.count(), 2);
  EXPECT_EQ(dictionary.keyAt(0).tag, 'b');
  EXPECT_EQ(dictionary[0], 11);
}

// Without a direction the constructors sort descending; the last of equal keys wins.
TEST(SortedDictionary, ConstructorsSortAndKeepTheLastDuplicate) {
  Dictionary literal{{1, "a"}, {3, "b"}, {2, "c"}, {3, "d"}};
  EXPECT_EQ(literal.direction(), Direction::descending);
  EXPECT_EQ(literal.keys(), (std::vector<int>{3, 2, 1}));
  EXPECT_EQ(literal.values(), (std::vector<std::string>{"d", "c", "a"}));
  EXPECT_EQ(Dictionary().direction(), Direction::descending);

  SortedDictionary<int, Job> jobs{Job{2, "b"}, Job{7, "x"}, Job{2, "c"}};
  EXPECT_EQ(jobs.direction(), (SortedDictionary<int, Job>::Direction::descending));
  EXPECT_EQ(jobs.keys(), (std::vector<int>{7, 2}));
  EXPECT_EQ(jobs.value(2)->name, "c");

  SortedDictionary<std::string, std::string> same(std::vector<std::string>{"b", "a", "c"});
  EXPECT_EQ(same.values(), (std::vector<std::string>{"c", "b", "a"}));
  EXPECT_EQ(same.value("a"), "a");

  SortedSet<int> set{4, 1, 9, 4};
  EXPECT_EQ(set.keys(), (std::vector<int>{9, 4, 1}));
  set.insert(5);
  EXPECT_TRUE(set.contains(5));
  EXPECT_EQ(set.count(), 4);
  EXPECT_EQ(SortedSet<int>(std::vector<int>{3, 3}).count(), 1);

  std::vector<Job> source{{3, "c"}, {1, "a"}, {2, "b"}};
  SortedDictionary<int, Job> ascending(source, SortedDictionary<int, Job>::Direction::ascending);
  EXPECT_EQ(ascending.keys(), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(ascending[0].name, "a");
}

TEST(SortedDictionary, EqualityComparesDirectionKeysAndValues) {
  EXPECT_NE(withKeys({1}, Direction::ascending), withKeys({1}, Direction::descending));
  EXPECT_EQ(withKeys({1, 2}, Direction::ascending), withKeys({2, 1}, Direction::ascending));
  Dictionary changed = withKeys({1, 2}, Direction::ascending);
  changed[1] = "other";
  EXPECT_NE(changed, withKeys({1, 2}, Direction::ascending));
  EXPECT_NE(withKeys({1, 2}, Direction::ascending), withKeys({1, 3}, Direction::ascending));
}

TEST(SortedDictionary, GenericAlgorithmsMoveValuesAndLeaveKeys) {
  Dictionary dictionary(Direction::ascending);
  dictionary.setValue(1, "d");
  dictionary.setValue(2, "b");
  dictionary.setValue(3, "a");
  dictionary.setValue(4, "c");
  std::sort(dictionary.begin(), dictionary.end());
  EXPECT_EQ(dictionary.keys(), (std::vector<int>{1, 2, 3, 4}));
  EXPECT_EQ(dictionary.values(), (std::vector<std::string>{"a", "b", "c", "d"}));
  EXPECT_EQ(dictionary.value(3), "c");

  std::reverse(dictionary.begin(), dictionary.end());
  std::partition(dictionary.begin(), dictionary.end(),
                 [](const std::string& v) { return v < "c"; });
  EXPECT_EQ(dictionary.keys(), (std::vector<int>{1, 2, 3, 4}));
  dictionary[0] = "first";
  EXPECT_EQ(dictionary.value(1), "first");
  EXPECT_EQ(dictionary.keys(), (std::vector<int>{1, 2, 3, 4}));
}

TEST(SortedDictionary, SlicesSharePositionsWithTheDictionary) {
  Dictionary dictionary = withKeys({1, 2, 3, 4}, Direction::ascending);
  auto slice = dictionary.slice(1, 3);
  EXPECT_EQ(slice.startIndex(), 1);
  EXPECT_EQ(slice[2], "v3");
  slice[1] = "changed";
  EXPECT_EQ(dictionary.value(2), "changed");
  EXPECT_EQ(std::vector<std::string>(slice.begin(), slice.end()),
            (std::vector<std::string>{"changed", "v3"}));
  EXPECT_TRUE(dictionary.slice(4, 4).empty());
}

TEST(SortedDictionary, ModifyWritesBackAlsoWhenTheChangeThrows) {
  Dictionary dictionary = withKeys({1}, Direction::ascending);
  EXPECT_THROW(dictionary.modifyValue(1,
                                      [](std::optional<std::string>& value) {
                                        *value += "+";
                                        throw std::runtime_error("abandoned");
                                      }),
               std::runtime_error);
  EXPECT_EQ(dictionary.value(1), "v1+");
  dictionary.modifyValue(2, [](std::optional<std::string>& value) { value = "new"; });
  EXPECT_EQ(dictionary.value(2), "new");
  dictionary.modifyValue(1, [](std::optional<std::string>& value) { value.reset(); });
  EXPECT_EQ(dictionary.keys(), std::vector<int>{2});
}

using SortedDictionaryDeathTest = ::testing::Test;

TEST(SortedDictionaryDeathTest, PositionsOutOfRangeStopTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Dictionary dictionary = withKeys({1, 2}, Direction::ascending);
  EXPECT_DEATH(dictionary[2] = "x",
               "CarrowPrivate/Collections:[0-9]+: Fatal error: Index out of range");
  EXPECT_DEATH((void)std::as_const(dictionary)[-1], "Index out of range");
  EXPECT_DEATH((void)dictionary.slice(2, 1), "Fatal error: Range requires lowerBound");
  EXPECT_DEATH((void)dictionary.slice(0, 3), "Fatal error: Range out of bounds");
  EXPECT_DEATH((void)dictionary.slice(0, 1)[1], "Index out of range");
}

}  // namespace
}  // namespace carrow
