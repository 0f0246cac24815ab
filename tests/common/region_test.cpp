#include "lumo/region.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "common/rectangle_size.h"
#include "lumo/geometry.h"
#include "support/log_capture.h"

namespace lumo::test {
namespace {

using Ints = std::vector<std::int64_t>;

Ints integers(const Region& r) { return {r.left(), r.top(), r.width(), r.height()}; }

// Negative sizes are standardised first; shared edges count as inside, touching edges do not
// intersect, and a missing intersection is the null rectangle.
TEST(Rect, ContainsAndIntersectionAfterStandardising) {
  const Rect flipped(10, 10, -10, -10);
  EXPECT_EQ(flipped, Rect(0, 0, 10, 10));
  const struct {
    Rect a, b;
    bool contains;
    Rect intersection;
  } cases[] = {{Rect(0, 0, 20, 20), flipped, true, Rect(0, 0, 10, 10)},
               {flipped, Rect(5, 5, 10, 10), false, Rect(5, 5, 5, 5)},
               {Rect(0, 0, 100, 100), Rect(0, 0, 100, 50), true, Rect(0, 0, 100, 50)},
               {Rect(0, 0, 10, 10), Rect(10, 0, 10, 10), false, Rect::null()},
               {Rect(), Rect(0, 0, 10, 10), false, Rect::null()}};
  for (const auto& c : cases) {
    SCOPED_TRACE(toString(c.a) + " and " + toString(c.b));
    EXPECT_EQ(c.a.contains(c.b), c.contains);
    EXPECT_EQ(c.a.intersects(c.b), !c.intersection.isNull());
    EXPECT_EQ(c.a.intersection(c.b), c.intersection);
  }
  EXPECT_EQ(toString(Rect(-1, 0.1, 1e6, 2.5)), "{{-1, 0.1}, {1000000, 2.5}}");
  EXPECT_TRUE(Rect(5, 5, 0, 3).isEmpty());
}

// The integer view truncates toward zero; the rect keeps the fractions.
TEST(Region, IntegersTruncateTowardZeroAndRectKeepsFractions) {
  const Region r(Rect(0.9, -0.9, 10.99, 5.5));
  EXPECT_EQ(integers(r), (Ints{0, 0, 10, 5}));
  EXPECT_EQ(r.rect(), Rect(0.9, -0.9, 10.99, 5.5));
  EXPECT_EQ(integers(Region(Rect(-3.7, -0.2, -1.5, 2.999))), (Ints{-3, 0, -1, 2}));
  // Scaling multiplies the integers, not a fractional rect, and truncates the exact products.
  const Region scaled = Region::scaledRegionFromRegion(Region(3, 5, 7, 9), 1.5);
  EXPECT_EQ(scaled.rect(), Rect(4.5, 7.5, 10.5, 13.5));
  EXPECT_EQ(integers(scaled), (Ints{4, 7, 10, 13}));
  EXPECT_EQ(Region::scaledRegionFromRegion(Region(Rect(1.9, 0, 1.9, 1)), 2).rect(),
            Rect(2, 0, 2, 2));
  // Equality compares the rects.
  EXPECT_FALSE(Region(0, 0, 10, 10) == Region(Rect(0.5, 0, 10, 10)));
}

TEST(Region, EmptyMeansTheAllZeroRectangleOnly) {
  EXPECT_TRUE(Region().isEmpty());
  EXPECT_FALSE(Region(5, 5, 0, 0).isEmpty());
  Region r(1, 2, 3, 4);
  r.makeEmpty();
  EXPECT_EQ(integers(r), Ints(4));
  EXPECT_TRUE(RectangleSize::emptySize().isEmpty());
  EXPECT_FALSE(RectangleSize(Size{0, 1}).isEmpty());
}

// setRect changes only the rect (the wire form writes the integers); setLocation keeps the
// double size while setSize keeps the integer origin.
TEST(Region, SettersChangeOnlyTheirOwnView) {
  Region r(1, 2, 3, 4);
  r.setRect(Rect(10.5, 20, 30, 40));
  EXPECT_EQ(integers(r), (Ints{1, 2, 3, 4}));
  EXPECT_EQ(r.dictionary(), Json::parse(R"({"left":1,"top":2,"width":3,"height":4})"));
  EXPECT_EQ(r.description(), "{{10.5, 20}, {30, 40}}");
  r.updateWithRect(r.rect());
  EXPECT_EQ(integers(r), (Ints{10, 20, 30, 40}));

  Region moved(Rect(1.5, 2.5, 3.5, 4.5));
  moved.setLocation(Point{7.25, 8.75});
  EXPECT_EQ(moved.rect(), Rect(7.25, 8.75, 3.5, 4.5));
  EXPECT_EQ(integers(moved), (Ints{7, 8, 3, 4}));
  moved.setSize(Size{9.5, 10.5});
  EXPECT_EQ(moved.rect(), Rect(7, 8, 9.5, 10.5));
}

TEST(Region, ContainsAndInsideAreMirrors) {
  EXPECT_TRUE(Region(0, 0, 100, 100).containsRect(Rect(10, 10, 20, 20)));
  EXPECT_FALSE(Region(0, 0, 100, 100).insideRect(Rect(10, 10, 20, 20)));
}

// Intersections use the integer views: a region below one point wide after scaling overlaps
// nothing there and gives the zero region.
TEST(Region, IntersectionLogsAndUsesIntegerViews) {
  const Region thin = Region::scaledRegionFromRegion(Region(10, 10, 1, 1), 0.5);
  const struct {
    Region a, b;
    bool intersected;
    Region intersection;
  } cases[] = {{Region(Rect(0.5, 0.5, 10.9, 10.9)), Region(5, 5, 20, 20), true, Region(5, 5, 5, 5)},
               {Region(0, 0, 10, 10), Region(50, 50, 10, 10), false, Region()},
               {thin, Region(0, 0, 100, 100), true, Region()}};
  LogCapture capture;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.a.description());
    EXPECT_EQ(Region::regionIsIntersectedWithRegion(c.a, c.b), c.intersected);
    EXPECT_EQ(Region::intersectionBetweenRegion(c.a, c.b), c.intersection);
  }
  EXPECT_THAT(
      capture.lines(),
      ::testing::Contains(
          "[BrixtelLumo] intersecting this region ({{0.5, 0.5}, {10.9, 10.9}}) with {{5, 5}, "
          "{20, 20}} ..."));
}

}  // namespace
}  // namespace lumo::test
