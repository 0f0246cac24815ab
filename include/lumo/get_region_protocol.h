#pragma once

#include <memory>

#include "lumo/region.h"

namespace lumo {

// Gives a check's region when the check runs (not when the settings are built).
class GetRegionProtocol {
 public:
  virtual ~GetRegionProtocol() = default;
  // The region now; providers of a fixed rectangle give the same object every time.
  virtual std::shared_ptr<Region> getRegion() const = 0;
};

}  // namespace lumo
