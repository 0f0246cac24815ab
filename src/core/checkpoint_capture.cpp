#include "core/checkpoint_capture.h"

#include <cstdint>
#include <utility>
#include <vector>

#include "common/argument_guard.h"
#include "common/lumo_screenshot.h"
#include "core/app_output.h"
#include "core/app_output_with_screenshot.h"
#include "platform/base64.h"
#include "platform/png.h"

namespace lumo {

std::shared_ptr<AppOutputWithScreenshot> CheckpointCapture::capture(
    const std::shared_ptr<LumoScreenshot>& screenshot, const Framing& framing, std::string title) {
  if (framing.region && !framing.region->isEmpty()) {
    screenshot->cropRegion(*framing.region, framing.scale);
  } else if (framing.cropStatusBar) {
    screenshot->cropStatusBarWithHeight(framing.statusBarHeight, framing.scale);
  }
  auto downscaled = screenshot->downscale(framing.scale);
  AppOutput appOutput(std::move(title), base64Png(downscaled));
  // The image sent is the downscaled one; the one kept for the next comparison is full size.
  return std::make_shared<AppOutputWithScreenshot>(std::move(appOutput), screenshot);
}

std::string CheckpointCapture::base64Png(const std::shared_ptr<LumoScreenshot>& screenshot) {
  ArgumentGuard::notNil(screenshot, "screenshot");
  // A screenshot still holding its source's PNG needs no encoding: the bytes are those pixels.
  if (const auto& png = screenshot->png()) {
    return base64Encode(*png);
  }
  const auto& image = screenshot->image();
  return base64Encode(image ? encodePng(*image) : std::vector<std::uint8_t>{});
}

}  // namespace lumo
