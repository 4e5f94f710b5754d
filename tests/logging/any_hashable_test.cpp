#include <string>
#include <unordered_set>

#include <gtest/gtest.h>

#include <carrow/logging/any_hashable.h>

namespace carrow {
namespace {

struct Point {
  int x, y;
  bool operator==(const Point&) const = default;
  friend std::ostream& operator<<(std::ostream& out, const Point& p) {
    return out << "(" << p.x << ", " << p.y << ")";
  }
};

}  // namespace
}  // namespace carrow

template <>
struct std::hash<carrow::Point> {
  std::size_t operator()(const carrow::Point& p) const noexcept { return p.x * 31 + p.y; }
};

namespace carrow {
namespace {

TEST(AnyHashable, EqualityIsTheErasedTypesOwnAndTypesNeverMix) {
  EXPECT_EQ(AnyHashable(Point{1, 2}), AnyHashable(Point{1, 2}));
  EXPECT_NE(AnyHashable(Point{1, 2}), AnyHashable(Point{2, 1}));
  EXPECT_NE(AnyHashable(1), AnyHashable(1L));
  EXPECT_NE(AnyHashable(1), AnyHashable(std::string("1")));
}

TEST(AnyHashable, AllStringTypesAreOneTextType) {
  const char* literal = "key";
  EXPECT_EQ(AnyHashable(std::string("key")), AnyHashable(std::string_view("key")));
  EXPECT_EQ(AnyHashable(literal), AnyHashable(std::string("key")));
  EXPECT_EQ(AnyHashable("key").hash(), AnyHashable(std::string("key")).hash());
}

TEST(AnyHashable, PrintsThroughTheTypesOwnOperator) {
  EXPECT_EQ(AnyHashable(Point{3, 4}).description(), "(3, 4)");
  EXPECT_EQ(AnyHashable(42).description(), "42");
  EXPECT_EQ(AnyHashable("text").description(), "text");
}

TEST(AnyHashable, BorrowedLookupsFindOwnedKeys) {
  std::unordered_set<AnyHashable, AnyHashableHash, AnyHashableEqual> keys;
  keys.insert(AnyHashable(Point{5, 6}));
  keys.insert(AnyHashable("name"));
  const std::string name = "name";
  EXPECT_TRUE(keys.contains(detail::borrow(Point{5, 6})));
  EXPECT_TRUE(keys.contains(detail::borrow(name)));
  EXPECT_FALSE(keys.contains(detail::borrow(Point{6, 5})));
  // An owned copy made from a borrowed view outlives the original.
  AnyHashable retained = [] {
    std::string temporary = "short-lived";
    return AnyHashable::retaining(detail::borrow(temporary));
  }();
  EXPECT_EQ(retained, AnyHashable("short-lived"));
}

}  // namespace
}  // namespace carrow
