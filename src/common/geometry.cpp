#include "lumo/geometry.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace lumo {

Rect Rect::null() {
  constexpr double kInf = std::numeric_limits<double>::infinity();
  return Rect(kInf, kInf, 0, 0);
}

bool Rect::isNull() const { return std::isinf(origin.x) || std::isinf(origin.y); }

bool Rect::isEmpty() const { return isNull() || size.width == 0 || size.height == 0; }

Rect Rect::standardized() const {
  if (isNull()) {
    return null();
  }
  Rect r = *this;
  if (r.size.width < 0) {
    r.origin.x += r.size.width;
    r.size.width = -r.size.width;
  }
  if (r.size.height < 0) {
    r.origin.y += r.size.height;
    r.size.height = -r.size.height;
  }
  return r;
}

double Rect::minX() const { return standardized().origin.x; }
double Rect::minY() const { return standardized().origin.y; }
double Rect::maxX() const {
  const Rect r = standardized();
  return r.origin.x + r.size.width;
}
double Rect::maxY() const {
  const Rect r = standardized();
  return r.origin.y + r.size.height;
}

bool Rect::contains(const Rect& other) const {
  if (isNull() || other.isNull()) {
    return false;
  }
  return other.minX() >= minX() && other.maxX() <= maxX() && other.minY() >= minY() &&
         other.maxY() <= maxY();
}

bool Rect::intersects(const Rect& other) const { return !intersection(other).isNull(); }

Rect Rect::intersection(const Rect& other) const {
  if (isNull() || other.isNull()) {
    return null();
  }
  const double left = std::max(minX(), other.minX());
  const double top = std::max(minY(), other.minY());
  const double right = std::min(maxX(), other.maxX());
  const double bottom = std::min(maxY(), other.maxY());
  // Written so that a NaN edge (from a NaN scale) also means no intersection.
  if (!(right > left) || !(bottom > top)) {
    return null();
  }
  return Rect(left, top, right - left, bottom - top);
}

bool operator==(const Rect& a, const Rect& b) {
  if (a.isNull() || b.isNull()) {
    return a.isNull() && b.isNull();
  }
  const Rect sa = a.standardized();
  const Rect sb = b.standardized();
  return sa.origin == sb.origin && sa.size == sb.size;
}

std::string toString(Point point) { return fmt::format("{{{}, {}}}", point.x, point.y); }

std::string toString(Size size) { return fmt::format("{{{}, {}}}", size.width, size.height); }

std::string toString(const Rect& rect) {
  return fmt::format("{{{}, {}}}", toString(rect.origin), toString(rect.size));
}

}  // namespace lumo
