#pragma once

#include <memory>
#include <optional>

#include "lumo/region.h"

namespace lumo {

class AppOutputWithScreenshot;
class LumoScreenshot;

// Supplies the application's output (window title and screenshot) for one matching attempt.
// The controller is the provider of its match-window task; it is called on the test thread.
class AppOutputProviderProtocol {
 public:
  virtual ~AppOutputProviderProtocol() = default;

  // The output for `region` (the whole screen when it is missing or empty), or null when no
  // screenshot can be taken. The selector's spelling is part of the interface; the last
  // screenshot is offered for comparison and may be ignored.
  virtual std::shared_ptr<AppOutputWithScreenshot> appOutputForRegion(
      const std::optional<Region>& region,
      const std::shared_ptr<LumoScreenshot>& lastSreenshot) = 0;
};

}  // namespace lumo
