#include "platform/image_cropper.h"

#include <gtest/gtest.h>

#include "support/test_images.h"

namespace lumo::test {
namespace {

ImagePtr numbered(int width, int height) {
  return std::make_shared<const Image>(positionScreen(width, height));
}

TEST(PixelCropper, CopiesTheRowsOfTheClippedRectangle) {
  PixelCropper cropper;
  auto crop = cropper.cropRegion(Region(20, 30, 40, 10), numbered(100, 100));
  ASSERT_EQ(crop->width(), 40);
  ASSERT_EQ(crop->height(), 10);
  EXPECT_EQ(crop->row(0)[0], 20);
  EXPECT_EQ(crop->row(9)[39 * 4 + 1], 39);

  auto clipped = cropper.cropRegion(Region(90, -5, 50, 20), numbered(100, 100));
  EXPECT_EQ(clipped->width(), 10);
  EXPECT_EQ(clipped->height(), 15);
  EXPECT_EQ(clipped->row(0)[0], 90);
}

TEST(PixelCropper, NegativeEmptyOrOutsideCropsGiveAnEmptyImage) {
  PixelCropper cropper;
  auto image = numbered(10, 10);
  for (const Region& region : {Region(0, 40, 10, -30), Region(0, 0, 0, 5), Region(-20, -20, 5, 5),
                               Region(INT64_MAX - 1, 0, 5, 5)}) {
    EXPECT_TRUE(cropper.cropRegion(region, image)->empty()) << region.description();
  }
}

}  // namespace
}  // namespace lumo::test
