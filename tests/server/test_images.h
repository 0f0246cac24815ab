#pragma once

#include <cstdint>
#include <random>

#include "lumo/image.h"

// Builders of the images the server tests compare: flat backgrounds, boxes, and glyph-like
// strokes that stand in for text.
namespace lumo::test {

struct Colour {
  std::uint8_t r = 0, g = 0, b = 0, a = 255;
};

inline constexpr Colour kWhite{255, 255, 255};
inline constexpr Colour kBlack{0, 0, 0};
inline constexpr Colour kRed{220, 30, 30};
inline constexpr Colour kBlue{30, 60, 220};

inline void fill(Image& image, int left, int top, int width, int height, Colour c) {
  for (int y = top; y < top + height; ++y) {
    for (int x = left; x < left + width; ++x) {
      std::uint8_t* p = image.row(y) + x * 4;
      p[0] = c.r, p[1] = c.g, p[2] = c.b, p[3] = c.a;
    }
  }
}

inline Image solid(int width, int height, Colour c = kWhite) {
  Image image(width, height);
  fill(image, 0, 0, width, height, c);
  return image;
}

// A line of "text": vertical strokes 2 px wide, spaced by 4 px, whose heights follow `seed`,
// so that two seeds give two different words of the same extent. Every word starts and ends
// at full height, as capitals and ascenders make it.
inline void text(Image& image, int left, int top, int width, int height, unsigned seed,
                 Colour c = kBlack) {
  std::mt19937 random(seed);
  for (int x = left; x + 2 <= left + width; x += 4) {
    const int h = height / 2 + static_cast<int>(random() % (height / 2 + 1));
    fill(image, x, top + height - h, 2, h, c);
  }
  fill(image, left, top, 2, height, c);
  fill(image, left + width - 2, top, 2, height, c);
}

// A button: a filled box with a word inside.
inline void button(Image& image, int left, int top, int width, int height, Colour fillColour,
                   unsigned word) {
  fill(image, left, top, width, height, fillColour);
  text(image, left + 8, top + 6, width - 16, height - 12, word, kWhite);
}

// Noise with the given seed: every pixel a random colour.
inline Image noise(int width, int height, unsigned seed) {
  Image image(width, height);
  std::mt19937 random(seed);
  for (std::size_t i = 0; i < image.pixels().size(); ++i) {
    image.data()[i] = static_cast<std::uint8_t>(random());
  }
  return image;
}

// A small screen: a title, a line of text and a button; `word` varies the text.
inline Image screen(unsigned word = 1, Colour buttonColour = kRed, int buttonTop = 120) {
  Image image = solid(200, 240);
  text(image, 20, 20, 120, 16, 100);
  text(image, 20, 60, 160, 12, word);
  button(image, 40, buttonTop, 120, 36, buttonColour, 7);
  return image;
}

}  // namespace lumo::test
