#include "common/lumo_screenshot.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "common/scaled_screenshot.h"
#include "lumo/out_of_bounds_exception.h"

namespace lumo::test {
namespace {

ImagePtr filled(int width, int height, std::uint8_t value = 0) {
  Image image(width, height);
  std::fill(image.data(), image.data() + image.pixels().size(), value);
  return std::make_shared<const Image>(std::move(image));
}

TEST(LumoScreenshot, CropsToTheScaledRegionClippedToTheImage) {
  ScaledScreenshot shot(filled(100, 100));
  shot.cropRegion(Region(10, 10, 20, 20), 2);
  EXPECT_EQ(shot.size(), (Size{40, 40}));

  ScaledScreenshot edge(filled(100, 100));
  edge.cropRegion(Region(90, 90, 20, 20), 1);
  EXPECT_EQ(edge.size(), (Size{10, 10}));
}

TEST(LumoScreenshot, ARegionOutsideThrowsAndChangesNothing) {
  auto image = filled(100, 100);
  ScaledScreenshot shot(image);
  try {
    shot.cropRegion(Region(100, 100, 10, 10), 2);
    FAIL();
  } catch (const OutOfBoundsException& e) {
    EXPECT_EQ(e.reason(),
              "Region [{{200, 200}, {20, 20}}] is out of screenshot bounds [{{0, 0}, {100, 100}}]");
  }
  EXPECT_EQ(shot.image(), image);
}

TEST(LumoScreenshot, DegenerateScalesAreOutOfBoundsNeverUndefined) {
  const double inf = std::numeric_limits<double>::infinity();
  const struct {
    Region region;
    double scale;
  } cases[] = {{Region(10, 10, 1, 1), 0.5},  // an empty integer intersection
               {Region(10, 10, 20, 20), std::nan("")},
               {Region(10, 10, 20, 20), inf},
               {Region(0, 0, 20, 20), inf},  // 0 x inf is NaN
               {Region(10, 10, 20, 20), -inf}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.region.description() + " x " + std::to_string(c.scale));
    auto image = filled(100, 100);
    ScaledScreenshot shot(image);
    EXPECT_THROW(shot.cropRegion(c.region, c.scale), OutOfBoundsException);
    EXPECT_EQ(shot.image(), image);
  }
}

TEST(LumoScreenshot, StatusBarCutsOfNoSizeGiveAnEmptyImage) {
  const double inf = std::numeric_limits<double>::infinity();
  const std::pair<double, double> cases[] = {
      {std::nan(""), 1}, {20, std::nan("")}, {inf, 1}, {-inf, 1}, {1e300, 1e300}};
  for (const auto& [height, scale] : cases) {
    SCOPED_TRACE(std::to_string(height) + " x " + std::to_string(scale));
    ScaledScreenshot shot(filled(10, 10));
    shot.cropStatusBarWithHeight(height, scale);
    ASSERT_TRUE(shot.image());
    EXPECT_TRUE(shot.image()->empty());
  }
}

TEST(LumoScreenshot, CutsTheStatusBarWithoutCheckingIt) {
  ScaledScreenshot shot(filled(100, 300));
  shot.cropStatusBarWithHeight(20, 2);
  EXPECT_EQ(shot.size(), (Size{100, 260}));
  ScaledScreenshot tall(filled(100, 30));
  tall.cropStatusBarWithHeight(20, 2);
  EXPECT_TRUE(tall.image()->empty());
}

TEST(LumoScreenshot, TheBaseNeitherCropsNorScales) {
  auto image = filled(10, 10);
  LumoScreenshot shot(image);
  auto same = shot.downscale(3);
  EXPECT_NE(same.get(), &shot);
  EXPECT_EQ(same->image(), image) << "the same image object";
  shot.cropStatusBarWithHeight(1, 1);
  EXPECT_FALSE(shot.image()) << "no cropper, no image";
}

TEST(ScaledScreenshot, AveragesTheAreaEachPointCovers) {
  Image image(4, 2);
  const std::uint8_t values[] = {0, 100, 200, 250, 50, 150, 250, 255};
  for (int i = 0; i < 8; ++i) {
    std::fill_n(image.data() + i * 4, 4, values[i]);
  }
  ScaledScreenshot shot(std::make_shared<const Image>(image));
  auto half = shot.downscale(2)->image();
  ASSERT_EQ(half->width(), 2);
  ASSERT_EQ(half->height(), 1);
  EXPECT_EQ(half->row(0)[0], 75);   // (0 + 100 + 50 + 150) / 4
  EXPECT_EQ(half->row(0)[4], 239);  // (200 + 250 + 250 + 255) / 4 = 238.75
  EXPECT_EQ(shot.downscale(1)->image(), shot.image());

  auto third = ScaledScreenshot::areaAverage(filled(1170, 2532, 9), 3);
  EXPECT_EQ(third->width(), 390);
  EXPECT_EQ(third->height(), 844);
  EXPECT_EQ(third->row(843)[389 * 4], 9);
}

}  // namespace
}  // namespace lumo::test
