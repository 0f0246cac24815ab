#include "structure_metric.h"

#include <algorithm>
#include <cstdlib>

#include "difference_boxes.h"
#include "rect_pixels.h"

namespace lumo::server::detail {
namespace {

// Integer brightness of a pixel composed over white, 0..255.
int luminance(const std::uint8_t* p) {
  const int y = (p[0] * 299 + p[1] * 587 + p[2] * 114) / 1000;
  return 255 - (255 - y) * p[3] / 255;
}

bool edgeNear(const std::vector<std::uint8_t>& edges, int width, int height, int x, int y) {
  // Any edge counts, weak ones included.
  for (int ny = std::max(y - 1, 0); ny <= std::min(y + 1, height - 1); ++ny) {
    for (int nx = std::max(x - 1, 0); nx <= std::min(x + 1, width - 1); ++nx) {
      if (edges[static_cast<std::size_t>(ny) * width + nx]) {
        return true;
      }
    }
  }
  return false;
}

// A boundary this faint (luminance levels) still says an element is there: a white card on a
// light grey page, which a dark theme draws with a strong outline.
constexpr int kFaintStep = 4;

// A frame is an edge along at least nine tenths of an element's width, within this many rows
// of its top or bottom, on an element at least this wide: shorter runs are text strokes.
constexpr int kFrameRows = 3;
constexpr int kMinFrameWidth = 24;

// edgesShared: the share of an element's edges that must be found in the other image.
constexpr double kSharedEdges = 0.9;

// Whether one of the rows near the top or bottom of `box` is an edge along most of its width.
bool isFramed(const Rect& box, const std::vector<std::uint8_t>& edges, int width) {
  const int left = leftOf(box), top = topOf(box), w = widthOf(box), h = heightOf(box);
  if (w < kMinFrameWidth) {
    return false;
  }
  for (int y = top; y < top + h; ++y) {
    if (y >= top + kFrameRows && y < top + h - kFrameRows) {
      continue;
    }
    const std::uint8_t* row = edges.data() + static_cast<std::size_t>(y) * width + left;
    const long strong = std::count(row, row + w, std::uint8_t{kEdge});
    if (strong * 10 >= static_cast<long>(w) * 9) {
      return true;
    }
  }
  return false;
}

}  // namespace

std::vector<std::uint8_t> edgeMap(const Image& image, int threshold) {
  const int width = image.width(), height = image.height();
  std::vector<std::uint8_t> edges(static_cast<std::size_t>(width) * height, 0);
  std::vector<int> row(width), below(width);
  for (int x = 0; x < width; ++x) {
    row[x] = luminance(image.row(0) + x * 4);
  }
  for (int y = 0; y < height; ++y) {
    const bool last = y + 1 == height;
    if (!last) {
      for (int x = 0; x < width; ++x) {
        below[x] = luminance(image.row(y + 1) + x * 4);
      }
    }
    std::uint8_t* out = edges.data() + static_cast<std::size_t>(y) * width;
    for (int x = 0; x < width; ++x) {
      const int right = x + 1 < width ? std::abs(row[x + 1] - row[x]) : 0;
      const int down = last ? 0 : std::abs(below[x] - row[x]);
      const int step = std::max(right, down);
      out[x] = step > threshold ? kEdge : step > kFaintStep ? kWeakEdge : kNoEdge;
    }
    std::swap(row, below);
  }
  return edges;
}

MarkCounts scanEdges(const std::vector<std::uint8_t>& edgesA,
                     const std::vector<std::uint8_t>& edgesB, int width, int height,
                     const LevelMap& map, std::uint8_t* marks, std::uint8_t* rowMarked) {
  // The displacements (dx, dy) of at most a pixel that explain an edge found in one map only,
  // as bits 3 * (dy + 1) + (dx + 1): the other map has an edge there, looked for forwards
  // from the baseline's edges and backwards from the current one's.
  auto displacements = [&](int x, int y, bool inA) {
    const auto& other = inA ? edgesB : edgesA;
    const int sign = inA ? 1 : -1;
    unsigned bits = 0;
    for (int dy = -1; dy <= 1; ++dy) {
      for (int dx = -1; dx <= 1; ++dx) {
        const int nx = x + sign * dx, ny = y + sign * dy;
        if (nx >= 0 && ny >= 0 && nx < width && ny < height &&
            other[static_cast<std::size_t>(ny) * width + nx] != kNoEdge) {
          bits |= 1u << (3 * (dy + 1) + (dx + 1));
        }
      }
    }
    return bits;
  };
  MarkCounts counts;
  constexpr int kBlock = 8;
  struct Found {
    int x, y;
    unsigned bits;
  };
  std::vector<Found> found;
  for (int by = 0; by < height; by += kBlock) {
    for (int bx = 0; bx < width; bx += kBlock) {
      found.clear();
      for (int y = by; y < std::min(by + kBlock, height); ++y) {
        for (int x = bx; x < std::min(bx + kBlock, width); ++x) {
          const std::size_t index = static_cast<std::size_t>(y) * width + x;
          const bool strongA = edgesA[index] == kEdge, strongB = edgesB[index] == kEdge;
          if (strongA != strongB && map.at(index) == kAtContent) {
            found.push_back({x, y, displacements(x, y, strongA)});
          }
        }
      }
      // An edge a pixel off is the same edge drawn with other anti-aliasing or offset, where
      // one displacement explains the whole block, or each quarter of it (glyphs move one by
      // one); edges found nearby in different directions are a different pattern.
      std::vector<bool> explained(found.size(), false);
      auto explain = [&](int left, int top, int side) {
        unsigned common = 0x1ff;
        for (const Found& f : found) {
          if (f.x >= left && f.x < left + side && f.y >= top && f.y < top + side) {
            common &= f.bits;
          }
        }
        for (std::size_t i = 0; i < found.size() && common; ++i) {
          if (found[i].x >= left && found[i].x < left + side && found[i].y >= top &&
              found[i].y < top + side) {
            explained[i] = true;
          }
        }
        return common != 0;
      };
      if (!found.empty() && !explain(bx, by, kBlock)) {
        for (int quarter = 0; quarter < 4; ++quarter) {
          explain(bx + (quarter % 2) * (kBlock / 2), by + (quarter / 2) * (kBlock / 2), kBlock / 2);
        }
      }
      for (std::size_t i = 0; i < found.size(); ++i) {
        const std::size_t index = static_cast<std::size_t>(found[i].y) * width + found[i].x;
        marks[index] = explained[i] ? kTolerated : kDiffers;
        ++(explained[i] ? counts.tolerated : counts.differing);
        rowMarked[found[i].y] = 1;
      }
    }
  }
  return counts;
}

std::vector<LayoutElement> layoutElements(const std::vector<std::uint8_t>& edges, int width,
                                          int height, const LevelMap& map, int cell) {
  cell = std::max(cell, 1);
  const int gridW = (width + cell - 1) / cell, gridH = (height + cell - 1) / cell;
  std::vector<CellBounds> cells(static_cast<std::size_t>(gridW) * gridH);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const std::size_t index = static_cast<std::size_t>(y) * width + x;
      if (edges[index] != kEdge || map.at(index) != kAtLayout) {
        continue;
      }
      cells[static_cast<std::size_t>(y / cell) * gridW + x / cell].add({x, y, x, y});
    }
  }
  // Occupied cells that touch, corners included, form one element.
  std::vector<LayoutElement> elements;
  for (const Rect& box : mergeTouchingCells(cells, gridW, gridH)) {
    elements.push_back({box, isFramed(box, edges, width)});
  }
  return elements;
}

