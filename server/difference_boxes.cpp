#include "difference_boxes.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "rect_pixels.h"
#include "strict_metric.h"

namespace lumo::server::detail {
namespace {

// A byte of 8 marks has bit 1 set exactly where a pixel is marked kDiffers.
constexpr std::uint64_t kDiffersBits = 0x0202020202020202ull;
static_assert(kDiffers == 2 && kTolerated == 1);

}  // namespace

std::vector<Rect> differenceBoxes(const std::uint8_t* marks, const std::uint8_t* rowMarked,
                                  int width, int height, int gap) {
  const int cell = std::max(gap, 1);
  const int gridW = (width + cell - 1) / cell, gridH = (height + cell - 1) / cell;
  std::vector<CellBounds> cells(static_cast<std::size_t>(gridW) * gridH);
  bool any = false;
  for (int y = 0; y < height; ++y) {
    if (!rowMarked[y]) {
      continue;
    }
    const std::uint8_t* row = marks + static_cast<std::size_t>(y) * width;
    CellBounds* gridRow = cells.data() + static_cast<std::size_t>(y / cell) * gridW;
    int x = 0;
    while (x < width) {
      // Eight marks at a time: on a changed screen whole rows are marked, and on a small
      // change most of a marked row is not.
      if (x + 8 <= width) {
        std::uint64_t word;
        std::memcpy(&word, row + x, sizeof word);
        word &= kDiffersBits;
        if (word == 0) {
          x += 8;
          continue;
        }
        // Within this word the first and last differing pixels, cell by cell.
        while (word != 0) {
          const int first = x + std::countr_zero(word) / 8;
          const int cellEnd = std::min((first / cell + 1) * cell, x + 8);
          int last = first;
          for (int i = first + 1; i < cellEnd; ++i) {
            if (row[i] == kDiffers) {
              last = i;
            }
          }
          CellBounds& b = gridRow[first / cell];
          b.add({first, y, last, y});
          any = true;
          const int consumed = cellEnd - x;
          word = consumed >= 8 ? 0 : word & (~std::uint64_t{0} << (consumed * 8));
        }
        x += 8;
        continue;
      }
      if (row[x] == kDiffers) {
        gridRow[x / cell].add({x, y, x, y});
        any = true;
      }
      ++x;
    }
  }
  if (!any) {
    return {};
  }
  return mergeTouchingCells(cells, gridW, gridH);
}

std::vector<Rect> mergeTouchingCells(const std::vector<CellBounds>& cells, int gridW, int gridH) {
  std::vector<Rect> boxes;
  std::vector<char> seen(cells.size(), 0);
  std::vector<int> stack;
  for (std::size_t start = 0; start < cells.size(); ++start) {
    if (seen[start] || cells[start].empty()) {
      continue;
    }
    CellBounds box = cells[start];
    seen[start] = 1;
    stack.assign(1, static_cast<int>(start));
    while (!stack.empty()) {
      const int current = stack.back();
      stack.pop_back();
      const int cx = current % gridW, cy = current / gridW;
      for (int ny = std::max(cy - 1, 0); ny <= std::min(cy + 1, gridH - 1); ++ny) {
        for (int nx = std::max(cx - 1, 0); nx <= std::min(cx + 1, gridW - 1); ++nx) {
          const int n = ny * gridW + nx;
          if (seen[n] || cells[n].empty()) {
            continue;
          }
          seen[n] = 1;
          box.add(cells[n]);
          stack.push_back(n);
        }
      }
    }
    boxes.push_back(
        pixelRect(box.left, box.top, box.right - box.left + 1, box.bottom - box.top + 1));
  }
  return boxes;
}

}  // namespace lumo::server::detail
