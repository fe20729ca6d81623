// What the steps share that make the columns of a scene. Internal to this room.
//
// Each step writes its columns and reads those of the steps before it, in the order in which they
// stand here.

#pragma once

#include <algorithm>

#include "tools/account/columns.h"

namespace tools {

struct Step {
    const Scene& scene;
    Columns& columns;
    const Micros period = scene.Period();

    uint32_t RowCount() const { return static_cast<uint32_t>(scene.frames.size()); }
    bool IsDoubtful(uint32_t row) const {
        return columns.IsNearHole(scene.frames[row].seen, scene.SeenUntil(row));
    }
    // The stage that the frame is in; a scene without stages has one.
    int32_t NextStage(uint32_t row) const { return scene.isAlone ? 0 : scene.NextStage(row); }
    // Whether the clock was not set meanwhile.
    bool IsTimed(Micros from, Micros to) const {
        return std::ranges::none_of(
            scene.clockSteps, [&](auto& step) { return step.time >= from && step.time <= to; });
    }
    // The pass whose end is when the frame came to the stage; NO_INDEX for none.
    uint32_t CameFrom(uint32_t row, int32_t stage) const {
        const int32_t before = scene.StageBefore(row, stage);
        return before < 0 ? NO_INDEX : static_cast<uint32_t>(columns.PassOf(row, before));
    }
    // From when on the stage may let go of the frame: one that keeps frames back waits until others
    // have come. NO_TIME where that is not known.
    Micros MayLeaveFrom(uint32_t row, int32_t stage) const {
        const uint32_t last = columns.CameBehind(row, stage, columns.kept[stage]);
        return last == NO_INDEX ? NO_TIME : CameAt(scene, last, stage);
    }
    // The first frame, in the stage's order, that left it at that time or later.
    auto FirstLeftAt(int32_t stage, Micros time) const {
        const auto leftOf = [&, stage](uint32_t row) { return scene.LeftOf(row, stage); };
        return std::ranges::lower_bound(columns.order[stage], time, {}, leftOf);
    }
    // Rows by the line that says that something happened to them. `markOf`: with NO_TIME where
    // nothing did.
    template <typename MarkOf>
    std::vector<uint32_t> RowsBy(const MarkOf& markOf) const {
        std::vector<uint32_t> rows;
        for (uint32_t row = 0; row < RowCount(); ++row) {
            if (markOf(row).time != NO_TIME) {
                rows.push_back(row);
            }
        }
        // As most frames stay in order.
        if (!std::ranges::is_sorted(rows, {}, markOf)) {
            std::ranges::stable_sort(rows, {}, markOf);
        }
        return rows;
    }
};

// Which stages there are, in which order frames left them, the sensor's rates, how long frames stay
// in stages and how many are kept there.
void FindStages(const Scene& scene, Columns& columns);
void FindHoles(const Scene& scene, Columns& columns);
// When all stood, and when each stage began with each frame.
void FindQueues(const Scene& scene, Columns& columns);
// Gaps in numbers, outputs, lost frames, and what became of each frame.
void FindFates(const Scene& scene, Columns& columns);
// Late frames, and what their delays are followed back to.
void FindDelays(const Scene& scene, Columns& columns);
// Frames that were pushed out of the table, and what filled it.
void FindEvictions(const Scene& scene, Columns& columns);

}  // namespace tools