std::vector<Rect> unmatchedElements(const std::vector<LayoutElement>& a,
                                    const std::vector<LayoutElement>& b, int tolerance) {
  auto near = [tolerance](int p, int q) { return std::abs(p - q) <= tolerance; };
  std::vector<Rect> unmatched;
  for (const LayoutElement& e : a) {
    const int eLeft = leftOf(e.box), eTop = topOf(e.box);
    const int eWidth = widthOf(e.box), eHeight = heightOf(e.box);
    const bool found = std::any_of(b.begin(), b.end(), [&](const LayoutElement& f) {
      const int fLeft = leftOf(f.box), fTop = topOf(f.box);
      const int fWidth = widthOf(f.box), fHeight = heightOf(f.box);
      const bool left = near(eLeft, fLeft), right = near(eLeft + eWidth, fLeft + fWidth);
      const bool centre = std::abs((2 * eLeft + eWidth) - (2 * fLeft + fWidth)) <= 2 * tolerance;
      const bool sides = e.framed || f.framed ? left && right : left || right || centre;
      return near(eTop, fTop) && near(eTop + eHeight, fTop + fHeight) && sides;
    });
    if (!found) {
      unmatched.push_back(e.box);
    }
  }
  return unmatched;
}

bool edgesShared(const Rect& area, const std::vector<std::uint8_t>& own,
                 const std::vector<std::uint8_t>& other, int width, int height) {
  long edges = 0, shared = 0;
  const int left = leftOf(area), top = topOf(area);
  const int right = std::min(left + widthOf(area), width);
  const int bottom = std::min(top + heightOf(area), height);
  for (int y = std::max(top, 0); y < bottom; ++y) {
    for (int x = std::max(left, 0); x < right; ++x) {
      if (own[static_cast<std::size_t>(y) * width + x] == kEdge) {
        ++edges;
        shared += edgeNear(other, width, height, x, y) ? 1 : 0;
      }
    }
  }
  return edges > 0 && static_cast<double>(shared) >= kSharedEdges * static_cast<double>(edges);
}

}  // namespace lumo::server::detail
