// Times, as all rooms have them.

#pragma once

#include <cstdint>
#include <limits>

namespace tools {

// Microseconds: a duration, or a moment since the beginning of the capture or session.
using Micros = int64_t;
// Where a time is not known.
inline constexpr Micros NO_TIME = std::numeric_limits<Micros>::min();
inline constexpr Micros MILLISECOND = 1'000;
inline constexpr Micros SECOND = 1'000'000;

}  // namespace tools
