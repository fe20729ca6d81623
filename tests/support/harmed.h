// Whether each frame that came out late, never, or was not boosted is counted to one cause.

#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/account/cause.h"

// Frames that are not, and by how many causes they are too few (-1) or too many; empty for none.
inline std::string MiscountedFrames(const tools::Scene& scene, const tools::Columns& columns,
                                    const std::vector<tools::Cause>& causes) {
    std::map<int64_t, int64_t> counts;
    for (size_t row = 0; row < columns.fates.size(); ++row) {
        counts[scene.frames[row].number] -=
            columns.fates[row].isLate || tools::IsBad(columns.fates[row]) ? 1 : 0;
    }
    for (const auto& [number, lost] : columns.lost) {
        counts[number] -= scene.RowOf(number) == tools::NO_INDEX ? 1 : 0;
    }
    for (const tools::Cause& cause : causes) {
        for (const int64_t number : cause.harmed) {
            ++counts[number];
        }
    }
    std::string text;
    for (const auto& [number, count] : counts) {
        text += count == 0 ? "" : std::to_string(number) + ": " + std::to_string(count) + "; ";
    }
    return text;
}
