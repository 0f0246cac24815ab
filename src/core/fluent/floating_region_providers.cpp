#include "lumo/floating_region_by_element.h"
#include "lumo/floating_region_by_rectangle.h"

namespace lumo {
namespace {

std::shared_ptr<FloatingMatchSettings> floatingFrom(const Region& region,
                                                    const FloatingOffsets& offsets) {
  return std::make_shared<FloatingMatchSettings>(
      region.left(), region.top(), region.width(), region.height(), offsets.maxUpOffset,
      offsets.maxDownOffset, offsets.maxLeftOffset, offsets.maxRightOffset);
}

}  // namespace

std::shared_ptr<FloatingMatchSettings> FloatingRegionByRectangle::getRegion() const {
  return floatingFrom(*region_, offsets_);
}

std::shared_ptr<FloatingMatchSettings> FloatingRegionByElement::getRegion() const {
  return floatingFrom(Region(element_->frame()), offsets_);
}

}  // namespace lumo
