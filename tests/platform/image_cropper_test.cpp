#include "platform/image_cropper.h"

#include <gtest/gtest.h>

#include "support/test_images.h"

namespace lumo::test {
namespace {

TEST(PixelCropper, CopiesTheRowsOfTheRectangle) {
  auto crop = PixelCropper().cropRegion(Region(20, 30, 40, 10),
                                        std::make_shared<const Image>(positionScreen(100, 100)));
  ASSERT_EQ(crop->width(), 40);
  ASSERT_EQ(crop->height(), 10);
  EXPECT_EQ(crop->row(0)[0], 20);
  EXPECT_EQ(crop->row(9)[39 * 4 + 1], 39);
}

}  // namespace
}  // namespace lumo::test
