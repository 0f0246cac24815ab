#pragma once

#include "lumo/image.h"
#include "lumo/region.h"

namespace lumo {

// Cuts a region out of an image; a screenshot type installs one to be able to crop.
class ImageCropper {
 public:
  virtual ~ImageCropper() = default;
  // A new image holding the part of `image` under `region` (in the image's pixels).
  virtual ImagePtr cropRegion(const Region& region, const ImagePtr& image) const = 0;
};

// Copies the rows of the region clipped to the image. A region with a negative or zero size,
// or one outside the image, gives an empty image: never an out-of-bounds read.
class PixelCropper : public ImageCropper {
 public:
  ImagePtr cropRegion(const Region& region, const ImagePtr& image) const override;
};

}  // namespace lumo
