#include "tools/base/statistics.h"

#include <algorithm>
#include <cmath>

namespace tools {

Micros QuantileOf(std::vector<Micros>& values, double share, Micros none) {
    if (values.empty()) {
        return none;
    }
    const auto rank =
        static_cast<std::ptrdiff_t>(std::ceil(share * static_cast<double>(values.size())));
    const auto nth = values.begin() + std::max<std::ptrdiff_t>(rank - 1, 0);
    std::nth_element(values.begin(), nth, values.end());
    return *nth;
}

Statistics StatisticsOf(std::vector<Micros>& values) {
    Statistics all{static_cast<int64_t>(values.size()), QuantileOf(values, 0.5, 0),
                   QuantileOf(values, 0.9, 0),          QuantileOf(values, 0.95, 0),
                   QuantileOf(values, 0.99, 0),         QuantileOf(values, 1, 0)};
    // Up to a little more than almost all values. The times of most captures are whole
    // milliseconds: bins of less would leave holes.
    const auto last = static_cast<Micros>(all.bins.size()) - 1;
    const Micros top = std::clamp<Micros>(all.p99 / 4 * 5, 0, std::max<Micros>(all.max, 0));
    all.bin = (top / last / MILLISECOND + 1) * MILLISECOND;
    for (const Micros value : values) {
        ++all.bins[static_cast<size_t>(std::clamp<Micros>(value / all.bin, 0, last))];
    }
    return all;
}

}  // namespace tools
