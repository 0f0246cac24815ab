#include "lumo/image_cropper.h"

#include <algorithm>
#include <cstring>

namespace lumo {

ImagePtr PixelCropper::cropRegion(const Region& region, const ImagePtr& image) const {
  if (!image || region.width() <= 0 || region.height() <= 0) {
    return std::make_shared<const Image>();
  }
  // Clip in 64-bit before narrowing: regions may lie far outside the image.
  const std::int64_t left = std::clamp<std::int64_t>(region.left(), 0, image->width());
  const std::int64_t top = std::clamp<std::int64_t>(region.top(), 0, image->height());
  const std::int64_t right =
      std::clamp<std::int64_t>(region.left() + region.width(), left, image->width());
  const std::int64_t bottom =
      std::clamp<std::int64_t>(region.top() + region.height(), top, image->height());
  Image cropped(static_cast<int>(right - left), static_cast<int>(bottom - top));
  if (cropped.empty()) return std::make_shared<const Image>();
  for (int y = 0; y < cropped.height(); ++y) {
    std::memcpy(cropped.row(y), image->row(static_cast<int>(top) + y) + left * Image::kChannels,
                cropped.stride());
  }
  return std::make_shared<const Image>(std::move(cropped));
}

}  // namespace lumo
