#include "lumo/region.h"

#include "common/logger.h"
#include "common/truncation.h"

namespace lumo {
namespace {

// Conversion of a double to an integer field: truncation toward zero, never rounding.
std::int64_t truncated(double value) { return detail::truncatedToInt64(value); }

Rect integerRect(const Region& region) {
  return Rect(static_cast<double>(region.left()), static_cast<double>(region.top()),
              static_cast<double>(region.width()), static_cast<double>(region.height()));
}

}  // namespace

Region::Region() { updateWithRect(Rect()); }

Region::Region(const Rect& rect) { updateWithRect(rect); }

Region::Region(std::int64_t left, std::int64_t top, std::int64_t width, std::int64_t height)
    : left_(left), top_(top), width_(width), height_(height) {
  rect_ = integerRect(*this);
}

Region Region::emptyRegion() { return Region(Rect()); }

Region Region::scaledRegionFromRegion(const Region& region, double scaleRatio) {
  return Region(Rect(static_cast<double>(region.left_) * scaleRatio,
                     static_cast<double>(region.top_) * scaleRatio,
                     static_cast<double>(region.width_) * scaleRatio,
                     static_cast<double>(region.height_) * scaleRatio));
}

bool Region::regionIsIntersectedWithRegion(const Region& region, const Region& withRegion) {
  return region.rect_.intersects(withRegion.rect_);
}

Region Region::intersectionBetweenRegion(const Region& region, const Region& andRegion) {
  Logger::logWithFormat("intersecting this region ({}) with {} ...", region.description(),
                        andRegion.description());
  if (!regionIsIntersectedWithRegion(region, andRegion)) {
    Region empty;
    empty.makeEmpty();
    return empty;
  }
  // The fractions of the double views are dropped before intersecting. That can leave nothing
  // (a region scaled below one point wide): the zero region then, never the null rectangle,
  // whose infinite origin has no integer form.
  const Rect overlap = integerRect(region).intersection(integerRect(andRegion));
  if (overlap.isNull()) {
    return emptyRegion();
  }
  return Region(overlap);
}

void Region::updateWithRect(const Rect& rect) {
  rect_ = rect;
  left_ = truncated(rect.origin.x);
  top_ = truncated(rect.origin.y);
  width_ = truncated(rect.size.width);
  height_ = truncated(rect.size.height);
}

void Region::makeEmpty() { updateWithRect(emptyRegion().rect_); }

bool Region::isEmpty() const { return *this == emptyRegion(); }

void Region::setLocation(Point location) { updateWithRect(Rect(location, rect_.size)); }

void Region::setSize(Size size) {
  updateWithRect(Rect(Point{static_cast<double>(left_), static_cast<double>(top_)}, size));
}

bool Region::containsRect(const Rect& rect) const { return rect_.contains(rect); }

bool Region::insideRect(const Rect& rect) const { return rect.contains(rect_); }

Json Region::dictionary() const {
  return Json{{"left", left_}, {"top", top_}, {"width", width_}, {"height", height_}};
}

std::string Region::description() const { return toString(rect_); }

}  // namespace lumo
