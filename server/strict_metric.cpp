#include "strict_metric.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace lumo::server::detail {
namespace {

// Below this many pixels a second thread costs more than it saves.
constexpr std::size_t kMinPixelsPerThread = 1 << 18;

// Whether pixel (x, y) has more than two neighbours of exactly its colour (pixels on the
// image border count the missing side as one such neighbour).
bool hasManySiblings(const Image& image, int x, int y) {
  const int x0 = std::max(x - 1, 0), y0 = std::max(y - 1, 0);
  const int x1 = std::min(x + 1, image.width() - 1), y1 = std::min(y + 1, image.height() - 1);
  int same = (x == x0 || x == x1 || y == y0 || y == y1) ? 1 : 0;
  const std::uint8_t* centre = image.row(y) + x * 4;
  for (int ny = y0; ny <= y1; ++ny) {
    for (int nx = x0; nx <= x1; ++nx) {
      if ((nx == x && ny == y) || std::memcmp(image.row(ny) + nx * 4, centre, 4) != 0) {
        continue;
      }
      if (++same > 2) {
        return true;
      }
    }
  }
  return false;
}

void classify(const Image& a, const Image& b, int x, int y, std::uint32_t index, PixelDiffs& out) {
  if (isAntialiased(a, x, y, b) || isAntialiased(b, x, y, a)) {
    out.tolerated.push_back(index);
  } else {
    out.differences.push_back(index);
  }
}

std::uint64_t load64(const std::uint8_t* p) {
  std::uint64_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

}  // namespace

bool isAntialiased(const Image& image, int x, int y, const Image& other) {
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

void scanPixelRows(const Image& a, const Image& b, int y0, int y1, float maxDelta,
                   const LevelMap& map, PixelDiffs& out) {
  const int width = a.width();
  const std::size_t stride = a.stride();
  for (int y = y0; y < y1; ++y) {
    const std::uint8_t* ra = a.row(y);
    const std::uint8_t* rb = b.row(y);
    // Screenshots of one screen share most rows byte for byte: settle those with one memcmp.
    if (std::memcmp(ra, rb, stride) == 0) {
      continue;
    }
    const std::size_t rowStart = static_cast<std::size_t>(y) * width;
    int x = 0;
    while (x < width) {
      // Skip identical pixels two at a time before any colour math.
      while (x + 2 <= width && load64(ra + x * 4) == load64(rb + x * 4)) {
        x += 2;
      }
      const int end = std::min(x + 2, width);
      for (; x < end; ++x) {
        const std::uint8_t* pa = ra + x * 4;
        const std::uint8_t* pb = rb + x * 4;
        if (std::memcmp(pa, pb, 4) == 0) {
          continue;
        }
        const std::size_t index = rowStart + x;
        const std::uint8_t level = map.at(index);
        if (level == kAtExact) {
          out.differences.push_back(static_cast<std::uint32_t>(index));
        } else if (level == kAtStrict && colourDelta(pa, pb) > maxDelta) {
          classify(a, b, x, y, static_cast<std::uint32_t>(index), out);
        }
      }
    }
  }
}

PixelDiffs scanPixels(const Image& a, const Image& b, float maxDelta, const LevelMap& map,
                      int threads) {
  const std::size_t pixels = static_cast<std::size_t>(a.width()) * a.height();
  const int parts = static_cast<int>(std::clamp<std::size_t>(
      pixels / kMinPixelsPerThread, 1, static_cast<std::size_t>(std::max(threads, 1))));
  std::vector<PixelDiffs> results(parts);
  std::vector<std::thread> workers;
  const int height = a.height();
  for (int part = 1; part < parts; ++part) {
    workers.emplace_back([&, part] {
      scanPixelRows(a, b, height * part / parts, height * (part + 1) / parts, maxDelta, map,
                    results[part]);
    });
  }
  scanPixelRows(a, b, 0, height / parts, maxDelta, map, results[0]);
  for (auto& worker : workers) {
    worker.join();
  }
  PixelDiffs all = std::move(results[0]);
  for (int part = 1; part < parts; ++part) {
    all.differences.insert(all.differences.end(), results[part].differences.begin(),
                           results[part].differences.end());
    all.tolerated.insert(all.tolerated.end(), results[part].tolerated.begin(),
                         results[part].tolerated.end());
  }
  return all;
}

PixelDiffs scanPixelsReference(const Image& a, const Image& b, float maxDelta) {
  PixelDiffs out;
  for (int y = 0; y < a.height(); ++y) {
    for (int x = 0; x < a.width(); ++x) {
      const std::size_t index = static_cast<std::size_t>(y) * a.width() + x;
      if (colourDelta(a.row(y) + x * 4, b.row(y) + x * 4) > maxDelta) {
        classify(a, b, x, y, static_cast<std::uint32_t>(index), out);
      }
    }
  }
  return out;
}

}  // namespace lumo::server::detail
