// Frames that came out late, and what their delays are followed back to.

#include <algorithm>
#include <cmath>

#include "tools/account/limits.h"
#include "tools/account/steps.h"
#include "tools/base/statistics.h"

namespace tools {
namespace {

struct Delays : Step {
    mutable std::unordered_map<int32_t, Micros> usualBehind{};  // By stage.

    // Late frames, and what their delays are followed back to.
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
            LateFrame late{.row = row, .before = before};
            const int64_t low = scene.frames[before].number, high = scene.frames[row].number;
            for (auto lost =
                     std::partition_point(columns.lost.begin(), columns.lost.end(),
                                          [low](const Lost& one) { return one.number <= low; });
                 lost != columns.lost.end() && lost->number < high; ++lost) {
                late.lost.push_back(lost->number);
            }
            // Each frame that never came out leaves a period empty, and nobody made up for it.
            const Micros delay = fate.interval -
                                 period * (1 + static_cast<Micros>(late.lost.size())) -
                                 columns.StoodIn(from, fate.output);
            Walk(late, from, delay);
            columns.late.push_back(std::move(late));
        }
        FindSlowFirst();
    }

    // Before the first output there is no interval that would show that it is late.
    void FindSlowFirst() {
        if (scene.isBeginningMissing || scene.restartedAfter || columns.outputs.empty()) {
            return;
        }
        const uint32_t row = columns.outputs.front();
        if (!scene.frames[row].isStarted || IsDoubtful(row) || !columns.fates[row].isOut) {
            return;
        }
        LateFrame late{.row = row, .isFirst = true};
        for (int32_t stage = 0; stage < columns.stages; ++stage) {
            const Micros begin =
                stage == 0 ? scene.frames[row].start : columns.begin[columns.PassOf(row, stage)];
            const Micros left = scene.LeftOf(row, stage);
            if (begin == NO_TIME || left == NO_TIME) {
                continue;
            }
            const Micros usual = std::max(columns.usual[stage], columns.usualStay[stage]);
            const Micros excess = left - begin - columns.StoodIn(begin, left) - usual;
            if (excess > limits::HANGS_PERIODS * period) {
                late.blame.push_back({row, stage, excess});
            }
        }
        if (!late.blame.empty()) {
            columns.late.insert(columns.late.begin(), std::move(late));
        }
    }

    // From a late output back along what came later, arrival or the frame ahead, until work beyond
    // the usual explains the delay. It ends at a frame that came out no later than the output
    // before: what was slow there delayed both alike. `before`: the time of that output.
    void Walk(LateFrame& late, Micros before, Micros delay) const {
        if (delay < Times(limits::TRIFLE_PERIODS, period)) {
            return;
        }
        uint32_t row = late.row;
        int32_t stage = columns.LastStage();
        Micros explained = 0;
        for (int i = 0; i < limits::LONGEST_WALK && stage >= 0; ++i) {
            while (stage > 0 && scene.LeftOf(row, stage) == NO_TIME) {
                --stage;  // Its output is an estimate.
            }
            const size_t pass = columns.PassOf(row, stage);
            if (scene.LeftOf(row, stage) == NO_TIME || columns.begin[pass] == NO_TIME) {
                break;
            }
            uint32_t from = columns.behind[pass];
            const Micros excess = ExcessOf(row, stage, from, late.lost);
            const auto least =
                std::max({limits::EXCESS, Times(limits::EXCESS_SHARE, ExpectedOf(row, stage)),
                          Times(limits::EXCESS_SHARE, delay)});
            if (excess > least) {
                late.blame.push_back({row, stage, excess});
            }
            if (stage == 0 && columns.steps.contains(row)) {
                AddDropped(row, late.lost);
            }
            explained += std::max<Micros>(excess, 0);
            if (explained >= Times(limits::EXPLAINED, delay) || from == NO_INDEX) {
                break;
            }
            row = static_cast<uint32_t>(from / static_cast<size_t>(columns.stages));
            stage = static_cast<int32_t>(from % static_cast<size_t>(columns.stages));
            const Micros output = columns.fates[row].output;
            if (row != late.row && output != NO_TIME && output <= before) {
                break;
            }
        }
    }

    // The frame came late as the ones before it were dropped.
    void AddDropped(uint32_t row, std::vector<int64_t>& lost) const {
        const auto gap =
            std::find_if(columns.gaps.begin(), columns.gaps.end(),
                         [row](const Gap& one) { return one.next == row && one.isDropped; });
        if (gap != columns.gaps.end()) {
            lost.insert(lost.end(), gap->missing.begin(), gap->missing.end());
        }
    }

    // How long the stage should have worked on the frame. The sensor works by the clock.
    Micros ExpectedOf(uint32_t row, int32_t stage) const {
        if (stage > 0 || scene.isAlone) {
            // Of several servers one that is free begins at once.
            Micros expected = columns.kept[stage] == 0
                                  ? columns.usual[stage]
                                  : std::max(columns.usual[stage], columns.usualStay[stage]);
            for (int32_t before = stage - 1; before > 0 && !scene.PassOf(row, before).HasLeft();
                 --before) {
                expected += columns.usualStay[before];  // It was there, too.
            }
            return expected;
        }
        const auto step = columns.steps.find(row);
        return period * (step == columns.steps.end() ? 1 : step->second);
    }

    // How much longer it took. `from`: the pass to follow the delay to. Adds the frames that it
    // waited for and that were lost.
    Micros ExcessOf(uint32_t row, int32_t stage, uint32_t& from, std::vector<int64_t>& lost) const {
        const Micros excess = columns.WorkOf(scene, row, stage) - ExpectedOf(row, stage);
        const uint32_t kept = columns.kept[stage];
        if (kept == 0 || excess <= limits::EXCESS || columns.place[stage][row] == NO_INDEX) {
            return excess;
        }
        // It may have waited for a later frame to come.
        const std::vector<uint32_t>& came = columns.came[stage];
        const size_t at = columns.place[stage][row] + kept;
        if (at >= came.size()) {
            // It waited for frames that did not come.
            from = CameFrom(came.back(), stage);
            return 0;
        }
        const Micros left = scene.LeftOf(row, stage), since = CameAt(scene, came[at], stage);
        if (left - since - columns.StoodIn(since, left) <=
            UsualBehind(stage) + Times(limits::TRIFLE_PERIODS, period)) {
            from = CameFrom(came[at], stage);
            const int64_t high = scene.frames[came[at]].number;
            for (int64_t number = Plus(scene.frames[came[at - 1]].number, 1); number < high;
                 ++number) {
                if (columns.LostOf(number) != nullptr) {
                    lost.push_back(number);
                }
            }
            return 0;
        }
        return excess;
    }

    // How long a frame usually takes in a stage that keeps frames back, from when it may go.
    Micros UsualBehind(int32_t stage) const {
        const uint32_t kept = columns.kept[stage];
        Micros& usual = usualBehind[stage];
        if (usual == 0) {
            const std::vector<uint32_t>& came = columns.came[stage];
            std::vector<Micros> times;
            for (size_t i = 0; i + kept < came.size(); ++i) {
                if (scene.LeftOf(came[i], stage) == NO_TIME) {
                    continue;
                }
                times.push_back(scene.LeftOf(came[i], stage) -
                                CameAt(scene, came[i + kept], stage));
            }
            usual = std::max<Micros>(MedianOf(times, 0), 1);
        }
        return usual;
    }
};

}  // namespace

void FindDelays(const Scene& scene, Columns& columns) {
    Delays{{scene, columns}}.FindLate();
}

}  // namespace tools
