#pragma once

#include <cstdint>
#include <string>

#include "lumo/detail/json.h"
#include "lumo/geometry.h"

namespace lumo {

// A rectangle kept in two views: four 64-bit integers (what goes on the wire) and the
// rectangle of doubles it was made from. Construction and updateWithRect() keep the integers
// equal to the rectangle truncated toward zero; setRect() deliberately changes only the
// doubles. Equality compares the doubles. A value type: holders that need to share one region
// by identity keep a std::shared_ptr<Region>.
class Region {
 public:
  // The zero region.
  Region();
  // Integers from `rect` truncated toward zero; `rect` kept as given.
  explicit Region(const Rect& rect);
  // The integers as given; the rectangle holds the same values as doubles.
  Region(std::int64_t left, std::int64_t top, std::int64_t width, std::int64_t height);

  static Region emptyRegion();
  // The integer fields multiplied by `scaleRatio`; the exact products become the rectangle and
  // are truncated (never rounded) into the integers: (3, 5, 7, 9) x 1.5 has rect
  // (4.5, 7.5, 10.5, 13.5) and integers 4, 7, 10, 13.
  static Region scaledRegionFromRegion(const Region& region, double scaleRatio);
  // Whether the two rectangles share an area. Pass Region() for a missing region.
  static bool regionIsIntersectedWithRegion(const Region& region, const Region& withRegion);
  // Logs the operation, then intersects the integer views; disjoint regions give the zero
  // region.
  static Region intersectionBetweenRegion(const Region& region, const Region& andRegion);

  std::int64_t left() const { return left_; }
  std::int64_t top() const { return top_; }
  std::int64_t width() const { return width_; }
  std::int64_t height() const { return height_; }

  const Rect& rect() const { return rect_; }
  // Replaces only the rectangle; the integer fields (and so dictionary()) keep their values.
  void setRect(const Rect& rect) { rect_ = rect; }
  // Replaces the rectangle and refreshes the integers from it.
  void updateWithRect(const Rect& rect);
  void makeEmpty();
  // True only for the all-zero rectangle.
  bool isEmpty() const;

  Point location() const { return rect_.origin; }
  // Moves the rectangle, keeping its double size.
  void setLocation(Point location);
  Size size() const { return rect_.size; }
  // Resizes from the integer origin (not the double one), on purpose.
  void setSize(Size size);

  // Whether this region's rectangle contains `rect`.
  bool containsRect(const Rect& rect) const;
  // Whether `rect` contains this region's rectangle.
  bool insideRect(const Rect& rect) const;

  // {"left", "top", "width", "height"} from the integer fields.
  Json dictionary() const;
  // The rectangle as "{{x, y}, {w, h}}".
  std::string description() const;

  friend bool operator==(const Region& a, const Region& b) { return a.rect_ == b.rect_; }

 private:
  std::int64_t left_ = 0;
  std::int64_t top_ = 0;
  std::int64_t width_ = 0;
  std::int64_t height_ = 0;
  Rect rect_;
};

}  // namespace lumo
