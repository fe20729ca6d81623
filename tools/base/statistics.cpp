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
    return {static_cast<int64_t>(values.size()), QuantileOf(values, 0.5, 0),
            QuantileOf(values, 0.9, 0),          QuantileOf(values, 0.95, 0),
            QuantileOf(values, 0.99, 0),         QuantileOf(values, 1, 0)};
}

}  // namespace tools
