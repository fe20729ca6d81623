// Frames that came out late, and what their delays are followed back to.

#include <algorithm>

#include "tools/account/limits.h"
#include "tools/account/steps.h"

namespace tools {
namespace {

struct Delays : Step {
    void FindLate() {
        for (size_t i = 1; i < columns.outputs.size(); ++i) {
            const uint32_t before = columns.outputs[i - 1], row = columns.outputs[i];
            Fate& fate = columns.fates[row];
            const Micros from = columns.fates[before].output;
            if (IsDoubtful(row) || IsDoubtful(before) || !IsTimed(from, fate.output)) {
                continue;
            }
            fate.interval = fate.output - from;
            fate.isLate = fate.interval > columns.lateThreshold;
            if (!fate.isLate) {
                continue;
            }
            LateFrame& late = columns.late.emplace_back(LateFrame{.row = row});
            AddLost(scene.frames[before].number, scene.frames[row].number, late);
            // Each frame that never came out leaves a period empty, and nobody made up for it.
            const Micros delay = fate.interval - period * (1 + std::ssize(late.lost)) -
                                 columns.StoodIn(from, fate.output);
            if (delay >= Times(limits::TRIFLE_PERIODS, period)) {
                Walk(late, from, delay);
            }
        }
    }

    // Frames between two numbers that never came out.
    void AddLost(int64_t from, int64_t to, LateFrame& late) const {
        for (auto lost = columns.lost.upper_bound(from);
             lost != columns.lost.end() && lost->first < to; ++lost) {
            late.lost.insert(lost->first);
        }
    }

    // From a late output back along what came later, arrival or the frame ahead, until work beyond
    // the usual explains the delay. It ends at a frame that came out no later than the output
    // before: what was slow there delayed both alike. `before`: the time of that output.
    void Walk(LateFrame& late, Micros before, Micros delay) const {
        uint32_t row = late.row;
        int32_t stage = columns.LastStage();
        Micros explained = 0;
        for (int i = 0; i < limits::LONGEST_WALK && stage >= 0; ++i) {
            if (!scene.isAlone && !scene.PassOf(row, stage).HasLeft()) {
                stage = scene.StageBefore(row, stage);  // Its output is an estimate.
            }
            if (stage < 0 || columns.begin[columns.PassOf(row, stage)] == NO_TIME) {
                return;
            }
            const Micros expected = ExpectedOf(row, stage);
            const auto [excess, from] = ExcessOf(row, stage, expected, late);
            if (excess > std::max({limits::EXCESS, Times(limits::EXCESS_SHARE, expected),
                                   Times(limits::EXCESS_SHARE, delay)})) {
                late.blame.push_back({row, stage, excess});
            }
            // The frame came late as those before it were dropped.
            if (stage == 0 && columns.fates[row].periods > 1) {
                const int64_t number = scene.frames[row].number;
                AddLost(Plus(number, -columns.fates[row].periods), number, late);
            }
            explained += std::max<Micros>(excess, 0);
            if (explained >= Times(limits::EXPLAINED, delay) || from == NO_INDEX) {
                return;
            }
            row = static_cast<uint32_t>(from / static_cast<size_t>(columns.stages));
            stage = static_cast<int32_t>(from % static_cast<size_t>(columns.stages));
            const Micros output = columns.fates[row].output;
            if (row != late.row && output != NO_TIME && output <= before) {
                return;
            }
        }
    }

    // How long the stage should have worked on the frame. The sensor works by the clock.
    Micros ExpectedOf(uint32_t row, int32_t stage) const {
        if (stage == 0 && !scene.isAlone) {
            return period * columns.fates[row].periods;
        }
        Micros expected = columns.usual[stage];
        for (int32_t before = std::max(scene.StageBefore(row, stage), 0) + 1; before < stage;
             ++before) {
            expected += columns.usualStay[before];  // It was there, too.
        }
        return expected;
    }

    // How much longer it took, and the pass to follow the delay to.
    std::pair<Micros, uint32_t> ExcessOf(uint32_t row, int32_t stage, Micros expected,
                                         LateFrame& late) const {
        const Micros excess = columns.WorkOf(scene, row, stage) - expected;
        const uint32_t kept = columns.kept[stage];
        if (kept > 0 && excess > limits::EXCESS) {
            const uint32_t last = columns.CameBehind(row, stage, kept);
            if (last == NO_INDEX) {
                // It waited for frames that did not come.
                return {0, CameFrom(columns.came[stage].back(), stage)};
            }
            const Micros since = CameAt(scene, last, stage), left = scene.LeftOf(row, stage);
            if (left - since - columns.StoodIn(since, left) <=
                columns.usualHold[stage] + Times(limits::TRIFLE_PERIODS, period)) {
                // It waited for a later frame, which may have come late as others were lost.
                const uint32_t before = columns.CameBehind(row, stage, int64_t{kept} - 1);
                AddLost(scene.frames[before].number, scene.frames[last].number, late);
                return {0, CameFrom(last, stage)};
            }
        }
        return {excess, columns.behind[columns.PassOf(row, stage)]};
    }
};

}  // namespace

void FindDelays(const Scene& scene, Columns& columns) {
    Delays{{scene, columns}}.FindLate();
}

}  // namespace tools
