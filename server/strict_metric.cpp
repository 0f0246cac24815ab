#include "strict_metric.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "coherent_shift.h"

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

// Blocks of kTile x kTile pixels are judged together: a shift is explained block by block,
// and a block whose bytes are equal costs one compare per row.
constexpr int kTile = 8;

// A pixel's signed colour change (current minus baseline) in fixed point, so that a whole
// changed screen takes 6 bytes a pixel and area sums stay in integers.
struct ColourShift {
  std::int16_t l = 0, a = 0, b = 0;
};
constexpr float kShiftScale = 8192.0f;

std::int16_t fixedPoint(float v) {
  return static_cast<std::int16_t>(std::clamp(v * kShiftScale, -32767.0f, 32767.0f));
}

float squaredLength(const ColourShift& s) {
  const float l = s.l, a = s.a, b = s.b;
  return (l * l + a * a + b * b) / (kShiftScale * kShiftScale);
}

// One Strict/Exact judgement of two images of one size, in two passes over rows of tiles:
// judgeTiles settles every pixel it can from its own block (exact pixels, explained pixels,
// pixels visible alone) and leaves the rest to judgeAreas, which needs the colour shifts of
// the neighbouring blocks, all known once the first pass is over.
class StrictScan {
 public:
  StrictScan(const Image& a, const Image& b, const StrictRule& rule, const LevelMap& map,
             std::uint8_t* marks, std::uint8_t* rowMarked, std::atomic<bool>* differs)
      : a_(a),
        b_(b),
        rule_(rule),
        map_(map),
        marks_(marks),
        rowMarked_(rowMarked),
        differs_(differs),
        width_(a.width()),
        height_(a.height()),
        tilesAcross_((width_ + kTile - 1) / kTile),
        tilesDown_((height_ + kTile - 1) / kTile),
        // calloc: pages of blocks that never differ are never touched.
        shifts_(static_cast<ColourShift*>(
                    std::calloc(static_cast<std::size_t>(width_) * height_, sizeof(ColourShift))),
                &std::free),
        open_(static_cast<std::size_t>(tilesAcross_) * tilesDown_, 0) {
    if (!shifts_) {
      throw std::bad_alloc();
    }
  }

  int tilesDown() const { return tilesDown_; }

  MarkCounts judgeTiles(int firstRow, int endRow) {
    MarkCounts counts;
    LabCache lab;
    for (int ty = firstRow; ty < endRow && !stopped(); ++ty) {
      const int y0 = ty * kTile, y1 = std::min(y0 + kTile, height_);
      bool rowsDiffer = false;
      for (int y = y0; y < y1 && !rowsDiffer; ++y) {
        rowsDiffer = std::memcmp(a_.row(y), b_.row(y), a_.stride()) != 0;
      }
      for (int tx = 0; rowsDiffer && tx < tilesAcross_ && !stopped(); ++tx) {
        judgeTile(tx, ty, lab, counts);
      }
    }
    return counts;
  }

  MarkCounts judgeAreas(int firstRow, int endRow) {
    MarkCounts counts;
    for (int ty = firstRow; ty < endRow && !stopped(); ++ty) {
      for (int tx = 0; tx < tilesAcross_; ++tx) {
        if (open_[static_cast<std::size_t>(ty) * tilesAcross_ + tx]) {
          judgeArea(tx, ty, counts);
        }
      }
    }
    return counts;
  }

 private:
  bool stopped() const { return differs_ && differs_->load(std::memory_order_relaxed); }

  void mark(int x, int y, PixelMark m, MarkCounts& counts) {
    marks_[static_cast<std::size_t>(y) * width_ + x] = m;
    rowMarked_[y] = 1;
    if (m == kDiffers) {
      ++counts.differing;
      if (differs_) {
        differs_->store(true, std::memory_order_relaxed);
      }
    } else {
      ++counts.tolerated;
    }
  }

  ColourShift& shiftAt(int x, int y) { return shifts_[static_cast<std::size_t>(y) * width_ + x]; }

  bool antialiased(int x, int y) const {
    const std::size_t stride = a_.stride();
    const bool interior = x > 0 && y > 0 && x + 1 < width_ && y + 1 < height_;
    // Most of a changed screen is flat in both images, where only the colour decides.
    if (interior && flatAround(a_.row(y) + x * 4, stride) &&
        flatAround(b_.row(y) + x * 4, stride)) {
      return false;
    }
    return isAntialiased(a_, x, y, b_) || isAntialiased(b_, x, y, a_);
  }

