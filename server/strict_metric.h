#pragma once

#include <cstdint>
#include <vector>

#include "lumo/image.h"

namespace lumo::server::detail {

// What a pixel is compared at inside one comparison. Pixels that are ignored, at level None or
// inside a floating region's reach are left to other passes (kSkip).
enum PixelLevel : std::uint8_t {
  kSkip = 0,
  kAtLayout = 1,
  kAtContent = 2,
  kAtStrict = 3,
  kAtExact = 4
};

// Either one level for every pixel or one level per pixel (row-major, width * height).
struct LevelMap {
  const std::uint8_t* levels = nullptr;
  std::uint8_t uniform = kAtStrict;

  std::uint8_t at(std::size_t index) const { return levels ? levels[index] : uniform; }
};

struct PixelDiffs {
  std::vector<std::uint32_t> differences;
  std::vector<std::uint32_t> tolerated;
};

// The largest colour distance the YIQ metric can give (black against white).
inline constexpr float kMaxColourDelta = 35215.0f;

// A colour threshold in 0..1 as a bound on colourDelta.
inline float maxDeltaFor(float threshold) { return kMaxColourDelta * threshold * threshold; }

// Channel c of a pixel with alpha a, composed over white: what a person sees of it.
inline float onWhite(float c, std::uint8_t a) {
  return a == 255 ? c : 255.0f + (c - 255.0f) * (static_cast<float>(a) / 255.0f);
}

// Perceptual distance of two RGBA pixels: the squared YIQ difference weighted towards
// brightness. Exactly 0 for identical pixels.
inline float colourDelta(const std::uint8_t* p, const std::uint8_t* q) {
  const float dr = onWhite(p[0], p[3]) - onWhite(q[0], q[3]);
  const float dg = onWhite(p[1], p[3]) - onWhite(q[1], q[3]);
  const float db = onWhite(p[2], p[3]) - onWhite(q[2], q[3]);
  const float y = dr * 0.29889531f + dg * 0.58662247f + db * 0.11448223f;
  const float i = dr * 0.59597799f - dg * 0.27417610f - db * 0.32180189f;
  const float qq = dr * 0.21147017f - dg * 0.52261711f + db * 0.31114694f;
  return 0.5053f * y * y + 0.299f * i * i + 0.1957f * qq * qq;
}

// Signed brightness difference of two RGBA pixels.
inline float brightnessDelta(const std::uint8_t* p, const std::uint8_t* q) {
  const float dr = onWhite(p[0], p[3]) - onWhite(q[0], q[3]);
  const float dg = onWhite(p[1], p[3]) - onWhite(q[1], q[3]);
  const float db = onWhite(p[2], p[3]) - onWhite(q[2], q[3]);
  return dr * 0.29889531f + dg * 0.58662247f + db * 0.11448223f;
}

// Whether pixel (x, y) of `image` looks like anti-aliasing: it lies on a brightness ramp
// between a darker and a brighter neighbour, one of which sits in a flat area in both images.
bool isAntialiased(const Image& image, int x, int y, const Image& other);

// The Strict/Exact pass over rows [y0, y1) of two images of one size: pixels at kAtExact
// differ when any byte differs; pixels at kAtStrict when their colour distance exceeds
// maxDelta and neither image shows anti-aliasing there. Appends in pixel order.
void scanPixelRows(const Image& a, const Image& b, int y0, int y1, float maxDelta,
                   const LevelMap& map, PixelDiffs& out);

// scanPixelRows over the whole image, split across up to `threads` threads for large images.
PixelDiffs scanPixels(const Image& a, const Image& b, float maxDelta, const LevelMap& map,
                      int threads);

// The same Strict verdicts computed the plain way: every pixel's colour distance, one thread.
// Kept as the yardstick for the benchmark and the tests of the fast pass.
PixelDiffs scanPixelsReference(const Image& a, const Image& b, float maxDelta);

}  // namespace lumo::server::detail
