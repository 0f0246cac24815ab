#include "common/lumo_screenshot.h"

#include "common/argument_guard.h"
#include "lumo/out_of_bounds_exception.h"

namespace lumo {

const ImagePtr& LumoScreenshot::image() const {
  if (!image_ && png_) {
    image_ = std::make_shared<const Image>(decodePng(*png_));
  }
  return image_;
}

Size LumoScreenshot::size() const {
  if (!image_ && png_) {
    const auto [width, height] = checkPng(*png_);
    return {static_cast<double>(width), static_cast<double>(height)};
  }
  if (!image_) {
    return {};
  }
  return {static_cast<double>(image_->width()), static_cast<double>(image_->height())};
}

void LumoScreenshot::cropRegion(const Region& region, double scale) {
  const Region scaled = Region::scaledRegionFromRegion(region, scale);
  const Size bounds = size();
  const Region imageBounds(Rect(0, 0, bounds.width, bounds.height));
  const Region clipped = Region::intersectionBetweenRegion(scaled, imageBounds);
  if (clipped.isEmpty()) {
    throw OutOfBoundsException(scaled, imageBounds);
  }
  replaceWithCrop(clipped);
}

void LumoScreenshot::cropStatusBarWithHeight(double height, double scale) {
  const double cut = height * scale;
  const Size bounds = size();
  replaceWithCrop(Region(Rect(0, cut, bounds.width, bounds.height - cut)));
}

std::shared_ptr<LumoScreenshot> LumoScreenshot::downscale(double /*scale*/) {
  return std::make_shared<LumoScreenshot>(image_, png_);  // still undecoded, if it was
}

void LumoScreenshot::replaceWithCrop(const Region& region) {
  // Nothing to cut: the image stays, and so do the bytes that can be sent for it.
  const Size bounds = size();
  const Rect& rect = region.rect();
  if ((image_ || png_) && rect.origin.x == 0 && rect.origin.y == 0 &&
      rect.size.width == bounds.width && rect.size.height == bounds.height) {
    return;
  }
  auto cropper = imageCropper();
  image_ = cropper ? cropper->cropRegion(region, image()) : nullptr;
  png_ = nullptr;
}

}  // namespace lumo
