#pragma once

#include "lumo/lumo_exception.h"
#include "lumo/region.h"

namespace lumo {

// A region (scaled to the screenshot) that lies outside the screenshot's bounds. Reason:
// "Region [<region>] is out of screenshot bounds [<bounds>]".
class OutOfBoundsException : public LumoException {
 public:
  OutOfBoundsException(const Region& region, const Region& anotherRegion);
};

}  // namespace lumo
