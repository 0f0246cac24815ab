#include "platform/image_cropper.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace lumo {

ImagePtr PixelCropper::cropRegion(const Region& region, const ImagePtr& image) const {
  if (!image || region.width() <= 0 || region.height() <= 0) {
    return std::make_shared<const Image>();
  }
  // Clip in 64 bits before narrowing; the far edge saturates, since a region may lie
  // anywhere (width and height are positive here, so the subtractions cannot overflow).
  auto clip = [](std::int64_t start, std::int64_t length, std::int64_t limit) {
    const std::int64_t end = start > limit - length ? limit : start + length;
    const std::int64_t first = std::clamp<std::int64_t>(start, 0, limit);
    return std::pair{first, std::clamp<std::int64_t>(end, first, limit)};
  };
  const auto [left, right] = clip(region.left(), region.width(), image->width());
  const auto [top, bottom] = clip(region.top(), region.height(), image->height());
  Image cropped(static_cast<int>(right - left), static_cast<int>(bottom - top));
  if (cropped.empty()) {
    return std::make_shared<const Image>();
  }
  for (int y = 0; y < cropped.height(); ++y) {
    std::memcpy(cropped.row(y), image->row(static_cast<int>(top) + y) + left * Image::kChannels,
                cropped.stride());
  }
  return std::make_shared<const Image>(std::move(cropped));
}

}  // namespace lumo
