#include "lumo/server/image_comparer.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "caret_rule.h"
#include "difference_boxes.h"
#include "perceptual_colour.h"
#include "rect_pixels.h"
#include "strict_metric.h"
#include "structure_metric.h"

namespace lumo::server {
namespace {

using detail::heightOf;
using detail::leftOf;
using detail::LevelMap;
using detail::MarkCounts;
using detail::pixelRect;
using detail::topOf;
using detail::widthOf;

// A floating region gives up after this many pixel comparisons (each shift tried costs at
// least one): offsets are the client's to choose, and a search must not hold a request
// thread for long.
constexpr std::size_t kFloatingSearchBudget = std::size_t{1} << 25;

std::uint8_t pixelLevel(MatchLevel level) {
  switch (level) {
    case MatchLevelNone:
      return detail::kSkip;
    case MatchLevelLayout:
      return detail::kAtLayout;
    case MatchLevelContent:
      return detail::kAtContent;
    case MatchLevelStrict:
      return detail::kAtStrict;
    case MatchLevelExact:
      return detail::kAtExact;
  }
  return detail::kAtStrict;
}

// The part of r inside a width x height image; empty rectangles have width or height 0.
Rect clip(const Rect& r, int width, int height) {
  const long left = std::clamp<long>(leftOf(r), 0, width);
  const long top = std::clamp<long>(topOf(r), 0, height);
  const long right =
      std::clamp<long>(static_cast<long>(leftOf(r)) + std::max(widthOf(r), 0), 0, width);
  const long bottom =
      std::clamp<long>(static_cast<long>(topOf(r)) + std::max(heightOf(r), 0), 0, height);
  return pixelRect(static_cast<int>(left), static_cast<int>(top), static_cast<int>(right - left),
                   static_cast<int>(bottom - top));
}

bool isEmpty(const Rect& r) { return widthOf(r) <= 0 || heightOf(r) <= 0; }

// Side by side as given; lumo::Rect::contains would first standardise negative sizes.
bool contains(const Rect& outer, const Rect& inner) {
  return leftOf(inner) >= leftOf(outer) && topOf(inner) >= topOf(outer) &&
         leftOf(inner) + widthOf(inner) <= leftOf(outer) + widthOf(outer) &&
         topOf(inner) + heightOf(inner) <= topOf(outer) + heightOf(outer);
}

// The area a floating region's content may occupy once moved.
Rect reach(const FloatingRect& f) {
  const long up = std::max(f.maxUpOffset, 0), down = std::max(f.maxDownOffset, 0);
  const long left = std::max(f.maxLeftOffset, 0), right = std::max(f.maxRightOffset, 0);
  auto narrow = [](long v) { return static_cast<int>(std::clamp<long>(v, -(1L << 30), 1L << 30)); };
  return pixelRect(narrow(leftOf(f.rect) - left), narrow(topOf(f.rect) - up),
                   narrow(std::max(widthOf(f.rect), 0) + left + right),
                   narrow(std::max(heightOf(f.rect), 0) + up + down));
}

void paint(std::vector<std::uint8_t>& levels, int width, int height, const Rect& r,
           std::uint8_t level) {
  const Rect c = clip(r, width, height);
  const int left = leftOf(c), top = topOf(c), cw = widthOf(c), ch = heightOf(c);
  for (int y = top; y < top + ch; ++y) {
    std::memset(levels.data() + static_cast<std::size_t>(y) * width + left, level,
                static_cast<std::size_t>(std::max(cw, 0)));
  }
}

bool hasRegions(const CompareSettings& s) {
  return !s.ignore.empty() || !s.layout.empty() || !s.content.empty() || !s.strict.empty() ||
         !s.floating.empty();
}

// Whether the baseline's pixels in `area` appear in the current image shifted by some offset
// within the region's limits, clamped to the image. Shifts are tried by growing distance
// (|dx| + |dy|), generated ring by ring rather than listed, so huge offsets cost no memory.
bool floatingContentFound(const Image& baseline, const Image& current, const Rect& area,
                          const FloatingRect& f, bool exact, float maxDelta) {
  const int width = current.width(), height = current.height();
  const int left = leftOf(area), top = topOf(area);
  const int areaWidth = widthOf(area), areaHeight = heightOf(area);
  const int minDy = -std::min(std::max(f.maxUpOffset, 0), top);
  const int maxDy = std::min(std::max(f.maxDownOffset, 0), height - top - areaHeight);
  const int minDx = -std::min(std::max(f.maxLeftOffset, 0), left);
  const int maxDx = std::min(std::max(f.maxRightOffset, 0), width - left - areaWidth);
  const std::size_t areaCost = static_cast<std::size_t>(areaWidth) * areaHeight;
  std::size_t budget = kFloatingSearchBudget;
  auto matchesAt = [&](int dx, int dy) {
    for (int y = top; y < top + areaHeight; ++y) {
      const std::uint8_t* b = baseline.row(y) + left * 4;
      const std::uint8_t* c = current.row(y + dy) + (left + dx) * 4;
      if (std::memcmp(b, c, static_cast<std::size_t>(areaWidth) * 4) == 0) {
        continue;
      }
      for (int x = 0; x < areaWidth; ++x) {
        const bool same = exact ? std::memcmp(b + x * 4, c + x * 4, 4) == 0
                                : detail::distance(b + x * 4, c + x * 4) <= maxDelta;
        if (!same) {
          return false;
        }
      }
    }
    return true;
  };
  const long farthest = static_cast<long>(std::max(-minDx, maxDx)) + std::max(-minDy, maxDy);
  for (long distance = 0; distance <= farthest; ++distance) {
    const long dyFrom = std::max<long>(-distance, minDy), dyTo = std::min<long>(distance, maxDy);
    for (long dy = dyFrom; dy <= dyTo; ++dy) {
      const long rest = distance - std::abs(dy);
      for (int side = 0; side < (rest == 0 ? 1 : 2); ++side) {
        const long dx = side == 0 ? -rest : rest;
        if (dx < minDx || dx > maxDx) {
          continue;
        }
        if (matchesAt(static_cast<int>(dx), static_cast<int>(dy))) {
          return true;
        }
        if (areaCost >= budget) {
          return false;
        }
        budget -= std::max<std::size_t>(areaCost, 1);
      }
      if (budget-- == 0) {
        return false;
      }
    }
  }
  return false;
}

void setPixel(Image& image, std::size_t index, std::uint8_t r, std::uint8_t g, std::uint8_t b) {
  std::uint8_t* p = image.data() + static_cast<std::size_t>(index) * 4;
  p[0] = r, p[1] = g, p[2] = b, p[3] = 255;
}

// The pixel as a light grey, so that marks drawn over it stand out.
void fade(const std::uint8_t* in, std::uint8_t* out) {
  const float y = detail::onWhite(in[0], in[3]) * 0.29889531f +
                  detail::onWhite(in[1], in[3]) * 0.58662247f +
                  detail::onWhite(in[2], in[3]) * 0.11448223f;
  const auto v = static_cast<std::uint8_t>(255.0f + (y - 255.0f) * 0.2f);
  out[0] = out[1] = out[2] = v;
  out[3] = 255;
}

void outline(Image& image, const Rect& r) {
  const Rect c = clip(r, image.width(), image.height());
  if (isEmpty(c)) {
    return;
  }
  constexpr int kLine = 2;
  const int left = leftOf(c), top = topOf(c), right = left + widthOf(c), bottom = top + heightOf(c);
  for (int y = top; y < bottom; ++y) {
    for (int x = left; x < right; ++x) {
      const bool border =
          x < left + kLine || x >= right - kLine || y < top + kLine || y >= bottom - kLine;
      if (border) {
        setPixel(image, static_cast<std::size_t>(y) * image.width() + x, 255, 0, 0);
      }
    }
  }
}

}  // namespace

ImageComparer::ImageComparer(ComparerOptions options) : options_(options) {}

CompareResult ImageComparer::compare(const Image& baseline, const Image& current,
                                     const CompareSettings& settings) const {
  return compare(baseline, current, settings, false);
}

CompareResult ImageComparer::verdict(const Image& baseline, const Image& current,
                                     const CompareSettings& settings) const {
  return compare(baseline, current, settings, true);
}

CompareResult ImageComparer::compare(const Image& baseline, const Image& current,
                                     const CompareSettings& settings, bool verdictOnly) const {
  CompareResult result;
  const bool regions = hasRegions(settings);
  if (settings.level == MatchLevelNone && !regions) {
    return result;
  }
  const int width = current.width(), height = current.height();
  if (baseline.width() != width || baseline.height() != height) {
    result.matches = false;
    result.sizeMismatch = true;
    result.boxes.push_back(pixelRect(0, 0, width, height));
    return result;
  }
  if (width == 0 || height == 0) {
    return result;
  }

  const detail::StrictRule rule{options_.justNoticeable, options_.visibleAlone};
  // Carets and floating content are matched pixel by pixel: a pixel visible alone is a change.
  const float maxDelta = rule.visibleAlone;
  // Carets are found before anything else and then left out like ignored regions.
  std::vector<Rect> ignore = settings.ignore;
  if (settings.ignoreCaret) {
    result.carets =
        detail::findCarets(baseline, current, maxDelta, settings.level == MatchLevelExact);
    ignore.insert(ignore.end(), result.carets.begin(), result.carets.end());
  }

  LevelMap map{nullptr, pixelLevel(settings.level)};
  std::vector<std::uint8_t> levels;
  bool atPixels = map.uniform >= detail::kAtStrict;
  bool atContent = map.uniform == detail::kAtContent;
  bool atLayout = map.uniform == detail::kAtLayout;
  if (regions || !ignore.empty()) {
    levels.assign(static_cast<std::size_t>(width) * height, map.uniform);
    for (const Rect& r : settings.layout) {
      paint(levels, width, height, r, detail::kAtLayout);
      atLayout = atLayout || !isEmpty(clip(r, width, height));
    }
    for (const Rect& r : settings.content) {
      paint(levels, width, height, r, detail::kAtContent);
      atContent = atContent || !isEmpty(clip(r, width, height));
    }
    for (const Rect& r : settings.strict) {
      paint(levels, width, height, r, detail::kAtStrict);
      atPixels = atPixels || !isEmpty(clip(r, width, height));
    }
    // Inside a floating region's reach only the floating search decides.
    for (const FloatingRect& f : settings.floating) {
      if (!isEmpty(clip(f.rect, width, height))) {
        paint(levels, width, height, reach(f), detail::kSkip);
      }
    }
    for (const Rect& r : ignore) {
      paint(levels, width, height, r, detail::kSkip);
    }
    map.levels = levels.data();
  }

  // calloc: the pages of a mark buffer whose rows never differ are never touched, so equal
  // images cost no more than their row compares.
  const std::size_t pixels = static_cast<std::size_t>(width) * height;
  std::shared_ptr<std::uint8_t[]> marks(static_cast<std::uint8_t*>(std::calloc(pixels, 1)),
                                        &std::free);
  if (!marks) {
    throw std::bad_alloc();
  }
  std::vector<std::uint8_t> rowMarked(static_cast<std::size_t>(height), 0);
  MarkCounts counts;
  if (atPixels) {
    std::atomic<bool> differs{false};
    counts += detail::scanPixels(baseline, current, rule, map, options_.threads, marks.get(),
                                 rowMarked.data(), verdictOnly ? &differs : nullptr);
    if (differs) {
      result.matches = false;
      result.complete = false;
      result.differentPixels = counts.differing;
      result.toleratedPixels = counts.tolerated;
      return result;
    }
  }
  if (atContent || atLayout) {
    const auto edgesA = detail::edgeMap(baseline, options_.edgeThreshold);
    const auto edgesB = detail::edgeMap(current, options_.edgeThreshold);
    if (atContent) {
      counts +=
          detail::scanEdges(edgesA, edgesB, width, height, map, marks.get(), rowMarked.data());
    }
    if (atLayout) {
      const auto a = detail::layoutElements(edgesA, width, height, map, options_.layoutCell);
      const auto b = detail::layoutElements(edgesB, width, height, map, options_.layoutCell);
      for (const Rect& r : detail::unmatchedElements(a, b, options_.layoutTolerance)) {
        if (!detail::edgesShared(r, edgesA, edgesB, width, height)) {
          result.differentAreas.push_back(r);
        }
      }
      for (const Rect& r : detail::unmatchedElements(b, a, options_.layoutTolerance)) {
        if (!detail::edgesShared(r, edgesB, edgesA, width, height)) {
          result.differentAreas.push_back(r);
        }
      }
    }
  }
  if (settings.level != MatchLevelNone) {
    for (const FloatingRect& f : settings.floating) {
      const Rect area = clip(f.rect, width, height);
      const bool ignored = std::any_of(settings.ignore.begin(), settings.ignore.end(),
                                       [&](const Rect& r) { return contains(r, area); });
      if (isEmpty(area) || ignored) {
        continue;
      }
      if (!floatingContentFound(baseline, current, area, f, settings.level == MatchLevelExact,
                                maxDelta)) {
        result.differentAreas.push_back(clip(reach(f), width, height));
      }
    }
  }
  result.differentPixels = counts.differing;
  result.toleratedPixels = counts.tolerated;
  if (counts.differing > 0) {
    result.boxes =
        detail::differenceBoxes(marks.get(), rowMarked.data(), width, height, options_.boxGap);
  }
  result.boxes.insert(result.boxes.end(), result.differentAreas.begin(),
                      result.differentAreas.end());
  result.marks = std::move(marks);
  result.matches = counts.differing == 0 && result.differentAreas.empty();
  return result;
}

Image ImageComparer::diffImage(const Image& baseline, const Image& current,
                               const CompareSettings& settings, const CompareResult& result) const {
  const int width = current.width(), height = current.height();
  Image out(width, height);
  const std::size_t pixels = static_cast<std::size_t>(width) * height;
  for (std::size_t i = 0; i < pixels; ++i) {
    fade(current.data() + i * 4, out.data() + i * 4);
  }
  if (result.sizeMismatch) {
    // Only the current image's size is allocated: a baseline of another shape must not make
    // the server build an image as wide as one and as high as the other.
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        if (x >= baseline.width() || y >= baseline.height()) {
          setPixel(out, static_cast<std::size_t>(y) * width + x, 255, 0, 0);
        }
      }
    }
    if (baseline.width() > width) {
      outline(out, pixelRect(width - 2, 0, 2, height));
    }
    if (baseline.height() > height) {
      outline(out, pixelRect(0, height - 2, width, 2));
    }
    return out;
  }
  for (const Rect& r : settings.ignore) {
    const Rect c = clip(r, out.width(), out.height());
    const int left = leftOf(c), top = topOf(c), right = left + widthOf(c);
    for (int y = top; y < top + heightOf(c); ++y) {
      for (int x = left; x < right; ++x) {
        std::uint8_t* p = out.row(y) + x * 4;
        p[0] = static_cast<std::uint8_t>(p[0] * 3 / 4);
        p[1] = static_cast<std::uint8_t>(p[1] * 3 / 4);
      }
    }
  }
  if (result.marks) {
    const std::uint8_t* marks = result.marks.get();
    for (std::size_t i = 0; i < pixels; ++i) {
      if (marks[i] == detail::kDiffers) {
        setPixel(out, i, 255, 0, 0);
      } else if (marks[i] == detail::kTolerated) {
        setPixel(out, i, 255, 200, 0);
      }
    }
  }
  for (const Rect& r : result.differentAreas) {
    outline(out, r);
  }
  return out;
}

}  // namespace lumo::server
