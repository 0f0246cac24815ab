#include "caret_rule.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "difference_boxes.h"
#include "perceptual_colour.h"
#include "rect_pixels.h"
#include "strict_metric.h"

namespace lumo::server::detail {
namespace {

// Around a cluster's box the rule looks this far for anything else that differs.
constexpr int kCaretMargin = 2;
// Clusters are formed with this gap: a difference this close to a caret joins its cluster
// and so keeps the caret from being ignored.
constexpr int kCaretClusterGap = 8;

const std::uint8_t* at(const Image& image, int x, int y) { return image.row(y) + x * 4; }

bool same(const std::uint8_t* p, const std::uint8_t* q, float maxDelta, bool exact) {
  return exact ? std::memcmp(p, q, 4) == 0 : distance(p, q) <= maxDelta;
}

// Whether `withBar` shows a bar of single-coloured columns in `bar` where `without` shows
// what lies beside the bar. The bar's first and last rows may be partly covered, as a bar
// drawn between pixel rows is.
bool barIn(const Image& withBar, const Image& without, const Rect& bar, float maxDelta,
           bool exact) {
  const int left = leftOf(bar), top = topOf(bar), width = widthOf(bar), height = heightOf(bar);
  const int side = left > 0 ? left - 1 : left + width;
  if (side >= without.width()) {
    return false;
  }
  for (int x = left; x < left + width; ++x) {
    const std::uint8_t* middle = at(withBar, x, top + height / 2);
    for (int y = top; y < top + height; ++y) {
      const bool end = y == top || y == top + height - 1;
      if ((!end && !same(at(withBar, x, y), middle, maxDelta, exact)) ||
          !same(at(without, x, y), at(without, side, y), maxDelta, exact)) {
        return false;
      }
    }
  }
  return true;
}

}  // namespace

bool isCaretOnly(const Image& a, const Image& b, const Rect& box, float maxDelta, bool exact) {
  const int boxLeft = leftOf(box), boxTop = topOf(box);
  const int boxWidth = widthOf(box), boxHeight = heightOf(box);
  if (boxWidth <= 0 || boxHeight <= 0 || boxWidth > kMaxCaretWidth + 2 * kCaretMargin ||
      boxHeight > kMaxCaretHeight + 2 * kCaretMargin) {
    return false;
  }
  const int x0 = std::max(boxLeft - kCaretMargin, 0);
  const int y0 = std::max(boxTop - kCaretMargin, 0);
  const int x1 = std::min(boxLeft + boxWidth + kCaretMargin, a.width());
  const int y1 = std::min(boxTop + boxHeight + kCaretMargin, a.height());
  int left = x1, right = x0 - 1, top = y1, bottom = y0 - 1;
  for (int y = y0; y < y1; ++y) {
    for (int x = x0; x < x1; ++x) {
      if (!same(at(a, x, y), at(b, x, y), maxDelta, exact)) {
        left = std::min(left, x), right = std::max(right, x);
        top = std::min(top, y), bottom = std::max(bottom, y);
      }
    }
  }
  const int barWidth = right - left + 1, barHeight = bottom - top + 1;
  if (barWidth <= 0 || barWidth > kMaxCaretWidth || barHeight < kMinCaretHeight ||
      barHeight > kMaxCaretHeight) {
    return false;
  }
  // Between its end rows the bar differs at every pixel: a solid bar, nothing beside it.
  for (int y = top + 1; y < top + barHeight - 1; ++y) {
    for (int x = left; x < left + barWidth; ++x) {
      if (same(at(a, x, y), at(b, x, y), maxDelta, exact)) {
        return false;
      }
    }
  }
  const Rect bar = pixelRect(left, top, barWidth, barHeight);
  return barIn(a, b, bar, maxDelta, exact) || barIn(b, a, bar, maxDelta, exact);
}

std::vector<Rect> findCarets(const Image& a, const Image& b, float maxDelta, bool exact) {
  const int width = a.width(), height = a.height();
  const std::size_t pixels = static_cast<std::size_t>(width) * height;
  // calloc: pages of rows that never differ are never touched.
  std::unique_ptr<std::uint8_t, decltype(&std::free)> marks(
      static_cast<std::uint8_t*>(std::calloc(std::max<std::size_t>(pixels, 1), 1)), &std::free);
  if (!marks) {
    return {};
  }
  std::vector<std::uint8_t> rowMarked(static_cast<std::size_t>(height), 0);
  for (int y = 0; y < height; ++y) {
    if (std::memcmp(a.row(y), b.row(y), a.stride()) == 0) {
      continue;
    }
    for (int x = 0; x < width; ++x) {
      if (!same(at(a, x, y), at(b, x, y), maxDelta, exact)) {
        marks.get()[static_cast<std::size_t>(y) * width + x] = kDiffers;
        rowMarked[y] = 1;
      }
    }
  }
  std::vector<Rect> carets;
  for (const Rect& box :
       differenceBoxes(marks.get(), rowMarked.data(), width, height, kCaretClusterGap)) {
    if (isCaretOnly(a, b, box, maxDelta, exact)) {
      // Every differing pixel of the cluster lies in the bar, so the box is the bar.
      carets.push_back(
          pixelRect(leftOf(box) - 1, topOf(box) - 1, widthOf(box) + 2, heightOf(box) + 2));
    }
  }
  return carets;
}

}  // namespace lumo::server::detail
