#include "common/lumo_screenshot.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numeric>
#include <string>
#include <utility>

#include "common/scaled_screenshot.h"
#include "lumo/out_of_bounds_exception.h"

namespace lumo::test {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

ImagePtr filled(int width, int height, std::uint8_t value = 0) {
  Image image(width, height);
  std::fill(image.data(), image.data() + image.pixels().size(), value);
  return std::make_shared<const Image>(std::move(image));
}

// A crop scales the region and clips it to the image. A region outside, or one a degenerate
// scale leaves undefined, is out of bounds and changes nothing.
TEST(LumoScreenshot, CropsToTheScaledRegionClippedToTheImage) {
  const struct {
    Region region;
    double scale;
    Size size;  // empty: out of bounds
  } cases[] = {{Region(90, 90, 20, 20), 1, {10, 10}},
               {Region(100, 100, 10, 10), 2, {}},
               {Region(10, 10, 1, 1), 0.5, {}},  // an empty integer intersection
               {Region(10, 10, 20, 20), std::nan(""), {}},
               {Region(0, 0, 20, 20), kInf, {}}};  // 0 x inf is NaN
  for (const auto& c : cases) {
    SCOPED_TRACE(c.region.description() + " x " + std::to_string(c.scale));
    auto image = filled(100, 100);
    ScaledScreenshot shot(image);
    if (c.size != Size{}) {
      shot.cropRegion(c.region, c.scale);
      EXPECT_EQ(shot.size(), c.size);
      continue;
    }
    EXPECT_THROW(shot.cropRegion(c.region, c.scale), OutOfBoundsException);
    EXPECT_EQ(shot.image(), image);
  }
  try {
    ScaledScreenshot(filled(100, 100)).cropRegion(Region(100, 100, 10, 10), 2);
    FAIL();
  } catch (const OutOfBoundsException& e) {
    EXPECT_EQ(e.reason(),
              "Region [{{200, 200}, {20, 20}}] is out of screenshot bounds [{{0, 0}, {100, 100}}]");
  }
}

// The status bar is cut without any check; a cut of no defined size leaves an empty image.
TEST(LumoScreenshot, CutsTheStatusBarWithoutCheckingIt) {
  const struct {
    int height;
    double bar, scale;
    double left;
  } cases[] = {{300, 20, 2, 260}, {30, 20, 2, 0}, {10, std::nan(""), 1, 0}, {10, -kInf, 1, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.bar) + " x " + std::to_string(c.scale));
    ScaledScreenshot shot(filled(100, c.height));
    shot.cropStatusBarWithHeight(c.bar, c.scale);
    ASSERT_TRUE(shot.image());
    const Size expected = c.left ? Size{100, c.left} : Size();
    EXPECT_EQ(shot.image()->empty() ? Size() : shot.size(), expected);
  }
}

TEST(ScaledScreenshot, AveragesTheAreaEachPointCovers) {
  Image image(4, 2);
  const std::uint8_t values[] = {0, 100, 200, 250, 50, 150, 250, 255};
  for (int i = 0; i < 8; ++i) {
    std::fill_n(image.data() + i * 4, 4, values[i]);
  }
  ScaledScreenshot shot(std::make_shared<const Image>(image));
  auto half = shot.downscale(2)->image();
  ASSERT_EQ(std::pair(half->width(), half->height()), std::pair(2, 1));
  EXPECT_EQ(half->row(0)[0], 75);   // (0 + 100 + 50 + 150) / 4
  EXPECT_EQ(half->row(0)[4], 239);  // (200 + 250 + 250 + 255) / 4 = 238.75
  EXPECT_EQ(shot.downscale(1)->image(), shot.image());
  auto third = ScaledScreenshot::areaAverage(filled(1170, 2532, 9), 3);
  ASSERT_EQ(std::pair(third->width(), third->height()), std::pair(390, 844));
  EXPECT_EQ(third->row(843)[389 * 4], 9);
}

// A screen given as PNG bytes alone is decoded only for an edit; one kept as it is keeps them.
TEST(ScaledScreenshot, DecodesAPngGivenAloneOnlyForAnEdit) {
  Image image(4, 2);
  std::iota(image.data(), image.data() + image.pixels().size(), std::uint8_t{0});
  const auto png = std::make_shared<const std::vector<std::uint8_t>>(encodePng(image));
  ScaledScreenshot kept(nullptr, png);
  kept.cropRegion(Region(0, 0, 4, 2), 1);
  EXPECT_EQ(kept.size(), (Size{4, 2}));
  EXPECT_EQ(kept.downscale(1)->png(), png);
  ScaledScreenshot cut(nullptr, png);
  cut.cropStatusBarWithHeight(1, 1);
  EXPECT_EQ(cut.png(), nullptr);
  EXPECT_EQ(*cut.image(),
            *PixelCropper().cropRegion(Region(0, 1, 4, 1), std::make_shared<const Image>(image)));
}

}  // namespace
}  // namespace lumo::test
