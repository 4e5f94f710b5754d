#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <carrow/concurrency/atomic.h>

namespace carrow {
namespace {

TEST(Atomic, CopiesShareTheLockButNotTheValue) {
  Atomic<std::string> first(std::string("a"));
  Atomic<std::string> copy = first;
  EXPECT_EQ(first.lock(), copy.lock());
  EXPECT_NE(first.lock(), Atomic<std::string>(std::string("a")).lock());
  copy.setWrappedValue("b");
  EXPECT_EQ(first.wrappedValue(), "a");
  EXPECT_EQ(copy.wrappedValue(), "b");
}

TEST(Atomic, ModifyWritesBackWhenTheChangeThrows) {
  Atomic<int> cell(1);
  EXPECT_THROW(cell.modify([](int& value) {
    value = 7;
    throw std::runtime_error("late");
  }),
               std::runtime_error);
  EXPECT_EQ(cell.wrappedValue(), 7);
}

TEST(Atomic, IncrementFromTwoThreadsIsIndivisible) {
  Atomic<int> cell(0);
  auto work = [&] {
    for (int i = 0; i < 1000; ++i) cell.increment(1);
  };
  std::thread a(work), b(work);
  a.join();
  b.join();
  EXPECT_EQ(cell.wrappedValue(), 2000);
}

TEST(Atomic, ReadsNeverSeeATornValue) {
  // Two words that are always written together must always be read together.
  struct Pair {
    std::uint64_t a, b;
  };
  Atomic<Pair> cell(Pair{0, 0});
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (std::uint64_t i = 1; i <= 100000; ++i) cell.setWrappedValue(Pair{i, ~i});
    done = true;
  });
  while (!done) {
    Pair seen = cell.wrappedValue();
    if (seen.a != 0) {
      ASSERT_EQ(seen.b, ~seen.a);
    }
  }
  writer.join();
}

using AtomicDeathTest = ::testing::Test;

TEST(AtomicDeathTest, IncrementOverflowStopsTheProcess) {
  Atomic<std::int8_t> cell(std::numeric_limits<std::int8_t>::max());
  EXPECT_DEATH(cell.increment(1), "CarrowPrivate/Locks:[0-9]+: Fatal error: arithmetic overflow");
  Atomic<unsigned> unsignedCell(std::numeric_limits<unsigned>::max());
  EXPECT_DEATH(unsignedCell.increment(1u), "Fatal error");
}

struct Counted {
  static inline int destroyed = 0;
  int id = 0;
  Counted(int i) : id(i) {}
  Counted(const Counted&) = default;
  Counted& operator=(const Counted&) = default;
  ~Counted() { ++destroyed; }
};

TEST(AtomicBox, ReadWriteModifyAndDestroyOnce) {
  AtomicBox<int> box(1);
  box.setValue(2);
  box.modify([](int& v) { v *= 10; });
  EXPECT_EQ(box.value(), 20);
  {
    AtomicBox<Counted> counted(Counted(3));
    Counted::destroyed = 0;
  }
  EXPECT_EQ(Counted::destroyed, 1);
}

}  // namespace
}  // namespace carrow
