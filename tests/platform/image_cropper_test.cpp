#include "platform/image_cropper.h"

#include <gtest/gtest.h>

#include "support/test_images.h"

namespace lumo::test {
namespace {

ImagePtr numbered(int width, int height) {
  return std::make_shared<const Image>(positionScreen(width, height));
}

TEST(PixelCropper, CopiesTheRowsOfTheRectangle) {
  PixelCropper cropper;
  auto crop = cropper.cropRegion(Region(20, 30, 40, 10), numbered(100, 100));
  ASSERT_EQ(crop->width(), 40);
  ASSERT_EQ(crop->height(), 10);
  EXPECT_EQ(crop->row(0)[0], 20);
  EXPECT_EQ(crop->row(9)[39 * 4 + 1], 39);
}

TEST(PixelCropper, NegativeEmptyOrOutsideCropsGiveAnEmptyImage) {
  PixelCropper cropper;
  auto image = numbered(10, 10);
  for (const Region& region :
       {Region(0, 40, 10, -30), Region(0, 0, 0, 5), Region(-20, -20, 5, 5)}) {
    EXPECT_TRUE(cropper.cropRegion(region, image)->empty()) << region.description();
  }
}

}  // namespace
}  // namespace lumo::test
