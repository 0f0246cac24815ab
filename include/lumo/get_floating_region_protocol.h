#pragma once

#include <memory>

#include "lumo/floating_match_settings.h"

namespace lumo {

// Gives a check's floating region, with its offsets, when the check runs.
class GetFloatingRegionProtocol {
 public:
  virtual ~GetFloatingRegionProtocol() = default;
  // A new floating region built from the current rectangle and the offsets.
  virtual std::shared_ptr<FloatingMatchSettings> getRegion() const = 0;
};

}  // namespace lumo
