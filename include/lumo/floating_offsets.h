#pragma once

#include <cstdint>

namespace lumo {

// How far a floating region's content may move, by direction. Named fields, so that the two
// parameter orders in use (up, down, left, right and up, down, right, left) can never be
// mixed up when values are passed on.
struct FloatingOffsets {
  std::int64_t maxUpOffset = 0;
  std::int64_t maxDownOffset = 0;
  std::int64_t maxLeftOffset = 0;
  std::int64_t maxRightOffset = 0;

  friend bool operator==(const FloatingOffsets&, const FloatingOffsets&) = default;
};

}  // namespace lumo
