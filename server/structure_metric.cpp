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

// edgesShared: the share of an element's edges that must be found in the other image.
constexpr double kSharedEdges = 0.9;

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
      out[x] = step > threshold ? kEdge : step > threshold / 2 ? kWeakEdge : kNoEdge;
    }
    std::swap(row, below);
  }
  return edges;
}

MarkCounts scanEdges(const std::vector<std::uint8_t>& edgesA,
                     const std::vector<std::uint8_t>& edgesB, int width, int height,
                     const LevelMap& map, std::uint8_t* marks, std::uint8_t* rowMarked) {
  MarkCounts counts;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const std::size_t index = static_cast<std::size_t>(y) * width + x;
      const bool strongA = edgesA[index] == kEdge, strongB = edgesB[index] == kEdge;
      if (strongA == strongB || map.at(index) != kAtContent) {
        continue;
      }
      // An edge one pixel off is the same edge drawn with other anti-aliasing.
      const auto& other = strongA ? edgesB : edgesA;
      if (edgeNear(other, width, height, x, y)) {
        marks[index] = kTolerated;
        ++counts.tolerated;
      } else {
        marks[index] = kDiffers;
        ++counts.differing;
      }
      rowMarked[y] = 1;
    }
  }
  return counts;
}

std::vector<Rect> layoutElements(const std::vector<std::uint8_t>& edges, int width, int height,
                                 const LevelMap& map, int cell) {
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
  return mergeTouchingCells(cells, gridW, gridH);
}

std::vector<Rect> unmatchedElements(const std::vector<Rect>& a, const std::vector<Rect>& b,
                                    int tolerance) {
  auto near = [tolerance](int p, int q) { return std::abs(p - q) <= tolerance; };
  std::vector<Rect> unmatched;
  for (const Rect& e : a) {
    const int eLeft = leftOf(e), eTop = topOf(e), eWidth = widthOf(e), eHeight = heightOf(e);
    const bool found = std::any_of(b.begin(), b.end(), [&](const Rect& f) {
      const int fLeft = leftOf(f), fTop = topOf(f), fWidth = widthOf(f), fHeight = heightOf(f);
      return near(eTop, fTop) && near(eTop + eHeight, fTop + fHeight) &&
             (near(eLeft, fLeft) || near(eLeft + eWidth, fLeft + fWidth) ||
              std::abs((2 * eLeft + eWidth) - (2 * fLeft + fWidth)) <= 2 * tolerance);
    });
    if (!found) {
      unmatched.push_back(e);
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
