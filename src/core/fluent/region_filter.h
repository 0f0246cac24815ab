#pragma once

#include <memory>

#include "lumo/floating_match_settings.h"
#include "lumo/region.h"

namespace lumo {

// Moves regions up by the status-bar height when the status bar is cut off the screenshot
// they refer to, so that they keep pointing at the same content. Stateless.
class RegionFilter {
 public:
  // With a non-zero height (NaN counts as non-zero) and the crop flag on: a new region whose
  // top is (top - height) truncated toward zero; a region inside the status bar gets a
  // negative top and is not clipped. Otherwise the very object passed in.
  static std::shared_ptr<Region> filterRegion(const std::shared_ptr<Region>& region,
                                              double statusBarHeight, bool shouldCropStatusBar);
  // The same rule for a floating region; the offsets are kept.
  static std::shared_ptr<FloatingMatchSettings> filterFloatingRegion(
      const std::shared_ptr<FloatingMatchSettings>& region, double statusBarHeight,
      bool shouldCropStatusBar);
};

}  // namespace lumo
