#include "lumo/image.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace lumo {

Image::Image(int width, int height)
    : width_(std::max(width, 0)),
      height_(std::max(height, 0)),
      pixels_(static_cast<std::size_t>(width_) * height_ * kChannels, 0) {
  if (width_ == 0 || height_ == 0) {
    width_ = height_ = 0;
  }
}

Image::Image(int width, int height, std::vector<std::uint8_t> rgba)
    : width_(width), height_(height), pixels_(std::move(rgba)) {
  if (width < 0 || height < 0 ||
      pixels_.size() != static_cast<std::size_t>(width) * height * kChannels) {
    throw std::invalid_argument(
        "Image of " + std::to_string(width) + "x" + std::to_string(height) + " needs " +
        std::to_string(std::size_t(std::max(width, 0)) * std::max(height, 0) * kChannels) +
        " bytes of RGBA, got " + std::to_string(pixels_.size()));
  }
  if (width_ == 0 || height_ == 0) {
    width_ = height_ = 0;
  }
}

}  // namespace lumo
