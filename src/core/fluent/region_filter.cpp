#include "core/fluent/region_filter.h"

#include "common/argument_guard.h"
#include "common/truncation.h"

namespace lumo {
namespace {

bool shifts(double statusBarHeight, bool shouldCropStatusBar) {
  return statusBarHeight != 0 && shouldCropStatusBar;  // NaN != 0 holds: a NaN height shifts
}

// Truncated toward zero; a NaN or infinite height gives a defined (saturated) top.
std::int64_t shiftedTop(std::int64_t top, double statusBarHeight) {
  return detail::truncatedToInt64(static_cast<double>(top) - statusBarHeight);
}

}  // namespace

std::shared_ptr<Region> RegionFilter::filterRegion(const std::shared_ptr<Region>& region,
                                                   double statusBarHeight,
                                                   bool shouldCropStatusBar) {
  ArgumentGuard::notNil(region, "region");
  if (!shifts(statusBarHeight, shouldCropStatusBar)) {
    return region;
  }
  return std::make_shared<Region>(region->left(), shiftedTop(region->top(), statusBarHeight),
                                  region->width(), region->height());
}

std::shared_ptr<FloatingMatchSettings> RegionFilter::filterFloatingRegion(
    const std::shared_ptr<FloatingMatchSettings>& region, double statusBarHeight,
    bool shouldCropStatusBar) {
  ArgumentGuard::notNil(region, "region");
  if (!shifts(statusBarHeight, shouldCropStatusBar)) {
    return region;
  }
  return std::make_shared<FloatingMatchSettings>(
      region->left(), shiftedTop(region->top(), statusBarHeight), region->width(), region->height(),
      region->maxUpOffset(), region->maxDownOffset(), region->maxLeftOffset(),
      region->maxRightOffset());
}

}  // namespace lumo
