#pragma once

#include <memory>

#include "core/app_output.h"

namespace lumo {

class LumoScreenshot;

// One checkpoint's output together with the screenshot it was made from. The screenshot stays
// on the client: it is never written into a request. Immutable value; the screenshot is shared.
class AppOutputWithScreenshot {
 public:
  AppOutputWithScreenshot() = default;
  AppOutputWithScreenshot(AppOutput appOutput, std::shared_ptr<LumoScreenshot> screenshot);

  const AppOutput& appOutput() const { return appOutput_; }
  const std::shared_ptr<LumoScreenshot>& screenshot() const { return screenshot_; }

 private:
  AppOutput appOutput_;
  std::shared_ptr<LumoScreenshot> screenshot_;
};

}  // namespace lumo
