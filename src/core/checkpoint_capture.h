#pragma once

#include <memory>
#include <optional>
#include <string>

#include "lumo/region.h"

namespace lumo {

class AppOutputWithScreenshot;
class LumoScreenshot;

// How a checkpoint's screen is cut, scaled and encoded for the server. Stateless.
class CheckpointCapture {
 public:
  struct Framing {
    std::optional<Region> region;  // the area checked; none or an empty one: the whole screen
    double scale = 1.0;            // pixels per point
    bool cropStatusBar = false;    // only consulted without a region
    double statusBarHeight = 0.0;  // in points
  };

  // Crops `screenshot` in place to the region, or else (when asked) cuts off the status bar,
  // never both; sends a copy downscaled to points and keeps the full-size crop for the next
  // comparison. `screenshot` must not be null.
  static std::shared_ptr<AppOutputWithScreenshot> capture(
      const std::shared_ptr<LumoScreenshot>& screenshot, const Framing& framing, std::string title);

  // PNG in base64 with CR LF after every 64 characters. Throws the argument guard's exception
  // "screenshot is nil" for a null screenshot.
  static std::string base64Png(const std::shared_ptr<LumoScreenshot>& screenshot);
};

}  // namespace lumo
