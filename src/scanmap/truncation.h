#pragma once

#include <cstdint>
#include <limits>

namespace kvr::scanmap {

// Double to a 32-bit integer, truncating toward zero. Values no 32-bit integer
// can hold, and NaN, give the most negative one, as the processor's own
// conversion does: bin counts and bin indices then take their documented
// "out of range" paths instead of undefined behaviour.
inline std::int32_t TruncateToInt32(double value) {
  if (value > -2147483649.0 && value < 2147483648.0) return static_cast<std::int32_t>(value);
  return std::numeric_limits<std::int32_t>::min();
}

}  // namespace kvr::scanmap
