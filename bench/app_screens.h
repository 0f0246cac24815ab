#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

#include "lumo/image.h"

// An app screen drawn with anti-aliasing, as a phone renders one: a status bar, a header on a
// gradient, list rows with round avatars, two lines of text and hairline separators, a photo
// card, a text field and a rounded button. The fields of ScreenLook are the changes the
// comparison benchmark draws; with several columns of rows it is a wide web page.
namespace lumo::test {

struct Rgb {
  double r = 0, g = 0, b = 0;
};

struct ScreenLook {
  int widthPoints = 130;
  int heightPoints = 300;
  double scale = 3;  // pixels per point
  // The list in this many columns side by side, as a wide page lays it out.
  int columns = 1;
  // The whole screen drawn this many pixels off: another rasteriser, font version or GPU.
  double driftX = 0, driftY = 0;
  bool dark = false;
  std::string buttonLabel = "Sign in";
};

// A fill of one colour for ScreenPainter's shapes.
inline auto flat(Rgb c) {
  return [c](double, double) { return c; };
}

class ScreenPainter {
 public:
  explicit ScreenPainter(const ScreenLook& look)
      : look_(look),
        image_(static_cast<int>(look.widthPoints * look.scale),
               static_cast<int>(look.heightPoints * look.scale)) {}

  Image draw() {
    const double w = look_.widthPoints, h = look_.heightPoints;
    const Rgb background = look_.dark ? Rgb{18, 18, 20} : Rgb{255, 255, 255};
    const Rgb text = look_.dark ? Rgb{235, 235, 240} : Rgb{28, 28, 32};
    const Rgb muted = look_.dark ? Rgb{150, 150, 158} : Rgb{110, 110, 118};
    const Rgb separator = look_.dark ? Rgb{60, 60, 66} : Rgb{205, 205, 212};
    const Rgb field = look_.dark ? Rgb{44, 44, 48} : Rgb{236, 236, 241};
    box(-10, -10, w + 20, h + 20, 0, flat(background));
    // Header: a vertical gradient under the title.
    box(-10, 14, w + 20, 32, 0, [&](double, double y) {
      const double k = (y - 14) / 32;
      return look_.dark ? Rgb{36 - 12 * k, 36 - 12 * k, 40 - 12 * k}
                        : Rgb{250 - 14 * k, 250 - 14 * k, 252 - 12 * k};
    });
    write(6, 4, 6, "9:41", text);
    write(8, 22, 12, "Inbox", text);
    const int rows = std::max((look_.heightPoints - 170) / 34, 1);
    const int columns = std::max(look_.columns, 1);
    const double columnWidth = w / columns;
    for (int column = 0; column < columns; ++column) {
      const double left = column * columnWidth;
      for (int row = 0; row < rows; ++row) {
        const int i = column * rows + row;
        const double top = 50 + row * 34;
        const Rgb avatar{60.0 + 40 * (i % 4), 140.0 - 20 * (i % 3), 200.0 - 30 * (i % 5)};
        box(left + 8, top + 5, 24, 24, 12, flat(avatar));
        write(left + 38, top + 7, 8, "Alice " + std::to_string(i), text);
        write(left + 38, top + 19, 6, "see you at " + std::to_string(10 + i), muted);
        box(left + 38, top + 33, columnWidth - 38, 1 / look_.scale, 0, flat(separator));
      }
    }
    const double bottom = h - 116;
    box(8, bottom, w - 16, 50, 8, [&](double x, double y) {
      const double u = (x - 8) / (w - 16), v = (y - bottom) / 50;
      return Rgb{40 + 180 * u, 90 + 100 * v, 200 - 120 * u * v};
    });
    box(8, h - 60, w - 16, 18, 4, flat(field));
    write(12, h - 55, 8, "hello", text);
    box(8, h - 34, w - 16, 22, 6, flat({0, 122, 255}));
    write(8 + (w - 16 - textWidth(look_.buttonLabel, 8)) / 2, h - 27, 8, look_.buttonLabel,
          {255, 255, 255});
    return std::move(image_);
  }

