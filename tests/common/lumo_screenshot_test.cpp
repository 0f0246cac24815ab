#include "common/lumo_screenshot.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "common/scaled_screenshot.h"
#include "lumo/out_of_bounds_exception.h"

namespace lumo::test {
namespace {

ImagePtr filled(int width, int height) { return std::make_shared<const Image>(width, height); }

// A crop scales the region and clips it to the image. A region outside, or one whose integer
// intersection is empty, is out of bounds and changes nothing.
TEST(LumoScreenshot, CropsToTheScaledRegionClippedToTheImage) {
  const struct {
    Region region;
    double scale;
    Size size;  // empty: out of bounds
  } cases[] = {{Region(90, 90, 20, 20), 1, {10, 10}},
               {Region(100, 100, 10, 10), 2, {}},
               {Region(10, 10, 1, 1), 0.5, {}}};  // an empty integer intersection
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
    EXPECT_EQ(e.name(), "OutOfBoundsException");
    EXPECT_EQ(e.reason(),
              "Region [{{200, 200}, {20, 20}}] is out of screenshot bounds [{{0, 0}, {100, 100}}]");
  }
}

// The status bar is cut without any check; a cut past the bottom leaves an empty image.
TEST(LumoScreenshot, CutsTheStatusBarWithoutCheckingIt) {
  ScaledScreenshot shot(filled(100, 300));
  shot.cropStatusBarWithHeight(20, 2);
  EXPECT_EQ(shot.size(), (Size{100, 260}));
  ScaledScreenshot tooShort(filled(100, 30));
  tooShort.cropStatusBarWithHeight(20, 2);
  EXPECT_TRUE(tooShort.image() && tooShort.image()->empty());
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
}

}  // namespace
}  // namespace lumo::test
