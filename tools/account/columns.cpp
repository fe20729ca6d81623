#include "tools/account/columns.h"

#include <algorithm>
#include <cmath>

#include "tools/account/limits.h"
#include "tools/account/steps.h"
#include "tools/log/message.h"

namespace tools {

const char* NameOf(FrameStatus status) {
    static constexpr const char* NAMES[FRAME_STATUSES] = {"complete", "dropped", "error", "evicted",
                                                          "refused",  "unseen",  "open"};
    return NAMES[static_cast<size_t>(status)];
}

const char* ReasonOf(Reason reason) {
    static const char* const TEXTS[] = {"",
                                        RefusalOf(MessageKind::FrameNotContinuous),
                                        RefusalOf(MessageKind::FrameAlreadyExists),
                                        RefusalOf(MessageKind::EndedFrameNotExist),
                                        RefusalOf(MessageKind::StageNotInRange),
                                        RefusalOf(MessageKind::StageOutOfOrder),
                                        RefusalOf(MessageKind::StageOutOfTurn),
                                        TABLE_FULL,
                                        "ended before it had been through all stages",
                                        "not seen to leave the stage",
                                        "lines of the log are missing"};
    return TEXTS[static_cast<size_t>(reason)];
}

Micros Columns::StoodIn(Micros from, Micros to) const {
    Micros sum = 0;
    for (auto span = std::partition_point(
             stood.begin(), stood.end(), [from](const Standstill& one) { return one.end <= from; });
         span != stood.end() && span->begin < to; ++span) {
        sum += Cut(*span, {from, to}).Length();
    }
    return sum;
}

bool Columns::IsNearHole(Micros from, Micros to) const {
    const auto hole = std::partition_point(holes.begin(), holes.end(), [from](const Span& one) {
        return one.end + limits::NEAR_HOLE < from;
    });
    return hole != holes.end() && hole->begin - limits::NEAR_HOLE <= to;
}

Micros Columns::WorkOf(const Scene& scene, uint32_t row, int32_t stage) const {
    const Micros from = begin[PassOf(row, stage)], left = scene.LeftOf(row, stage);
    return from == NO_TIME ? NO_TIME : left - from - StoodIn(from, left);
}

Micros Columns::WaitOf(const Scene& scene, uint32_t row, int32_t stage) const {
    const Micros arrival = CameAt(scene, row, stage), from = begin[PassOf(row, stage)];
    return from == NO_TIME || arrival == NO_TIME ? NO_TIME : from - arrival;
}

const Lost* Columns::LostOf(int64_t number) const {
    const auto found = std::partition_point(
        lost.begin(), lost.end(), [number](const Lost& one) { return one.number < number; });
    return found != lost.end() && found->number == number ? &*found : nullptr;
}

Micros CameAt(const Scene& scene, uint32_t row, int32_t stage) {
    return stage > 0 || scene.isAlone ? scene.ArrivalOf(row, stage) : NO_TIME;
}

std::vector<Coming> ComingsOf(const Scene& scene, const Columns& columns) {
    std::vector<Coming> comings;
    if (!scene.isAlone) {
        if (columns.stages > 0) {
            for (const uint32_t row : columns.order[0]) {
                comings.push_back({scene.LeftOf(row, 0), row});
            }
        }
        return comings;
    }
    for (uint32_t row = 0; row < scene.frames.size(); ++row) {
        if (scene.frames[row].start != NO_TIME) {
            comings.push_back({scene.frames[row].start, row});
        }
    }
    std::stable_sort(comings.begin(), comings.end(),
                     [](const Coming& one, const Coming& other) { return one.time < other.time; });
    return comings;
}

Micros Step::RestOf(int32_t stage) const {
    Micros rest = 0;
    for (int32_t next = stage; next < columns.stages; ++next) {
        rest += columns.usualStay[next];
    }
    return rest;
}

bool Step::IsTimed(Micros from, Micros to) const {
    return std::none_of(scene.clockSteps.begin(), scene.clockSteps.end(),
                        [&](const auto& step) { return step.time >= from && step.time <= to; });
}

uint32_t Step::CameFrom(uint32_t row, int32_t stage) const {
    for (int32_t before = stage - 1; before >= 0; --before) {
        if (scene.PassOf(row, before).HasLeft()) {
            return static_cast<uint32_t>(columns.PassOf(row, before));
        }
    }
    return NO_INDEX;
}

namespace {

bool IsMixed(const Scene& scene) {
    constexpr int32_t many = limits::MIXED;
    return scene.isAfterEnd ||
           (scene.descents >= many && (scene.falls >= many || scene.endedAgain >= many)) ||
           (scene.startedAgain >= many && scene.endedAgain >= many);
}

}  // namespace

Columns ColumnsOf(const Scene& scene, double latePeriods) {
    Columns columns;
    columns.lateThreshold = std::llround(latePeriods * 1e6 / scene.Rate());
    columns.isMixed = scene.isStarted && IsMixed(scene);
    FindStages(scene, columns);
    if (!columns.isMixed) {
        FindHoles(scene, columns);
    }
    FindQueues(scene, columns);
    FindFates(scene, columns);
    if (!columns.isMixed) {
        FindDelays(scene, columns);
    }
    return columns;
}

}  // namespace tools
