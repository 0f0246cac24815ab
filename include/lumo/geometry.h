#pragma once

#include <string>

namespace lumo {

// A point of doubles (screen points or pixels, as the caller decides).
struct Point {
  double x = 0;
  double y = 0;

  friend bool operator==(const Point&, const Point&) = default;
};

// A width/height pair of doubles; equality is component by component.
struct Size {
  double width = 0;
  double height = 0;

  friend bool operator==(const Size&, const Size&) = default;
};

// A rectangle of doubles. A negative width or height extends the rectangle left or up from
// its origin; every operation works on the standardised form (non-negative size), as the
// classic graphics APIs do. The null rectangle (origin at infinity) is what the intersection
// of two disjoint rectangles gives.
struct Rect {
  Point origin;
  Size size;

  Rect() = default;
  Rect(Point at, Size extent) : origin(at), size(extent) {}
  Rect(double x, double y, double width, double height) : origin{x, y}, size{width, height} {}

  static Rect null();
  bool isNull() const;
  // Null, or zero in width or height.
  bool isEmpty() const;
  // The same area with a non-negative width and height.
  Rect standardized() const;

  double minX() const;
  double minY() const;
  double maxX() const;
  double maxY() const;

  // True when `other` lies inside this rectangle; shared edges count as inside. Nothing
  // contains, or is contained in, the null rectangle.
  bool contains(const Rect& other) const;
  // True when the intersection is not null: the two share an area of positive width and
  // height (touching edges do not intersect).
  bool intersects(const Rect& other) const;
  // The common area, or the null rectangle when they do not intersect.
  Rect intersection(const Rect& other) const;

  // Equal when the standardised rectangles are; all null rectangles are equal.
  friend bool operator==(const Rect& a, const Rect& b);
};

// "{x, y}", "{w, h}" and "{{x, y}, {w, h}}", each number in its shortest form ("4.5", "100").
std::string toString(Point point);
std::string toString(Size size);
std::string toString(const Rect& rect);

}  // namespace lumo
