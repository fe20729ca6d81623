// What the steps share that make the columns of a scene. Internal to this room.
//
// Each step writes its columns and reads those of the steps before it, in the order in which they
// stand here.

#pragma once

#include "tools/account/columns.h"

namespace tools {

struct Step {
    const Scene& scene;
    Columns& columns;
    const Micros period = scene.Period();

    uint32_t RowCount() const { return static_cast<uint32_t>(scene.frames.size()); }
    Micros LastOf(uint32_t row) const {
        return std::max(scene.LastOf(row).second, scene.frames[row].end);
    }
    bool IsDoubtful(uint32_t row) const {
        return columns.IsNearHole(scene.frames[row].seen, LastOf(row));
    }
    // How long the stages from that one on usually take.
    Micros RestOf(int32_t stage) const;
    // Whether the clock was not set meanwhile.
    bool IsTimed(Micros from, Micros to) const;
    // The pass whose end is when the frame came to the stage.
    uint32_t CameFrom(uint32_t row, int32_t stage) const;
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

}  // namespace tools
