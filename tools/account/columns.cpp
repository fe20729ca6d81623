#include "tools/account/columns.h"

#include <algorithm>
#include <cmath>

#include "tools/account/limits.h"
#include "tools/account/steps.h"

namespace tools {

const char* NameOf(FrameStatus status) {
    static constexpr const char* NAMES[FRAME_STATUSES] = {"complete", "dropped", "error", "evicted",
                                                          "refused",  "unseen",  "open"};
    return NAMES[static_cast<size_t>(status)];
}

Micros Columns::StoodIn(Micros from, Micros to) const {
    Micros sum = 0;
    for (auto span = std::ranges::upper_bound(stood, from, {}, &Standstill::end);
         span != stood.end() && span->begin < to; ++span) {
        sum += Cut(*span, {from, to}).Length();
    }
    return sum;
}

bool Columns::IsNearHole(Micros from, Micros to) const {
    const auto hole = std::ranges::lower_bound(holes, from - limits::NEAR_HOLE, {}, &Span::end);
    return hole != holes.end() && hole->begin - limits::NEAR_HOLE <= to;
}

Micros Columns::WorkOf(const Scene& scene, uint32_t row, int32_t stage) const {
    const Micros from = begin[PassOf(row, stage)], left = scene.LeftOf(row, stage);
    return from == NO_TIME ? NO_TIME : left - from - StoodIn(from, left);
}

Micros Columns::WaitOf(const Scene& scene, uint32_t row, int32_t stage) const {
    return Between(CameAt(scene, row, stage), begin[PassOf(row, stage)]);
}

uint32_t Columns::CameBehind(uint32_t row, int32_t stage, int64_t places) const {
    const std::vector<uint32_t>& rows = came[stage];
    const int64_t at = int64_t{place[stage][row]} + places;
    return place[stage][row] != NO_INDEX && at >= 0 && at < std::ssize(rows)
               ? rows[static_cast<size_t>(at)]
               : NO_INDEX;
}

Micros CameAt(const Scene& scene, uint32_t row, int32_t stage) {
    return stage > 0 || scene.isAlone ? scene.ArrivalOf(row, stage) : NO_TIME;
}

Columns ColumnsOf(const Scene& scene, double latePeriods) {
    Columns columns;
    columns.lateThreshold = std::llround(latePeriods * 1e6 / scene.Rate());
    constexpr int32_t many = limits::MIXED;
    const bool isBackAndForth =
        scene.descents >= many && (scene.falls >= many || scene.endedAgain >= many);
    const bool isTwice = scene.startedAgain >= many && scene.endedAgain >= many;
    columns.isMixed = scene.isStarted && (scene.isAfterEnd || isBackAndForth || isTwice);
    FindStages(scene, columns);
    if (!columns.isMixed) {
        FindHoles(scene, columns);
    }
    FindQueues(scene, columns);
    FindFates(scene, columns);
    if (!columns.isMixed) {
        FindDelays(scene, columns);
        FindEvictions(scene, columns);
    }
    return columns;
}

}  // namespace tools