 private:
  template <typename Fill>
  void box(double left, double top, double width, double height, double radius, Fill colourAt) {
    const double s = look_.scale;
    const double x0 = left * s + look_.driftX, y0 = top * s + look_.driftY;
    const double x1 = x0 + width * s, y1 = y0 + height * s, r = radius * s;
    const double cx = (x0 + x1) / 2, cy = (y0 + y1) / 2;
    const double hx = (x1 - x0) / 2 - r, hy = (y1 - y0) / 2 - r;
    for (int py = std::max(static_cast<int>(std::floor(y0)), 0);
         py < std::min(static_cast<int>(std::ceil(y1)), image_.height()); ++py) {
      for (int px = std::max(static_cast<int>(std::floor(x0)), 0);
           px < std::min(static_cast<int>(std::ceil(x1)), image_.width()); ++px) {
        double coverage;
        if (r == 0) {
          // Straight sides: the exact share of the pixel inside.
          coverage = (std::min(px + 1.0, x1) - std::max<double>(px, x0)) *
                     (std::min(py + 1.0, y1) - std::max<double>(py, y0));
        } else {
          const double qx = std::abs(px + 0.5 - cx) - hx, qy = std::abs(py + 0.5 - cy) - hy;
          const double outside = std::hypot(std::max(qx, 0.0), std::max(qy, 0.0));
          const double distance = outside + std::min(std::max(qx, qy), 0.0) - r;
          coverage = std::clamp(0.5 - distance, 0.0, 1.0);
        }
        if (coverage <= 0) {
          continue;
        }
        coverage = std::min(coverage, 1.0);
        const Rgb c = colourAt((px + 0.5 - look_.driftX) / s, (py + 0.5 - look_.driftY) / s);
        std::uint8_t* p = image_.row(py) + px * 4;
        const double channels[3] = {c.r, c.g, c.b};
        for (int i = 0; i < 3; ++i) {
          const double v = p[i] * (1 - coverage) + std::clamp(channels[i], 0.0, 255.0) * coverage;
          p[i] = static_cast<std::uint8_t>(std::lround(v));
        }
        p[3] = 255;
      }
    }
  }

  // Glyphs of 3 x 5 strokes chosen by the character, so that another letter draws other
  // strokes; `size` is the glyph height in points.
  static double textWidth(const std::string& text, double size) {
    return static_cast<double>(text.size()) * size * 4 / 5;
  }

  void write(double left, double top, double size, const std::string& text, Rgb colour) {
    const double cell = size / 5;
    for (std::size_t i = 0; i < text.size(); ++i) {
      const unsigned c = static_cast<unsigned char>(text[i]);
      if (c == ' ') {
        continue;
      }
      const unsigned bits = ((c * 2654435761u) >> 9) | 0x4925u;  // a stem on the left
      auto on = [bits](int column, int row) { return (bits >> (row * 3 + column) & 1u) != 0; };
      const double x = left + static_cast<double>(i) * 4 * cell;
      // Each run of strokes in a row, then in a column, is one rounded bar, as a pen draws
      // it; a column's single strokes are already drawn by their rows.
      for (const bool across : {true, false}) {
        const int lines = across ? 5 : 3, length = across ? 3 : 5;
        for (int line = 0; line < lines; ++line) {
          const auto at = [&](int k) { return across ? on(k, line) : on(line, k); };
          for (int from = 0, to = 0; from < length; from = to) {
            for (to = from + 1; to < length && at(from) == at(to);) {
              ++to;
            }
            if (at(from) && (across || to - from > 1)) {
              const double along = from * cell, extent = (to - from) * cell;
              box(x + (across ? along : line * cell), top + (across ? line * cell : along),
                  across ? extent : cell, across ? cell : extent, cell * 0.4, flat(colour));
            }
          }
        }
      }
    }
  }

  const ScreenLook& look_;
  Image image_;
};

inline Image drawScreen(const ScreenLook& look) { return ScreenPainter(look).draw(); }

}  // namespace lumo::test