  void judgeTile(int tx, int ty, LabCache& lab, MarkCounts& counts) {
    const int x0 = tx * kTile, x1 = std::min(x0 + kTile, width_);
    const int y0 = ty * kTile, y1 = std::min(y0 + kTile, height_);
    const std::size_t bytes = static_cast<std::size_t>(x1 - x0) * 4;
    struct PixelAt {
      int x, y;
    };
    PixelAt seen[kTile * kTile];
    int count = 0;
    const float noticeable = rule_.justNoticeable * rule_.justNoticeable;
    for (int y = y0; y < y1; ++y) {
      const std::uint8_t* ra = a_.row(y);
      const std::uint8_t* rb = b_.row(y);
      if (std::memcmp(ra + x0 * 4, rb + x0 * 4, bytes) == 0) {
        continue;
      }
      for (int x = x0; x < x1; ++x) {
        if (load32(ra + x * 4) == load32(rb + x * 4)) {
          continue;
        }
        const std::uint8_t level = map_.at(static_cast<std::size_t>(y) * width_ + x);
        if (level == kAtExact) {
          mark(x, y, kDiffers, counts);
          continue;
        }
        if (level != kAtStrict) {
          continue;
        }
        const Lab la = lab(ra + x * 4), lb = lab(rb + x * 4);
        ColourShift& s = shiftAt(x, y);
        s = {fixedPoint(lb.l - la.l), fixedPoint(lb.a - la.a), fixedPoint(lb.b - la.b)};
        if (squaredLength(s) >= noticeable) {
          seen[count++] = {x, y};
        }
      }
    }
    if (count == 0) {
      return;
    }
    // A block whose changes one direction of shift explains, or else each quarter of it that
    // one explains (glyphs snapped to whole pixels move one by one).
    bool explained[kTile * kTile] = {};
    auto explainPart = [&](int left, int top, int side) {
      unsigned common = 0xff;
      for (int i = 0; i < count && common; ++i) {
        if (seen[i].x >= left && seen[i].x < left + side && seen[i].y >= top &&
            seen[i].y < top + side) {
          common &= shiftDirections(a_, b_, seen[i].x, seen[i].y);
        }
      }
      for (int i = 0; i < count && common; ++i) {
        if (seen[i].x >= left && seen[i].x < left + side && seen[i].y >= top &&
            seen[i].y < top + side) {
          explained[i] = true;
        }
      }
      return common != 0;
    };
    if (!explainPart(x0, y0, kTile)) {
      for (int quarter = 0; quarter < 4; ++quarter) {
        explainPart(x0 + (quarter % 2) * (kTile / 2), y0 + (quarter / 2) * (kTile / 2), kTile / 2);
      }
    }
    const float alone = rule_.visibleAlone * rule_.visibleAlone;
    for (int i = 0; i < count; ++i) {
      const auto [x, y] = seen[i];
      ColourShift& s = shiftAt(x, y);
      if (explained[i] || antialiased(x, y)) {
        // Explained differences are no colour change: they stay out of the area sums.
        s = {};
        mark(x, y, kTolerated, counts);
      } else if (squaredLength(s) >= alone) {
        mark(x, y, kDiffers, counts);
      } else {
        open_[static_cast<std::size_t>(ty) * tilesAcross_ + tx] = 1;
      }
    }
  }

