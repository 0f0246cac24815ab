#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace lumo {

// An 8-bit RGBA image: width x height pixels, rows top to bottom, four bytes a pixel
// (red, green, blue, alpha), no padding between rows. Screenshots are shared between the
// controller, the task and the screenshot object as `ImagePtr`, so they are never mutated
// once handed out.
class Image {
 public:
  static constexpr std::size_t kChannels = 4;

  // An empty image (0 x 0).
  Image() = default;
  // A width x height image of transparent black. Negative sizes count as 0.
  Image(int width, int height);
  // Takes the pixels as they are; throws std::invalid_argument unless
  // rgba.size() == width * height * 4.
  Image(int width, int height, std::vector<std::uint8_t> rgba);

  int width() const { return width_; }
  int height() const { return height_; }
  bool empty() const { return width_ == 0 || height_ == 0; }
  std::size_t stride() const { return static_cast<std::size_t>(width_) * kChannels; }

  const std::uint8_t* data() const { return pixels_.data(); }
  std::uint8_t* data() { return pixels_.data(); }
  const std::uint8_t* row(int y) const { return pixels_.data() + stride() * y; }
  std::uint8_t* row(int y) { return pixels_.data() + stride() * y; }
  const std::vector<std::uint8_t>& pixels() const { return pixels_; }

  friend bool operator==(const Image&, const Image&) = default;

 private:
  int width_ = 0;
  int height_ = 0;
  std::vector<std::uint8_t> pixels_;
};

using ImagePtr = std::shared_ptr<const Image>;

// The bytes of a PNG file, shared between a capture and the screenshots made from it.
using PngBytes = std::shared_ptr<const std::vector<std::uint8_t>>;

}  // namespace lumo
