#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "lumo/server/image_comparer.h"

namespace lumo::server::detail {

// The bounding box of what a grid cell holds, in pixels, inclusive; empty while right < left.
struct CellBounds {
  int left = 0, top = 0, right = -1, bottom = -1;

  bool empty() const { return right < left; }
  void add(const CellBounds& o) {
    if (empty()) {
      *this = o;
      return;
    }
    left = std::min(left, o.left), right = std::max(right, o.right);
    top = std::min(top, o.top), bottom = std::max(bottom, o.bottom);
  }
};

// Joins occupied cells of a gridW x gridH grid that touch, corners included, and returns each
// group's bounding box, in the order of its first cell.
std::vector<Rect> mergeTouchingCells(const std::vector<CellBounds>& cells, int gridW, int gridH);

// Groups the pixels marked kDiffers into clusters and returns each cluster's bounding box in
// image coordinates, top to bottom. Pixels less than about `gap` pixels apart join one
// cluster, so a changed word is one box rather than one per stroke. `marks` has a byte per
// pixel (width * height); rows whose `rowMarked` byte is 0 are not read. The work is a pass
// over the marked rows and a pass over a grid of gap x gap cells.
std::vector<Rect> differenceBoxes(const std::uint8_t* marks, const std::uint8_t* rowMarked,
                                  int width, int height, int gap);

}  // namespace lumo::server::detail
