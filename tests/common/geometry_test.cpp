#include "lumo/geometry.h"

#include <gtest/gtest.h>

namespace lumo::test {
namespace {

TEST(Rect, NegativeSizesAreStandardisedForEveryOperation) {
  const Rect flipped(10, 10, -10, -10);
  EXPECT_EQ(flipped.standardized().origin, (Point{0, 0}));
  EXPECT_EQ(flipped.standardized().size, (Size{10, 10}));
  EXPECT_EQ(flipped, Rect(0, 0, 10, 10));
  EXPECT_TRUE(Rect(0, 0, 20, 20).contains(flipped));
  EXPECT_TRUE(flipped.contains(Rect(2, 2, 3, 3)));
  EXPECT_EQ(flipped.intersection(Rect(5, 5, 10, 10)), Rect(5, 5, 5, 5));
  EXPECT_DOUBLE_EQ(flipped.maxX(), 10);
  EXPECT_DOUBLE_EQ(flipped.minY(), 0);
}

TEST(Rect, ContainsIncludesSharedEdgesOnly) {
  const Rect outer(0, 0, 100, 100);
  EXPECT_TRUE(outer.contains(outer));
  EXPECT_TRUE(outer.contains(Rect(0, 0, 100, 50)));
  EXPECT_FALSE(outer.contains(Rect(50, 50, 50.5, 10)));
  EXPECT_FALSE(outer.contains(Rect(-0.1, 0, 10, 10)));
  EXPECT_FALSE(Rect(10, 10, 5, 5).contains(outer));
  EXPECT_FALSE(outer.contains(Rect::null()));
}

TEST(Rect, IntersectionNeedsAnAreaInCommon) {
  const Rect a(0, 0, 10, 10);
  EXPECT_TRUE(a.intersects(Rect(5, 5, 10, 10)));
  EXPECT_EQ(a.intersection(Rect(5, 5, 10, 10)), Rect(5, 5, 5, 5));
  // Touching edges and disjoint rectangles give the null rectangle.
  EXPECT_FALSE(a.intersects(Rect(10, 0, 10, 10)));
  EXPECT_TRUE(a.intersection(Rect(10, 0, 10, 10)).isNull());
  EXPECT_TRUE(a.intersection(Rect(20, 20, 1, 1)).isNull());
  EXPECT_FALSE(Rect().intersects(a));
  EXPECT_FALSE(a.intersects(Rect::null()));
}

TEST(Rect, EqualityAndEmptiness) {
  EXPECT_EQ(Rect::null(), Rect::null());
  EXPECT_FALSE(Rect::null() == Rect());
  EXPECT_FALSE(Rect(0, 0, 10, 10) == Rect(0.5, 0, 10, 10));
  EXPECT_TRUE(Rect(5, 5, 0, 3).isEmpty());
  EXPECT_FALSE(Rect(5, 5, 1, 3).isEmpty());
}

TEST(Rect, TextFormUsesShortestNumbers) {
  EXPECT_EQ(toString(Rect(4.5, 7.5, 10.5, 13.5)), "{{4.5, 7.5}, {10.5, 13.5}}");
  EXPECT_EQ(toString(Rect(0, 0, 100, 100)), "{{0, 0}, {100, 100}}");
  EXPECT_EQ(toString(Rect(-1, 0.1, 1e6, 2)), "{{-1, 0.1}, {1000000, 2}}");
  EXPECT_EQ(toString(Point{1, 2}), "{1, 2}");
  EXPECT_EQ(toString(Size{3.25, 0}), "{3.25, 0}");
}

}  // namespace
}  // namespace lumo::test
