#pragma once

#include <cstdint>

#include "lumo/image.h"

namespace lumo::test {

// A screen whose pixels tell where they are (red x, green y, blue 0x80, opaque), so crops,
// cuts and scales show in the pixels that arrive.
inline Image positionScreen(int width, int height) {
  Image image(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::uint8_t* p = image.row(y) + x * Image::kChannels;
      p[0] = static_cast<std::uint8_t>(x);
      p[1] = static_cast<std::uint8_t>(y);
      p[2] = 0x80;
      p[3] = 0xff;
    }
  }
  return image;
}

// A screen of one grey `shade` with a red `mark` x `mark` square at its top left: two marks
// are two screens that differ in one place.
inline Image markedScreen(int width, int height, std::uint8_t shade, int mark = 0) {
  Image image(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::uint8_t* p = image.row(y) + x * Image::kChannels;
      const bool marked = x < mark && y < mark;
      p[0] = marked ? 250 : shade;
      p[1] = marked ? 20 : shade;
      p[2] = shade;
      p[3] = 255;
    }
  }
  return image;
}

}  // namespace lumo::test
