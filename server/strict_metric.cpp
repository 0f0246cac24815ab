#include "strict_metric.h"

#include <emmintrin.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

namespace lumo::server::detail {
namespace {

// Below this many pixels a second thread costs more than it saves.
constexpr std::size_t kMinPixelsPerThread = 1 << 18;

std::uint32_t load32(const std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// Whether pixel (x, y) has more than two neighbours of exactly its colour (pixels on the
// image border count the missing side as one such neighbour).
bool hasManySiblings(const Image& image, int x, int y) {
  const int x0 = std::max(x - 1, 0), y0 = std::max(y - 1, 0);
  const int x1 = std::min(x + 1, image.width() - 1), y1 = std::min(y + 1, image.height() - 1);
  int same = (x == x0 || x == x1 || y == y0 || y == y1) ? 1 : 0;
  const std::uint32_t centre = load32(image.row(y) + x * 4);
  for (int ny = y0; ny <= y1; ++ny) {
    for (int nx = x0; nx <= x1; ++nx) {
      if ((nx == x && ny == y) || load32(image.row(ny) + nx * 4) != centre) {
        continue;
      }
      if (++same > 2) {
        return true;
      }
    }
  }
  return false;
}

// Whether the eight neighbours of an interior pixel all have exactly its colour: then neither
// anti-aliasing nor drift can explain a difference there.
bool flatAround(const std::uint8_t* centre, std::size_t stride) {
  const std::uint32_t v = load32(centre);
  const std::uint8_t* above = centre - stride;
  const std::uint8_t* below = centre + stride;
  return load32(centre - 4) == v && load32(centre + 4) == v && load32(above - 4) == v &&
         load32(above) == v && load32(above + 4) == v && load32(below - 4) == v &&
         load32(below) == v && load32(below + 4) == v;
}

// The lowest and highest value of each channel within kDriftRadius of a pixel.
struct ChannelRange {
  std::uint8_t low[4] = {255, 255, 255, 255};
  std::uint8_t high[4] = {0, 0, 0, 0};

  bool flat() const { return std::memcmp(low, high, 4) == 0; }
  bool holds(const std::uint8_t* p) const {
    for (int c = 0; c < 4; ++c) {
      if (p[c] + kDriftMargin < low[c] || p[c] > high[c] + kDriftMargin) {
        return false;
      }
    }
    return true;
  }
};

ChannelRange rangeAround(const Image& image, int x, int y) {
  ChannelRange range;
  static_assert(kDriftRadius == 1, "the vector path reads 3 x 3 pixels");
  if (x > 0 && x + 2 < image.width() && y > 0 && y + 1 < image.height()) {
    // Four pixels from each of three rows; the fourth column is overwritten by the third.
    const std::uint8_t* p = image.row(y) + (x - 1) * 4;
    const std::size_t stride = image.stride();
    auto load = [](const std::uint8_t* q) {
      __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
      // Lanes 0..2 are the three columns; lane 3 repeats lane 2.
      return _mm_shuffle_epi32(v, _MM_SHUFFLE(2, 2, 1, 0));
    };
    const __m128i r0 = load(p - stride), r1 = load(p), r2 = load(p + stride);
    __m128i low = _mm_min_epu8(_mm_min_epu8(r0, r1), r2);
    __m128i high = _mm_max_epu8(_mm_max_epu8(r0, r1), r2);
    low = _mm_min_epu8(low, _mm_shuffle_epi32(low, _MM_SHUFFLE(1, 0, 3, 2)));
    low = _mm_min_epu8(low, _mm_shuffle_epi32(low, _MM_SHUFFLE(2, 3, 0, 1)));
    high = _mm_max_epu8(high, _mm_shuffle_epi32(high, _MM_SHUFFLE(1, 0, 3, 2)));
    high = _mm_max_epu8(high, _mm_shuffle_epi32(high, _MM_SHUFFLE(2, 3, 0, 1)));
    const std::uint32_t lowBytes = static_cast<std::uint32_t>(_mm_cvtsi128_si32(low));
    const std::uint32_t highBytes = static_cast<std::uint32_t>(_mm_cvtsi128_si32(high));
    std::memcpy(range.low, &lowBytes, 4);
    std::memcpy(range.high, &highBytes, 4);
    return range;
  }
  const int x0 = std::max(x - kDriftRadius, 0), x1 = std::min(x + kDriftRadius, image.width() - 1);
  const int y0 = std::max(y - kDriftRadius, 0);
  const int y1 = std::min(y + kDriftRadius, image.height() - 1);
  for (int ny = y0; ny <= y1; ++ny) {
    const std::uint8_t* row = image.row(ny);
    for (int nx = x0; nx <= x1; ++nx) {
      for (int c = 0; c < 4; ++c) {
        range.low[c] = std::min(range.low[c], row[nx * 4 + c]);
        range.high[c] = std::max(range.high[c], row[nx * 4 + c]);
      }
    }
  }
  return range;
}

// Anti-aliasing and drift live on edges. Where both images are smooth around a pixel (a
// gradient, a photo's sky) a difference is a change of colour, and the costly tests are spared.
constexpr int kEdgeContrast = 8;

bool smooth(const std::uint8_t* low, const std::uint8_t* high) {
  for (int c = 0; c < 4; ++c) {
    if (high[c] - low[c] > kEdgeContrast) {
      return false;
    }
  }
  return true;
}

// isDrift with the ranges around the pixel in each image already at hand.
bool driftWithin(const ChannelRange& aroundA, const ChannelRange& aroundB, const Image& a,
                 const Image& b, int x, int y) {
  return !aroundA.flat() && aroundA.holds(b.row(y) + x * 4) && !aroundB.flat() &&
         aroundB.holds(a.row(y) + x * 4);
}

// Whether anti-aliasing or drift explains a difference at (x, y); `plain` takes the
// one-neighbour-at-a-time form of the anti-aliasing test, for the reference scan.
bool explained(const Image& a, const Image& b, int x, int y, bool plain = false) {
  const ChannelRange aroundA = rangeAround(a, x, y), aroundB = rangeAround(b, x, y);
  if (smooth(aroundA.low, aroundA.high) && smooth(aroundB.low, aroundB.high)) {
    return false;
  }
  if (driftWithin(aroundA, aroundB, a, b, x, y)) {
    return true;
  }
  return plain ? isAntialiasedPlain(a, x, y, b) || isAntialiasedPlain(b, x, y, a)
               : isAntialiased(a, x, y, b) || isAntialiased(b, x, y, a);
}

// The colour distance of each pixel of two rows, in a loop the compiler turns into vector code.
void rowDeltas(const std::uint8_t* __restrict ra, const std::uint8_t* __restrict rb, int count,
               float* __restrict out) {
  for (int x = 0; x < count; ++x) {
    const std::uint8_t* p = ra + x * 4;
    const std::uint8_t* q = rb + x * 4;
    const float dr = onWhite(p[0], p[3]) - onWhite(q[0], q[3]);
    const float dg = onWhite(p[1], p[3]) - onWhite(q[1], q[3]);
    const float db = onWhite(p[2], p[3]) - onWhite(q[2], q[3]);
    const float y = dr * 0.29889531f + dg * 0.58662247f + db * 0.11448223f;
    const float i = dr * 0.59597799f - dg * 0.27417610f - db * 0.32180189f;
    const float qq = dr * 0.21147017f - dg * 0.52261711f + db * 0.31114694f;
    out[x] = 0.5053f * y * y + 0.299f * i * i + 0.1957f * qq * qq;
  }
}

}  // namespace

bool isAntialiased(const Image& image, int x, int y, const Image& other) {
  if (x > 0 && y > 0 && x + 1 < image.width() && y + 1 < image.height()) {
    // Interior pixels, the bulk of a changed screen: the same rule with all eight deltas
    // computed first and the extremes picked without a branch per neighbour, which noise
    // would make the processor mispredict. Ties go to the first neighbour in row order, as
    // in the loop below.
    const std::size_t stride = image.stride();
    const std::uint8_t* centre = image.row(y) + x * 4;
    const std::ptrdiff_t offsets[8] = {-static_cast<std::ptrdiff_t>(stride) - 4,
                                       -static_cast<std::ptrdiff_t>(stride),
                                       -static_cast<std::ptrdiff_t>(stride) + 4,
                                       -4,
                                       4,
                                       static_cast<std::ptrdiff_t>(stride) - 4,
                                       static_cast<std::ptrdiff_t>(stride),
                                       static_cast<std::ptrdiff_t>(stride) + 4};
    int zeros = 0, darkIndex = -1, brightIndex = -1;
    float darkest = 0, brightest = 0;
    for (int i = 0; i < 8; ++i) {
      const float delta = brightnessDelta(centre, centre + offsets[i]);
      zeros += delta == 0;
      const bool darker = delta<darkest, brighter = delta> brightest;
      darkest = darker ? delta : darkest;
      darkIndex = darker ? i : darkIndex;
      brightest = brighter ? delta : brightest;
      brightIndex = brighter ? i : brightIndex;
    }
    // Three or more neighbours of the same brightness: an area, not an edge.
    if (zeros > 2 || darkIndex < 0 || brightIndex < 0) {
      return false;
    }
    const auto at = [&](int i, int& nx, int& ny) {
      const int k = i < 4 ? i : i + 1;  // skip the centre in the 3 x 3 block
      nx = x - 1 + k % 3;
      ny = y - 1 + k / 3;
    };
    int darkX, darkY, brightX, brightY;
    at(darkIndex, darkX, darkY);
    at(brightIndex, brightX, brightY);
    return (hasManySiblings(image, darkX, darkY) && hasManySiblings(other, darkX, darkY)) ||
           (hasManySiblings(image, brightX, brightY) && hasManySiblings(other, brightX, brightY));
  }
  return isAntialiasedPlain(image, x, y, other);
}

bool isAntialiasedPlain(const Image& image, int x, int y, const Image& other) {
  const int x0 = std::max(x - 1, 0), y0 = std::max(y - 1, 0);
  const int x1 = std::min(x + 1, image.width() - 1), y1 = std::min(y + 1, image.height() - 1);
  int flat = (x == x0 || x == x1 || y == y0 || y == y1) ? 1 : 0;
  float darkest = 0, brightest = 0;
  int darkX = 0, darkY = 0, brightX = 0, brightY = 0;
  const std::uint8_t* centre = image.row(y) + x * 4;
  for (int ny = y0; ny <= y1; ++ny) {
    for (int nx = x0; nx <= x1; ++nx) {
      if (nx == x && ny == y) {
        continue;
      }
      const float delta = brightnessDelta(centre, image.row(ny) + nx * 4);
      if (delta == 0) {
        // Three or more neighbours of the same brightness: an area, not an edge.
        if (++flat > 2) {
          return false;
        }
      } else if (delta < darkest) {
        darkest = delta, darkX = nx, darkY = ny;
      } else if (delta > brightest) {
        brightest = delta, brightX = nx, brightY = ny;
      }
    }
  }
  if (darkest == 0 || brightest == 0) {
    return false;
  }
  return (hasManySiblings(image, darkX, darkY) && hasManySiblings(other, darkX, darkY)) ||
         (hasManySiblings(image, brightX, brightY) && hasManySiblings(other, brightX, brightY));
}

bool isDrift(const Image& a, const Image& b, int x, int y) {
  return driftWithin(rangeAround(a, x, y), rangeAround(b, x, y), a, b, x, y);
}

MarkCounts scanPixelRows(const Image& a, const Image& b, int y0, int y1, float maxDelta,
                         const LevelMap& map, std::uint8_t* marks, std::uint8_t* rowMarked,
                         std::atomic<bool>* differs) {
  const int width = a.width(), height = a.height();
  const std::size_t stride = a.stride();
  const bool uniformExact = map.levels == nullptr && map.uniform == kAtExact;
  std::vector<float> deltas(uniformExact ? 0 : static_cast<std::size_t>(width));
  MarkCounts counts;
  for (int y = y0; y < y1; ++y) {
    if (differs && differs->load(std::memory_order_relaxed)) {
      break;
    }
    const std::uint8_t* ra = a.row(y);
    const std::uint8_t* rb = b.row(y);
    // Screenshots of one screen share most rows byte for byte: settle those with one memcmp.
    if (std::memcmp(ra, rb, stride) == 0) {
      continue;
    }
    const std::size_t rowStart = static_cast<std::size_t>(y) * width;
    std::uint8_t* rowMarks = marks + rowStart;
    const MarkCounts before = counts;
    if (uniformExact) {
      for (int x = 0; x < width; ++x) {
        if (load32(ra + x * 4) != load32(rb + x * 4)) {
          rowMarks[x] = kDiffers;
          ++counts.differing;
        }
      }
    } else {
      rowDeltas(ra, rb, width, deltas.data());
      const bool interiorRow = y > 0 && y + 1 < height;
      for (int x = 0; x < width; ++x) {
        if (deltas[x] == 0.0f && load32(ra + x * 4) == load32(rb + x * 4)) {
          continue;
        }
        const std::uint8_t level = map.at(rowStart + x);
        if (level == kAtExact) {
          rowMarks[x] = kDiffers;
          ++counts.differing;
          continue;
        }
        if (level != kAtStrict || deltas[x] <= maxDelta) {
          continue;
        }
        // Most of a changed screen is flat in both images, where only the colour decides.
        const bool flat = interiorRow && x > 0 && x + 1 < width && flatAround(ra + x * 4, stride) &&
                          flatAround(rb + x * 4, stride);
        if (!flat && explained(a, b, x, y)) {
          rowMarks[x] = kTolerated;
          ++counts.tolerated;
        } else {
          rowMarks[x] = kDiffers;
          ++counts.differing;
        }
      }
    }
    if (!(counts == before)) {
      rowMarked[y] = 1;
      if (differs && counts.differing > before.differing) {
        differs->store(true, std::memory_order_relaxed);
      }
    }
  }
  return counts;
}

MarkCounts scanPixels(const Image& a, const Image& b, float maxDelta, const LevelMap& map,
                      int threads, std::uint8_t* marks, std::uint8_t* rowMarked,
                      std::atomic<bool>* differs) {
  const std::size_t pixels = static_cast<std::size_t>(a.width()) * a.height();
  const int parts = static_cast<int>(std::clamp<std::size_t>(
      pixels / kMinPixelsPerThread, 1, static_cast<std::size_t>(std::max(threads, 1))));
  std::vector<MarkCounts> results(parts);
  std::vector<std::thread> workers;
  const int height = a.height();
  for (int part = 1; part < parts; ++part) {
    workers.emplace_back([&, part] {
      results[part] = scanPixelRows(a, b, height * part / parts, height * (part + 1) / parts,
                                    maxDelta, map, marks, rowMarked, differs);
    });
  }
  results[0] = scanPixelRows(a, b, 0, height / parts, maxDelta, map, marks, rowMarked, differs);
  for (auto& worker : workers) {
    worker.join();
  }
  MarkCounts all;
  for (const MarkCounts& part : results) {
    all += part;
  }
  return all;
}

MarkCounts scanPixelsReference(const Image& a, const Image& b, float maxDelta,
                               std::uint8_t* marks) {
  MarkCounts counts;
  for (int y = 0; y < a.height(); ++y) {
    for (int x = 0; x < a.width(); ++x) {
      const std::size_t index = static_cast<std::size_t>(y) * a.width() + x;
      if (colourDelta(a.row(y) + x * 4, b.row(y) + x * 4) <= maxDelta) {
        continue;
      }
      if (explained(a, b, x, y, true)) {
        marks[index] = kTolerated;
        ++counts.tolerated;
      } else {
        marks[index] = kDiffers;
        ++counts.differing;
      }
    }
  }
  return counts;
}

}  // namespace lumo::server::detail
