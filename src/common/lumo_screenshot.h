#pragma once

#include <memory>

#include "lumo/geometry.h"
#include "lumo/image.h"
#include "lumo/region.h"
#include "platform/image_cropper.h"
#include "platform/png.h"

namespace lumo {

// One captured screen with the edits a checkpoint makes before encoding: crop to the check's
// region, cut the status bar off, downscale. The crops replace the image in place (the image
// objects themselves are never changed); cropping needs a cropper, which a capturing subclass
// supplies. Held as std::shared_ptr<LumoScreenshot>; used on the test thread.
class LumoScreenshot {
 public:
  // `png`, when given, must decode to exactly `image`. With a PNG and no image, the PNG is
  // decoded when the pixels are first needed: a checkpoint that sends the PNG as it is never
  // needs them.
  explicit LumoScreenshot(ImagePtr image, PngBytes png = nullptr)
      : image_(std::move(image)), png_(std::move(png)) {}
  virtual ~LumoScreenshot() = default;

  // The pixels, decoded now if the capture gave only a PNG (PngError if it does not decode).
  const ImagePtr& image() const;
  // The PNG the image was decoded from, while the image is still exactly that; null once a
  // crop or a downscale has changed it.
  const PngBytes& png() const { return png_; }
  // The image's width and height; zero without an image.
  Size size() const;

  // Keeps only the part under `region` (given in points; scaled by `scale` to the image's
  // pixels, truncating). A region partly outside is clipped silently; one that misses the
  // image throws OutOfBoundsException and leaves the image as it was. A region covering the
  // whole image keeps the image object (and its PNG).
  void cropRegion(const Region& region, double scale);
  // Cuts `height` points (times `scale` pixels) off the top. Unchecked: a cut taller than the
  // image reaches the cropper as a negative height and gives an empty image.
  void cropStatusBarWithHeight(double height, double scale);

  // The image to send, brought from pixels to points: a subclass's hook. The base keeps the
  // size and returns a new screenshot holding the same image object and PNG.
  virtual std::shared_ptr<LumoScreenshot> downscale(double scale);

 protected:
  // The pixels if they are at hand, without decoding the PNG; null otherwise.
  const ImagePtr& decodedImage() const { return image_; }
  // The cropper the crops use; none here, so crops leave no image.
  virtual std::shared_ptr<const ImageCropper> imageCropper() const { return nullptr; }

 private:
  void replaceWithCrop(const Region& region);

  mutable ImagePtr image_;
  PngBytes png_;
};

}  // namespace lumo
