#pragma once

#include <atomic>
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

// What the comparison found at a pixel; the diff image and the difference boxes read these.
enum PixelMark : std::uint8_t { kSame = 0, kTolerated = 1, kDiffers = 2 };

// How many pixels were marked kDiffers and kTolerated.
struct MarkCounts {
  std::uint64_t differing = 0;
  std::uint64_t tolerated = 0;

  MarkCounts& operator+=(const MarkCounts& o) {
    differing += o.differing;
    tolerated += o.tolerated;
    return *this;
  }
  friend bool operator==(const MarkCounts&, const MarkCounts&) = default;
};

// How far (in pixels) an image may be drawn off its baseline and still match at Strict: a
// screen rendered by another rasteriser, font version or GPU lands up to a pixel away.
inline constexpr int kDriftRadius = 1;
// How many levels (0..255, each channel) a drifted pixel may fall outside the colours around
// it: rasterisers round blended edges differently.
inline constexpr int kDriftMargin = 16;

// The largest colour distance the YIQ metric can give (black against white).
inline constexpr float kMaxColourDelta = 35215.0f;

// A colour threshold in 0..1 as a bound on colourDelta.
inline float maxDeltaFor(float threshold) { return kMaxColourDelta * threshold * threshold; }

// Channel c of a pixel with alpha a, composed over white: what a person sees of it.
// Written without a branch so that a row of pixels vectorises; exact for opaque pixels.
inline float onWhite(float c, std::uint8_t a) {
  return 255.0f + (c - 255.0f) * (static_cast<float>(a) / 255.0f);
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
  if ((p[3] & q[3]) == 255) {
    // Both opaque, as screens are: composing over white keeps each channel as it is, so the
    // integer differences give the same value without the conversions.
    return static_cast<float>(p[0] - q[0]) * 0.29889531f +
           static_cast<float>(p[1] - q[1]) * 0.58662247f +
           static_cast<float>(p[2] - q[2]) * 0.11448223f;
  }
  const float dr = onWhite(p[0], p[3]) - onWhite(q[0], q[3]);
  const float dg = onWhite(p[1], p[3]) - onWhite(q[1], q[3]);
  const float db = onWhite(p[2], p[3]) - onWhite(q[2], q[3]);
  return dr * 0.29889531f + dg * 0.58662247f + db * 0.11448223f;
}

// Whether pixel (x, y) of `image` looks like anti-aliasing: it lies on a brightness ramp
// between a darker and a brighter neighbour, one of which sits in a flat area in both images.
bool isAntialiased(const Image& image, int x, int y, const Image& other);
// The same rule, one neighbour at a time: what border pixels use, and the yardstick of the
// interior's faster form.
bool isAntialiasedPlain(const Image& image, int x, int y, const Image& other);

// Whether pixel (x, y) differs only because one image is drawn up to kDriftRadius pixels off
// the other: each image's pixel lies within the colours (give or take kDriftMargin) of the
// other image's pixels around it, and both images show an edge there. Never true where either
// image is flat, so a changed pixel on a plain background always counts.
bool isDrift(const Image& a, const Image& b, int x, int y);

// The Strict and Exact pass over rows [y0, y1) of two images of one size. Pixels at kAtExact
// are marked kDiffers when any byte differs; pixels at kAtStrict when their colour distance
// exceeds maxDelta, unless anti-aliasing or drift explains it (kTolerated). `marks` has a
// byte per pixel, zero on entry; `rowMarked[y]` becomes 1 for rows with any mark. With
// `differs` the scan is only for a verdict: it stops at the first differing pixel, sets the
// flag, and stops too once another scan sharing the flag has set it.
MarkCounts scanPixelRows(const Image& a, const Image& b, int y0, int y1, float maxDelta,
                         const LevelMap& map, std::uint8_t* marks, std::uint8_t* rowMarked,
                         std::atomic<bool>* differs = nullptr);

// scanPixelRows over the whole image, split across up to `threads` threads for large images.
MarkCounts scanPixels(const Image& a, const Image& b, float maxDelta, const LevelMap& map,
                      int threads, std::uint8_t* marks, std::uint8_t* rowMarked,
                      std::atomic<bool>* differs = nullptr);

// The same Strict verdicts computed the plain way: every pixel's colour distance and every
// rule in turn, one thread, no shortcuts. The yardstick for the benchmark and the tests.
MarkCounts scanPixelsReference(const Image& a, const Image& b, float maxDelta, std::uint8_t* marks);

}  // namespace lumo::server::detail
