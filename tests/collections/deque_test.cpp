#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/collections/deque.h>

namespace carrow {
namespace {

// Counts lifetimes and marks destroyed objects, so that a leak shows in `live` and a second
// destruction (or a use after destruction) fails the test.
class Tracked {
 public:
  static inline int live = 0;

  explicit Tracked(int value) : value_(value) { ++live; }
  Tracked(const Tracked& other) : value_(other.checked()) { ++live; }
  Tracked(Tracked&& other) noexcept : value_(other.checked()) {
    other.value_ = -1;
    ++live;
  }
  Tracked& operator=(const Tracked&) = delete;
  ~Tracked() {
    if (state_ != kAlive) ADD_FAILURE() << "destroyed twice";
    state_ = kDead;
    --live;
  }

  int checked() const {
    if (state_ != kAlive) ADD_FAILURE() << "used after destruction";
    return value_;
  }

 private:
  static constexpr std::uint32_t kAlive = 0xA11CE;
  static constexpr std::uint32_t kDead = 0xDEAD;
  std::uint32_t state_ = kAlive;
  int value_;
};

using Header = Deque<int>::Header;
using DequeBuffer = Deque<int>::DequeBuffer;

Header headerOf(const auto& deque) {
  return detail::DequeInspection::storage(deque).buffer()->header();
}

std::vector<int> drain(Deque<int>& deque) {
  std::vector<int> values;
  while (auto value = deque.popFirst()) values.push_back(*value);
  return values;
}

// Fills a fresh deque to capacity c and rotates it so that startSlot is c - 1.
Deque<int> withStartAtTheLastSlot(int& next) {
  Deque<int> deque;
  for (int i = 0; i < 5; ++i) deque.append(next++);
  std::ptrdiff_t capacity = deque.capacity();
  while (deque.count() < capacity) deque.append(next++);
  while (headerOf(deque).startSlot != capacity - 1) {
    deque.popFirst();
    deque.append(next++);
  }
  return deque;
}

TEST(Deque, NewDequeAllocatesNothing) {
  Deque<int> deque;
  EXPECT_TRUE(deque.isEmpty());
  EXPECT_EQ(deque.count(), 0);
  EXPECT_EQ(deque.popFirst(), std::nullopt);
  EXPECT_TRUE(detail::DequeInspection::storage(deque).isEmpty());
  EXPECT_EQ(deque.capacity(), 0);
}

TEST(Deque, GrowsByHalfItsCapacity) {
  std::vector<std::ptrdiff_t> requested;
  std::ptrdiff_t capacity = 0;
  for (int i = 0; i < 9; ++i) {
    capacity = detail::dequeGrowthCapacity(capacity, capacity + 1);
    requested.push_back(capacity);
  }
  EXPECT_EQ(requested, (std::vector<std::ptrdiff_t>{1, 2, 3, 5, 8, 12, 18, 27, 41}));
  EXPECT_EQ(detail::dequeGrowthCapacity(4, 100), 100);

  Deque<int> deque;
  deque.append(1);
  EXPECT_GE(deque.capacity(), 1);
  EXPECT_EQ(headerOf(deque).startSlot, 0);
}

TEST(Deque, KeepsFirstInFirstOutOrderLikeStdDeque) {
  std::mt19937 random(7);
  Deque<int> deque;
  std::deque<int> reference;
  for (int step = 0; step < 20000; ++step) {
    if (random() % 3 != 0) {
      deque.append(step);
      reference.push_back(step);
    } else {
      std::optional<int> expected;
      if (!reference.empty()) {
        expected = reference.front();
        reference.pop_front();
      }
      ASSERT_EQ(deque.popFirst(), expected);
    }
    ASSERT_EQ(deque.size(), reference.size());
  }
}

TEST(Deque, GrowingAWrappedFullBlockUnwrapsIt) {
  int next = 0;
  Deque<int> deque = withStartAtTheLastSlot(next);
  std::ptrdiff_t capacity = deque.capacity();
  ASSERT_EQ(deque.count(), capacity);
  int front = next - static_cast<int>(capacity);
  deque.append(next++);
  EXPECT_GT(deque.capacity(), capacity);
  EXPECT_EQ(headerOf(deque).startSlot, 0);
  EXPECT_EQ(deque.count(), capacity + 1);
  std::vector<int> values = drain(deque);
  ASSERT_EQ(values.size(), static_cast<std::size_t>(capacity + 1));
  for (std::size_t i = 0; i < values.size(); ++i) EXPECT_EQ(values[i], front + int(i));
}

TEST(Deque, AppendingPastTheEndWrapsToSlotZero) {
  int next = 0;
  Deque<int> deque = withStartAtTheLastSlot(next);
  std::ptrdiff_t capacity = deque.capacity();
  while (deque.count() > 2) deque.popFirst();
  // Elements in slots capacity - 1 and 0; the next goes to slot 1 without growing.
  while (headerOf(deque).startSlot != capacity - 1) {
    deque.popFirst();
    deque.append(next++);
  }
  ASSERT_EQ(deque.count(), 2);
  deque.append(next++);
  EXPECT_EQ(deque.capacity(), capacity);
  EXPECT_EQ(headerOf(deque).startSlot, capacity - 1);
  EXPECT_EQ(deque.count(), 3);
  // Popping the element in the last slot moves the start to slot 0.
  deque.popFirst();
  EXPECT_EQ(headerOf(deque).startSlot, 0);
  EXPECT_EQ(drain(deque), (std::vector<int>{next - 2, next - 1}));
}

TEST(Deque, CopiesAreIndependentValues) {
  Deque<int> original;
  for (int i = 0; i < 5; ++i) original.append(i);
  original.popFirst();  // startSlot 1
  Deque<int> copy = original;
  EXPECT_EQ(detail::DequeInspection::storage(copy).buffer(),
            detail::DequeInspection::storage(original).buffer());

  EXPECT_EQ(copy.popFirst(), 1);
  EXPECT_NE(detail::DequeInspection::storage(copy).buffer(),
            detail::DequeInspection::storage(original).buffer());
  EXPECT_EQ(original.count(), 4);
  // The private copy kept the layout: same capacity, the start moved on by one.
  EXPECT_EQ(headerOf(copy).capacity, headerOf(original).capacity);
  EXPECT_EQ(headerOf(copy).startSlot, headerOf(original).startSlot + 1);

  Deque<int> second = original;
  second.append(99);
  original.append(5);
  EXPECT_EQ(drain(original), (std::vector<int>{1, 2, 3, 4, 5}));
  EXPECT_EQ(drain(second), (std::vector<int>{1, 2, 3, 4, 99}));
  EXPECT_EQ(drain(copy), (std::vector<int>{2, 3, 4}));
}

// {first, ..., last} with room for more (allocators may give exactly what was asked).
Deque<int> withRoom(int first, int last) {
  Deque<int> deque;
  for (int i = first - 4; i <= last; ++i) deque.append(i);
  for (int i = 0; i < 4; ++i) deque.popFirst();
  return deque;
}

// Each deque marks a block that may be shared; the mark must follow the block through every way
// of sharing or handing it on, and a block nobody else holds any more is kept, not copied.

TEST(Deque, ABlockNoLongerSharedIsChangedInPlace) {
  Deque<int> deque = withRoom(0, 2);
  const DequeBuffer* block = detail::DequeInspection::storage(deque).buffer();
  EXPECT_FALSE(detail::DequeInspection::storage(deque).mayBeShared());
  {
    Deque<int> copy = deque;
    EXPECT_TRUE(detail::DequeInspection::storage(deque).mayBeShared());
    EXPECT_TRUE(detail::DequeInspection::storage(copy).mayBeShared());
  }
  deque.append(3);
  EXPECT_EQ(detail::DequeInspection::storage(deque).buffer(), block);
  EXPECT_FALSE(detail::DequeInspection::storage(deque).mayBeShared());
  { Deque<int> copy = deque; }
  EXPECT_EQ(deque.popFirst(), 0);
  EXPECT_EQ(detail::DequeInspection::storage(deque).buffer(), block);
  EXPECT_FALSE(detail::DequeInspection::storage(deque).mayBeShared());

  // Self-assignment keeps the block, and the deque is still its only holder.
  const Deque<int>& itself = deque;
  deque = itself;
  deque.append(4);
  EXPECT_EQ(detail::DequeInspection::storage(deque).buffer(), block);
  EXPECT_EQ(drain(deque), (std::vector<int>{1, 2, 3, 4}));
}

TEST(Deque, AssignmentMoveAndSwapKeepSharedBlocksIntact) {
  Deque<int> first = withRoom(0, 2);
  Deque<int> third = first;
  Deque<int> second = withRoom(10, 10);
  // Assigned over a deque that shared with `first`, `third` now shares with `second`.
  third = second;
  EXPECT_TRUE(detail::DequeInspection::storage(second).mayBeShared());
  EXPECT_EQ(detail::DequeInspection::storage(third).buffer(),
            detail::DequeInspection::storage(second).buffer());
  third.append(11);
  EXPECT_EQ(drain(second), (std::vector<int>{10}));
  EXPECT_EQ(drain(third), (std::vector<int>{10, 11}));
  // `first` still has the flag; appending asks the count, which is one again.
  const DequeBuffer* firstBlock = detail::DequeInspection::storage(first).buffer();
  first.append(3);
  EXPECT_EQ(detail::DequeInspection::storage(first).buffer(), firstBlock);

  // A move hands the flag on with the block and leaves an empty, unshared deque.
  Deque<int> copy = first;
  Deque<int> moved = std::move(copy);
  EXPECT_TRUE(copy.isEmpty());
  EXPECT_FALSE(detail::DequeInspection::storage(copy).mayBeShared());
  EXPECT_TRUE(detail::DequeInspection::storage(moved).mayBeShared());
  EXPECT_EQ(moved.popFirst(), 0);
  EXPECT_NE(detail::DequeInspection::storage(moved).buffer(),
            detail::DequeInspection::storage(first).buffer());

  // Swap exchanges the flags with the blocks.
  Deque<int> shared = first;
  Deque<int> alone = withRoom(20, 20);
  const DequeBuffer* aloneBlock = detail::DequeInspection::storage(alone).buffer();
  swap(shared, alone);
  EXPECT_TRUE(detail::DequeInspection::storage(alone).mayBeShared());
  EXPECT_FALSE(detail::DequeInspection::storage(shared).mayBeShared());
  alone.append(4);
  EXPECT_NE(detail::DequeInspection::storage(alone).buffer(),
            detail::DequeInspection::storage(first).buffer());
  shared.append(21);
  EXPECT_EQ(detail::DequeInspection::storage(shared).buffer(), aloneBlock);
  EXPECT_EQ(drain(first), (std::vector<int>{0, 1, 2, 3}));
  EXPECT_EQ(drain(alone), (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_EQ(drain(shared), (std::vector<int>{20, 21}));
  EXPECT_EQ(drain(moved), (std::vector<int>{1, 2, 3}));
}

TEST(Deque, GrowingASharedBlockLeavesTheOtherCopyIntact) {
  Deque<std::string> original;
  std::string longText(40, 'x');  // not stored inline, so a moved-from copy would be empty
  while (original.count() < original.capacity() || original.count() == 0) {
    original.append(longText);
  }
  Deque<std::string> copy = original;
  copy.append("tail");
  std::ptrdiff_t count = original.count();
  for (std::ptrdiff_t i = 0; i < count; ++i) EXPECT_EQ(original.popFirst(), longText);
  EXPECT_TRUE(original.isEmpty());
  EXPECT_EQ(copy.count(), count + 1);
}

TEST(Deque, EveryElementIsDestroyedExactlyOnce) {
  ASSERT_EQ(Tracked::live, 0);
  {
    Deque<Tracked> deque;
    for (int i = 0; i < 50; ++i) {
      deque.append(Tracked(i));
      if (i % 3 == 0) {
        EXPECT_EQ(deque.popFirst()->checked(), i / 3);
      }
    }
    Deque<Tracked> copy = deque;
    copy.popFirst();
    copy.emplace(100);
    Deque<Tracked> moved = std::move(copy);
    for (int i = 0; i < 40; ++i) {  // wraps and grows again
      deque.append(Tracked(1000 + i));
      deque.popFirst();
    }
    EXPECT_EQ(Tracked::live, deque.count() + moved.count());
  }
  EXPECT_EQ(Tracked::live, 0);
}

// Copyable, with a move that may throw: growth copies it, and a failed pop changes nothing.
struct Fragile {
  static inline bool failMoves = false;
  int value;
  explicit Fragile(int v) : value(v) {}
  Fragile(const Fragile&) = default;
  Fragile(Fragile&& other) : value(other.value) {
    if (failMoves) throw std::runtime_error("move");
  }
};

TEST(Deque, AThrowingMoveLeavesTheDequeIntact) {
  Deque<Fragile> deque;
  deque.emplace(0);
  while (deque.count() < deque.capacity()) deque.emplace(static_cast<int>(deque.count()));
  std::ptrdiff_t full = deque.count();
  Fragile::failMoves = true;
  const Fragile extra(-1);
  deque.append(extra);  // grows by copying, since moving could throw
  EXPECT_GT(deque.capacity(), full);
  EXPECT_THROW((void)deque.popFirst(), std::runtime_error);
  Fragile::failMoves = false;
  EXPECT_EQ(deque.count(), full + 1);
  EXPECT_EQ(deque.popFirst()->value, 0);
}

TEST(Deque, HoldsMoveOnlyElements) {
  static_assert(!std::copy_constructible<Deque<std::unique_ptr<int>>>);
  Deque<std::unique_ptr<int>> deque;
  for (int i = 0; i < 10; ++i) deque.append(std::make_unique<int>(i));
  EXPECT_EQ(**deque.popFirst(), 0);
  Deque<std::unique_ptr<int>> moved = std::move(deque);
  EXPECT_EQ(moved.count(), 9);
}

TEST(Deque, OverAlignedElementsAreAligned) {
  struct alignas(64) Wide {
    int value;
  };
  Deque<Wide> deque;
  for (int i = 0; i < 20; ++i) deque.append(Wide{i});
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(detail::DequeInspection::storage(deque).buffer()) % 64,
            0U);
  EXPECT_EQ(deque.popFirst()->value, 0);
}

// Copies on other threads share the block; each one's first pop copies it while the others read
// it and drop their references.
TEST(Deque, CopiesMayBeUsedOnDifferentThreads) {
  for (int round = 0; round < 50; ++round) {
    Deque<std::string> original;
    for (int i = 0; i < 64; ++i) original.append(std::to_string(i));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([copy = original]() mutable {
        for (int i = 0; i < 64; ++i) EXPECT_EQ(copy.popFirst(), std::to_string(i));
        copy.append("end");
      });
    }
    original = Deque<std::string>();
    for (std::thread& thread : threads) thread.join();
  }
}

// Threads copy one const deque at the same time (each copy marks it as shared) and change their
// copies, while the owner waits to change the original.
TEST(Deque, OneDequeMayBeCopiedOnSeveralThreadsAtOnce) {
  for (int round = 0; round < 50; ++round) {
    Deque<std::string> original;
    for (int i = 0; i < 64; ++i) original.append(std::to_string(i));
    const Deque<std::string>& source = original;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&source] {
        Deque<std::string> copy = source;
        copy.append("end");
        for (int i = 0; i < 64; ++i) EXPECT_EQ(copy.popFirst(), std::to_string(i));
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(detail::DequeInspection::storage(original).mayBeShared());
    const auto* before = detail::DequeInspection::storage(original).buffer();
    original.append("last");
    EXPECT_EQ(detail::DequeInspection::storage(original).buffer(), before);
    EXPECT_EQ(original.count(), 65);
  }
}

using DequeDeathTest = ::testing::Test;

TEST(DequeDeathTest, GrowthBeyondTheIntegerRangeStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::ptrdiff_t huge = std::numeric_limits<std::ptrdiff_t>::max() / 3 * 2;
  EXPECT_DEATH((void)detail::dequeGrowthCapacity(huge, huge + 1),
               "CarrowPrivate/Collections:[0-9]+: Fatal error: Deque capacity overflow");
}

}  // namespace
}  // namespace carrow
