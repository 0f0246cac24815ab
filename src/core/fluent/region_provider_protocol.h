#pragma once

#include <memory>

#include "lumo/region.h"

namespace lumo {

// Gives the area a check targets; a null or empty region means the whole screen.
class RegionProviderProtocol {
 public:
  virtual ~RegionProviderProtocol() = default;
  virtual std::shared_ptr<Region> getRegion() const = 0;
};

}  // namespace lumo
