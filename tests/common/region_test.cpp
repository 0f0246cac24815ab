#include "lumo/region.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "common/rectangle_size.h"
#include "support/log_capture.h"

namespace lumo::test {
namespace {

void expectIntegers(const Region& r, std::int64_t left, std::int64_t top, std::int64_t width,
                    std::int64_t height) {
  EXPECT_EQ(r.left(), left);
  EXPECT_EQ(r.top(), top);
  EXPECT_EQ(r.width(), width);
  EXPECT_EQ(r.height(), height);
}

TEST(Region, IntegersTruncateTowardZeroAndRectKeepsFractions) {
  const Region r(Rect(0.9, -0.9, 10.99, 5.5));
  expectIntegers(r, 0, 0, 10, 5);
  EXPECT_EQ(r.rect(), Rect(0.9, -0.9, 10.99, 5.5));
  expectIntegers(Region(Rect(-3.7, -0.2, -1.5, 2.999)), -3, 0, -1, 2);
}

TEST(Region, EqualityComparesTheDoubleViews) {
  EXPECT_FALSE(Region(0, 0, 10, 10) == Region(Rect(0.5, 0, 10, 10)));
  EXPECT_EQ(Region(0, 0, 10, 10), Region(Rect(0, 0, 10, 10)));
}

TEST(Region, EmptyMeansTheAllZeroRectangleOnly) {
  EXPECT_TRUE(Region().isEmpty());
  EXPECT_TRUE(Region::emptyRegion().isEmpty());
  EXPECT_FALSE(Region(5, 5, 0, 0).isEmpty());
  Region r(1, 2, 3, 4);
  r.makeEmpty();
  EXPECT_TRUE(r.isEmpty());
  expectIntegers(r, 0, 0, 0, 0);
}

TEST(Region, SetRectLeavesTheIntegersAndTheWireFormAlone) {
  Region r(1, 2, 3, 4);
  r.setRect(Rect(10.5, 20, 30, 40));
  expectIntegers(r, 1, 2, 3, 4);
  EXPECT_EQ(r.dictionary(), Json::parse(R"({"left":1,"top":2,"width":3,"height":4})"));
  EXPECT_EQ(r.description(), "{{10.5, 20}, {30, 40}}");
  r.updateWithRect(r.rect());
  expectIntegers(r, 10, 20, 30, 40);
}

TEST(Region, SetLocationKeepsDoubleSizeWhileSetSizeKeepsIntegerOrigin) {
  Region r(Rect(1.5, 2.5, 3.5, 4.5));
  r.setLocation(Point{7.25, 8.75});
  EXPECT_EQ(r.rect(), Rect(7.25, 8.75, 3.5, 4.5));
  expectIntegers(r, 7, 8, 3, 4);
  r.setSize(Size{9.5, 10.5});
  EXPECT_EQ(r.rect(), Rect(7, 8, 9.5, 10.5));
  EXPECT_EQ(r.location(), (Point{7, 8}));
  EXPECT_EQ(r.size(), (Size{9.5, 10.5}));
}

TEST(Region, ScalingTruncatesTheExactProducts) {
  const Region scaled = Region::scaledRegionFromRegion(Region(3, 5, 7, 9), 1.5);
  EXPECT_EQ(scaled.rect(), Rect(4.5, 7.5, 10.5, 13.5));
  expectIntegers(scaled, 4, 7, 10, 13);
  EXPECT_EQ(scaled.description(), "{{4.5, 7.5}, {10.5, 13.5}}");
  // Scaling starts from the integers, not from a fractional rect.
  Region fractional(Rect(1.9, 0, 1.9, 1));
  EXPECT_EQ(Region::scaledRegionFromRegion(fractional, 2).rect(), Rect(2, 0, 2, 2));
}

TEST(Region, ContainsAndInsideAreMirrors) {
  const Region r(0, 0, 100, 100);
  EXPECT_TRUE(r.containsRect(Rect(10, 10, 20, 20)));
  EXPECT_FALSE(r.insideRect(Rect(10, 10, 20, 20)));
  EXPECT_TRUE(r.insideRect(Rect(-1, -1, 200, 200)));
  EXPECT_FALSE(r.containsRect(Rect(90, 90, 20, 20)));
}

TEST(Region, IntersectionLogsAndUsesIntegerViews) {
  LogCapture capture;
  const Region a(Rect(0.5, 0.5, 10.9, 10.9));
  const Region b(5, 5, 20, 20);
  EXPECT_TRUE(Region::regionIsIntersectedWithRegion(a, b));
  const Region i = Region::intersectionBetweenRegion(a, b);
  EXPECT_EQ(i.rect(), Rect(5, 5, 5, 5));
  EXPECT_THAT(capture.lines(),
              ::testing::ElementsAre("[BrixtelLumo] intersecting this region "
                                     "({{0.5, 0.5}, {10.9, 10.9}}) with {{5, 5}, {20, 20}} ..."));
}

TEST(Region, DisjointOrMissingRegionsIntersectToTheZeroRegion) {
  LogCapture capture;
  const Region a(0, 0, 10, 10);
  const Region far(50, 50, 10, 10);
  EXPECT_FALSE(Region::regionIsIntersectedWithRegion(a, far));
  EXPECT_TRUE(Region::intersectionBetweenRegion(a, far).isEmpty());
  EXPECT_FALSE(Region::regionIsIntersectedWithRegion(Region(), a));
  EXPECT_TRUE(Region::intersectionBetweenRegion(Region(), a).isEmpty());
}

// Heights and scales may be NaN or infinite; their integer views must still be defined.
TEST(Region, UnrepresentableDoublesSaturateAndNaNTruncatesToZero) {
  constexpr double kInf = std::numeric_limits<double>::infinity();
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  expectIntegers(Region(Rect(std::nan(""), kInf, -kInf, 1e300)), 0, kMax, kMin, kMax);
  expectIntegers(Region::scaledRegionFromRegion(Region(0, 1, -1, 2), kInf), 0, kMax, kMin, kMax);
  expectIntegers(Region::scaledRegionFromRegion(Region(1, 1, 1, 1), std::nan("")), 0, 0, 0, 0);
}

TEST(Region, IntersectionWhoseIntegerViewIsEmptyIsTheZeroRegion) {
  LogCapture capture;
  // Below one point wide after scaling: the doubles overlap, the integers do not.
  const Region thin = Region::scaledRegionFromRegion(Region(10, 10, 1, 1), 0.5);
  const Region bounds(0, 0, 100, 100);
  EXPECT_TRUE(Region::regionIsIntersectedWithRegion(thin, bounds));
  EXPECT_TRUE(Region::intersectionBetweenRegion(thin, bounds).isEmpty());
  const Region nan = Region::scaledRegionFromRegion(Region(10, 10, 20, 20), std::nan(""));
  EXPECT_FALSE(Region::regionIsIntersectedWithRegion(nan, bounds));
  EXPECT_TRUE(Region::intersectionBetweenRegion(nan, bounds).isEmpty());
}

TEST(RectangleSize, EqualityAndEmptiness) {
  const RectangleSize s(Size{375, 667});
  EXPECT_DOUBLE_EQ(s.width(), 375);
  EXPECT_DOUBLE_EQ(s.height(), 667);
  EXPECT_EQ(s.size(), (Size{375, 667}));
  EXPECT_EQ(s, RectangleSize(Size{375, 667}));
  EXPECT_FALSE(s == RectangleSize(Size{667, 375}));
  EXPECT_TRUE(RectangleSize::emptySize().isEmpty());
  EXPECT_FALSE(RectangleSize(Size{0, 1}).isEmpty());
}

}  // namespace
}  // namespace lumo::test
