#include "demo_screens.h"

#include <algorithm>
#include <cstdint>
#include <memory>

namespace lumo::cli {
namespace {

constexpr int kWidth = 360;
constexpr int kHeight = 640;

struct Colour {
  std::uint8_t r, g, b;
};

constexpr Colour kBackground{245, 246, 250};
constexpr Colour kStatusBar{33, 37, 41};
constexpr Colour kBrand{52, 101, 214};
constexpr Colour kChangedBrand{230, 120, 30};
constexpr Colour kWhite{255, 255, 255};
constexpr Colour kText{60, 64, 72};
constexpr Colour kMutedText{160, 166, 176};
constexpr Colour kField{228, 231, 238};
constexpr Colour kGreen{46, 160, 90};

// Shapes with hard edges: enough to look like an app, and a PNG of it stays a few kilobytes.
class Canvas {
 public:
  Canvas() : image_(kWidth, kHeight) { fill(0, 0, kWidth, kHeight, kBackground); }

  void fill(int left, int top, int width, int height, Colour c) {
    for (int y = std::max(top, 0); y < std::min(top + height, kHeight); ++y) {
      for (int x = std::max(left, 0); x < std::min(left + width, kWidth); ++x) {
        put(x, y, c);
      }
    }
  }
  // A rectangle with corners rounded by `radius`.
  void rounded(int left, int top, int width, int height, int radius, Colour c) {
    for (int y = top; y < top + height; ++y) {
      for (int x = left; x < left + width; ++x) {
        const int dx = std::max({left + radius - x, x - (left + width - 1 - radius), 0});
        const int dy = std::max({top + radius - y, y - (top + height - 1 - radius), 0});
        if (dx * dx + dy * dy <= radius * radius && x >= 0 && y >= 0 && x < kWidth && y < kHeight) {
          put(x, y, c);
        }
      }
    }
  }
  void circle(int cx, int cy, int radius, Colour c) {
    rounded(cx - radius, cy - radius, 2 * radius + 1, 2 * radius + 1, radius, c);
  }
  // A line of "text": a bar with the height of a letter.
  void text(int left, int top, int width, Colour c = kText) { rounded(left, top, width, 10, 3, c); }

  ImagePtr done() { return std::make_shared<const Image>(std::move(image_)); }

 private:
  void put(int x, int y, Colour c) {
    std::uint8_t* p = image_.row(y) + x * Image::kChannels;
    p[0] = c.r;
    p[1] = c.g;
    p[2] = c.b;
    p[3] = 255;
  }

  Image image_;
};

// Status bar and app bar shared by every screen.
void frame(Canvas& canvas, int titleWidth) {
  canvas.fill(0, 0, kWidth, 24, kStatusBar);
  canvas.text(16, 7, 34, kWhite);              // clock
  canvas.fill(kWidth - 44, 8, 28, 9, kWhite);  // battery
  canvas.fill(0, 24, kWidth, 56, kBrand);
  canvas.rounded(16, 44, titleWidth, 14, 4, kWhite);
}

ImagePtr login(bool changed) {
  Canvas c;
  frame(c, 70);
  c.circle(kWidth / 2, 170, 48, kBrand);
  c.circle(kWidth / 2, 170, 30, kWhite);
  c.text(120, 240, 120);
  for (int top : {290, 350}) {
    c.rounded(32, top, kWidth - 64, 44, 8, kField);
    c.text(48, top + 17, 90, kMutedText);
  }
  c.rounded(32, 430, kWidth - 64, 48, 10, changed ? kChangedBrand : kBrand);
  c.text(150, 449, 60, kWhite);
  c.text(125, 510, 110, kMutedText);
  return c.done();
}

ImagePtr inbox() {
  Canvas c;
  frame(c, 80);
  for (int row = 0; row < 7; ++row) {
    const int top = 92 + row * 74;
    c.fill(0, top, kWidth, 70, kWhite);
    c.circle(44, top + 35, 22, row % 3 == 0 ? kBrand : kMutedText);
    c.text(80, top + 18, 140 + (row * 37) % 80);
    c.text(80, top + 40, 200 - (row * 23) % 70, kMutedText);
    if (row < 2) {  // unread
      c.circle(kWidth - 28, top + 24, 6, kBrand);
    }
  }
  return c.done();
}

ImagePtr settings() {
  Canvas c;
  frame(c, 100);
  for (int row = 0; row < 6; ++row) {
    const int top = 100 + row * 64;
    c.fill(0, top, kWidth, 60, kWhite);
    c.text(24, top + 25, 120 + (row * 29) % 90);
    const bool on = row % 2 == 0;
    c.rounded(kWidth - 72, top + 16, 48, 28, 14, on ? kGreen : kField);
    c.circle(on ? kWidth - 38 : kWidth - 58, top + 30, 11, kWhite);
  }
  return c.done();
}

}  // namespace

std::vector<DemoScreen> drawDemoScreens(bool changed) {
  return {{"Login", login(changed)}, {"Inbox", inbox()}, {"Settings", settings()}};
}

}  // namespace lumo::cli
