#include "lumo/out_of_bounds_exception.h"

#include <fmt/format.h>

namespace lumo {

OutOfBoundsException::OutOfBoundsException(const Region& region, const Region& anotherRegion)
    : LumoException("OutOfBoundsException",
                    fmt::format("Region [{}] is out of screenshot bounds [{}]",
                                region.description(), anotherRegion.description())) {}

}  // namespace lumo
