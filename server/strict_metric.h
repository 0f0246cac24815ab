#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "lumo/image.h"
#include "perceptual_colour.h"

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

// Channel c of a pixel with alpha a, composed over white: what a person sees of it.
// Written without a branch so that a row of pixels vectorises; exact for opaque pixels.
inline float onWhite(float c, std::uint8_t a) {
  return 255.0f + (c - 255.0f) * (static_cast<float>(a) / 255.0f);
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

// How the Strict judgement weighs colour, in the perceptual distance of perceptual_colour.h.
struct StrictRule {
  // A colour shift this large, held over an area of kAreaSide x kAreaSide pixels on average,
  // is a change; below it differences are invisible or noise.
  float justNoticeable = kJustNoticeable;
  // A pixel this far off counts on its own, unless anti-aliasing or a coherent shift of its
  // neighbourhood explains it.
  float visibleAlone = 5 * kJustNoticeable;
};

// The side of the smallest area whose average shift is judged: any kAreaSide x kAreaSide
// area one just-noticeable step off is a change.
inline constexpr int kAreaSide = 4;

// The Strict and Exact pass over two images of one size. Pixels at kAtExact are marked
// kDiffers when any byte differs. Pixels at kAtStrict are judged by the rule: anti-aliasing
// and a shift of at most a pixel that one displacement explains for a whole block are
// kTolerated; what is left is kDiffers when visible alone or part of an area whose average
// shift is noticeable. `marks` has a byte per pixel, zero on entry; `rowMarked[y]` becomes 1
// for rows with any mark. The work is split across up to `threads` threads for large images.
// With `differs` the scan is only for a verdict: it stops soon after the first differing
// pixel and sets the flag.
MarkCounts scanPixels(const Image& a, const Image& b, const StrictRule& rule, const LevelMap& map,
                      int threads, std::uint8_t* marks, std::uint8_t* rowMarked,
                      std::atomic<bool>* differs = nullptr);

}  // namespace lumo::server::detail
