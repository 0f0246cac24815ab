#pragma once

#include <memory>

#include "common/lumo_screenshot.h"

namespace lumo {

// A screenshot in pixels from a screen whose scale ratio (pixels per point) may differ from
// 1. Crops with the pixel cropper and downscales for real, so that the image sent and the
// regions sent with it are both in points.
class ScaledScreenshot : public LumoScreenshot {
 public:
  explicit ScaledScreenshot(ImagePtr image, PngBytes png = nullptr)
      : LumoScreenshot(std::move(image), std::move(png)) {}

  // Area-averages the image down by `scale` (each point the mean of the pixels it covers,
  // fractional coverage weighted). A scale of 1 or less keeps the same image object and PNG.
  std::shared_ptr<LumoScreenshot> downscale(double scale) override;

  // The resampling itself: `image` reduced to round(size / scale), at least 1 x 1.
  static ImagePtr areaAverage(const ImagePtr& image, double scale);

 protected:
  std::shared_ptr<const ImageCropper> imageCropper() const override;
};

}  // namespace lumo
