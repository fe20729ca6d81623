// What some durations are like.

#pragma once

#include <cstdint>
#include <vector>

#include "tools/base/times.h"

namespace tools {

// Number, percentiles and largest of some durations.
struct Statistics {
    int64_t count = 0;
    Micros p50 = 0, p90 = 0, p95 = 0, p99 = 0, max = 0;
};

// The smallest value that at least that share of all values, above 0 to 1, is not above; `none`
// where there are no values. Changes their order, as the others do.
Micros QuantileOf(std::vector<Micros>& values, double share, Micros none);

inline Micros MedianOf(std::vector<Micros>& values, Micros none) {
    return QuantileOf(values, 0.5, none);
}

Statistics StatisticsOf(std::vector<Micros>& values);

}  // namespace tools