  // Marks the pixels of a block left open that lie in an area of kAreaSide x kAreaSide whose
  // average colour shift is noticeable: one direction held over an area is a change, where
  // dither and alternating noise average out.
  void judgeArea(int tx, int ty, MarkCounts& counts) {
    const int x0 = tx * kTile, x1 = std::min(x0 + kTile, width_);
    const int y0 = ty * kTile, y1 = std::min(y0 + kTile, height_);
    const int sideX = std::min(kAreaSide, width_), sideY = std::min(kAreaSide, height_);
    // Sums over the block and kAreaSide - 1 pixels around it, as a summed-area table.
    const int left = std::max(x0 - sideX + 1, 0), top = std::max(y0 - sideY + 1, 0);
    const int right = std::min(x1 + sideX - 1, width_), bottom = std::min(y1 + sideY - 1, height_);
    constexpr int kSpan = kTile + 2 * (kAreaSide - 1) + 1;
    std::int32_t sums[3][kSpan][kSpan] = {};
    for (int y = top; y < bottom; ++y) {
      for (int x = left; x < right; ++x) {
        const ColourShift& s = shiftAt(x, y);
        const int i = y - top + 1, j = x - left + 1;
        const std::int32_t values[3] = {s.l, s.a, s.b};
        for (int c = 0; c < 3; ++c) {
          sums[c][i][j] = values[c] + sums[c][i - 1][j] + sums[c][i][j - 1] - sums[c][i - 1][j - 1];
        }
      }
    }
    const double bound =
        static_cast<double>(rule_.justNoticeable) * double{kShiftScale} * sideX * sideY;
    auto noticeableArea = [&](int wx, int wy) {
      double length = 0;
      const int i0 = wy - top, j0 = wx - left, i1 = i0 + sideY, j1 = j0 + sideX;
      for (int c = 0; c < 3; ++c) {
        const double sum = sums[c][i1][j1] - sums[c][i0][j1] - sums[c][i1][j0] + sums[c][i0][j0];
        length += sum * sum;
      }
      return length >= bound * bound;
    };
    const float noticeable = rule_.justNoticeable * rule_.justNoticeable;
    for (int y = y0; y < y1; ++y) {
      for (int x = x0; x < x1; ++x) {
        if (marks_[static_cast<std::size_t>(y) * width_ + x] != kSame ||
            squaredLength(shiftAt(x, y)) < noticeable) {
          continue;
        }
        bool found = false;
        for (int wy = std::max(y - sideY + 1, 0); wy <= std::min(y, height_ - sideY) && !found;
             ++wy) {
          for (int wx = std::max(x - sideX + 1, 0); wx <= std::min(x, width_ - sideX) && !found;
               ++wx) {
            found = noticeableArea(wx, wy);
          }
        }
        if (found) {
          mark(x, y, kDiffers, counts);
        }
      }
    }
  }

  const Image& a_;
  const Image& b_;
  const StrictRule rule_;
  const LevelMap map_;
  std::uint8_t* marks_;
  std::uint8_t* rowMarked_;
  std::atomic<bool>* differs_;
  const int width_, height_, tilesAcross_, tilesDown_;
  std::unique_ptr<ColourShift[], decltype(&std::free)> shifts_;
  std::vector<std::uint8_t> open_;
};

// Runs work(firstTileRow, endTileRow) over all tile rows on up to `parts` threads and adds up
// the counts.
template <typename Work>
MarkCounts inParts(int rows, int parts, Work work) {
  std::vector<MarkCounts> results(static_cast<std::size_t>(parts));
  std::vector<std::thread> workers;
  for (int part = 1; part < parts; ++part) {
    workers.emplace_back(
        [&, part] { results[part] = work(rows * part / parts, rows * (part + 1) / parts); });
  }
  results[0] = work(0, rows / parts);
  for (auto& worker : workers) {
    worker.join();
  }
  MarkCounts all;
  for (const MarkCounts& r : results) {
    all += r;
  }
  return all;
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

MarkCounts scanPixels(const Image& a, const Image& b, const StrictRule& rule, const LevelMap& map,
                      int threads, std::uint8_t* marks, std::uint8_t* rowMarked,
                      std::atomic<bool>* differs) {
  if (a.empty()) {
    return {};
  }
  const std::size_t pixels = static_cast<std::size_t>(a.width()) * a.height();
  StrictScan scan(a, b, rule, map, marks, rowMarked, differs);
  const int parts = static_cast<int>(
      std::clamp<std::size_t>(pixels / kMinPixelsPerThread, 1,
                              static_cast<std::size_t>(std::clamp(threads, 1, scan.tilesDown()))));
  MarkCounts counts =
      inParts(scan.tilesDown(), parts, [&](int from, int to) { return scan.judgeTiles(from, to); });
  counts +=
      inParts(scan.tilesDown(), parts, [&](int from, int to) { return scan.judgeAreas(from, to); });
  return counts;
}

}  // namespace lumo::server::detail
