#pragma once

#include <cmath>
#include <cstdint>
#include <limits>

namespace lumo::detail {

// A double as a 64-bit integer, truncated toward zero. Values beyond the range saturate and
// NaN gives 0, as the reference platform's conversion instruction does; a plain cast of such
// a value is undefined behaviour, and NaN or infinite heights and scales do reach us.
inline std::int64_t truncatedToInt64(double value) {
  if (std::isnan(value)) {
    return 0;
  }
  // 2^63 is exact as a double; anything at or beyond it would overflow the cast.
  constexpr double kLimit = 9223372036854775808.0;
  if (value >= kLimit) {
    return std::numeric_limits<std::int64_t>::max();
  }
  if (value < -kLimit) {
    return std::numeric_limits<std::int64_t>::min();
  }
  return static_cast<std::int64_t>(value);
}

}  // namespace lumo::detail
