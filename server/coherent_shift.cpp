#include "coherent_shift.h"

#include <algorithm>
#include <cstdlib>

namespace lumo::server::detail {
namespace {

// How far (levels, each channel) a blended pixel may lie off the straight mix of its two
// neighbours: rasterisers round and weigh coverage differently. Between two colours closer
// than four times this the margin shrinks with their contrast, so that in a flat area a
// changed colour is a change and not a shift.
constexpr int kBlendMargin = 16;
constexpr int kFoundWithin = 3;

const std::uint8_t* at(const Image& image, int x, int y) {
  x = std::clamp(x, 0, image.width() - 1);
  y = std::clamp(y, 0, image.height() - 1);
  return image.row(y) + x * 4;
}

// Whether each channel of `p` lies within the range of `image`'s pixels from (x0, y0) to
// (x1, y1), both included, give or take a margin that shrinks with their contrast (a flat
// block explains nothing).
bool withinRange(const std::uint8_t* p, const Image& image, int x0, int y0, int x1, int y1) {
  int low[4] = {255, 255, 255, 255}, high[4] = {0, 0, 0, 0};
  for (int y = std::min(y0, y1); y <= std::max(y0, y1); ++y) {
    for (int x = std::min(x0, x1); x <= std::max(x0, x1); ++x) {
      const std::uint8_t* q = at(image, x, y);
      for (int c = 0; c < 4; ++c) {
        low[c] = std::min<int>(low[c], q[c]);
        high[c] = std::max<int>(high[c], q[c]);
      }
    }
  }
  int span = 0;
  for (int c = 0; c < 4; ++c) {
    span = std::max(span, high[c] - low[c]);
  }
  const int margin = std::clamp(span / 4, 1, kBlendMargin);
  for (int c = 0; c < 4; ++c) {
    if (p[c] < low[c] - margin || p[c] > high[c] + margin) {
      return false;
    }
  }
  return true;
}

// Whether pixel (x, y) of `a` mixes the colours of `b`'s 2 x 2 block one step towards (sx, sy),
// what a re-rasterisation a fraction of a pixel off in that direction gives, and p of `b`
// is a colour found within kFoundWithin pixels of p in `a`: a sharper rendering need not be a
// mix of a softer one (a bar straddling two rows at half ink is one row at full ink in the
// other), but never brings a colour of its own.
bool explainedAt(const Image& a, const Image& b, int x, int y, int sx, int sy) {
  return withinRange(at(a, x, y), b, x, y, x + sx, y + sy) &&
         withinRange(at(b, x, y), a, x - kFoundWithin, y - kFoundWithin, x + kFoundWithin,
                     y + kFoundWithin);
}

}  // namespace

unsigned shiftDirections(const Image& a, const Image& b, int x, int y) {
  unsigned directions = 0;
  for (unsigned k = 0; k < 4; ++k) {
    const int sx = k & 1 ? 1 : -1, sy = k & 2 ? 1 : -1;
    if (explainedAt(a, b, x, y, sx, sy)) {
      directions |= 1u << k;
    }
    if (explainedAt(b, a, x, y, -sx, -sy)) {
      directions |= 1u << (k + 4);
    }
  }
  return directions;
}

}  // namespace lumo::server::detail
