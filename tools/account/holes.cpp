// Where lines of the log are missing.

#include <algorithm>

#include "tools/account/limits.h"
#include "tools/account/steps.h"

namespace tools {
namespace {

struct Holes : Step {
    // Where lines are missing. The library takes a frame's events in one order only, so each line
    // of a frame proves the lines before it; and the end of a node, of a frame that is in order,
    // leaves all of its lines or none.
    void FindHoles() {
        std::vector<Span> holes;
        for (uint32_t row = 0; row < RowCount() && !scene.isAlone; ++row) {
            const Frame& frame = scene.frames[row];
            if (!columns.fates[row].isEarly && !frame.isDuplicate && !frame.isGap) {
                FindHolesOf(row, holes);
            }
        }
        for (const Scene::Disturbance& one : scene.leftOut) {
            holes.push_back({one.time, one.time});
        }
        std::ranges::sort(holes, {}, &Span::begin);
        for (const Span& hole : holes) {
            if (!columns.holes.empty() &&
                hole.begin <= columns.holes.back().end + limits::ONE_HOLE) {
                columns.holes.back().end = std::max(columns.holes.back().end, hole.end);
            } else {
                columns.holes.push_back(hole);
            }
        }
        for (uint32_t row = 0; row < RowCount() && !columns.holes.empty(); ++row) {
            columns.fates[row].isUnknown = IsDoubtful(row);
        }
    }

    void FindHolesOf(uint32_t row, std::vector<Span>& holes) {
        const Frame& frame = scene.frames[row];
        const int32_t last = columns.LastStage();
        // The frame's lines in their order: its start, then start and end of each stage.
        std::vector<Micros> lines = {frame.isStarted ? frame.start : NO_TIME};
        for (int32_t stage = 0; stage <= last; ++stage) {
            const Pass& pass = scene.PassOf(row, stage);
            const Micros came = scene.ArrivalOf(row, stage);
            const Micros start = came == NO_TIME ? frame.seen : came;
            lines.push_back((pass.seen & STAGE_START) != 0 ? start : NO_TIME);
            lines.push_back((pass.seen & STAGE_END) != 0 ? pass.left.time : NO_TIME);
        }
        std::vector<Micros> absent;  // Times of lines that prove others, which are not there.
        Micros next = NO_TIME;
        // Where numbers started again, the library may have started that number before, and stage
        // 0.
        const size_t first = scene.restartedAfter && frame.number <= *scene.restartedAfter ? 2 : 0;
        for (size_t i = lines.size(); i-- > first;) {
            if (lines[i] == NO_TIME && next != NO_TIME) {
                absent.push_back(next);
            }
            next = lines[i] == NO_TIME ? next : lines[i];
        }
        const bool isInOrder = next != NO_TIME && frame.refused == NO_TIME && !frame.violation;
        for (int32_t stage = 0; stage <= last; ++stage) {
            const Pass& pass = scene.PassOf(row, stage);
            const bool hasNode = (pass.seen & NODE_END) != 0;
            const bool isEnd = (pass.seen & STAGE_END) != 0;
            const bool isFollowed =
                stage < last ? (scene.PassOf(row, stage + 1).seen & STAGE_START) != 0
                             : frame.isEnded || stage + 1 < scene.stageCount || stage == 0;
            if ((isEnd && !hasNode && columns.isByNodes[stage] != 0) ||
                (hasNode && isInOrder && !(isEnd && isFollowed))) {
                absent.push_back(pass.left.time);
            }
        }
        for (const Micros time : absent) {
            if (time < scene.end - (scene.HasEnd() ? MILLISECOND : limits::ONE_EVENT)) {
                holes.push_back({HoleBegin(lines, time), time});
            }
        }
    }

    // When the hole began in which a line is missing that was to come before that time: behind the
    // frame's line before it, or with a silence around that, all of which is missing then.
    Micros HoleBegin(const std::vector<Micros>& lines, Micros time) const {
        Micros since = NO_TIME;
        for (const Micros line : lines) {
            since = line < time ? std::max(since, line) : since;
        }
        if (since == NO_TIME) {
            // It was to come no longer before than a frame is in a stage.
            since = time - period - *std::ranges::max_element(columns.usualStay);
        }
        const auto silence =
            std::ranges::upper_bound(scene.silences, since, {}, &Scene::Silence::end);
        return silence != scene.silences.end() && silence->begin < time
                   ? std::min(since, silence->begin)
                   : since;
    }
};

}  // namespace

void FindHoles(const Scene& scene, Columns& columns) {
    Holes{{scene, columns}}.FindHoles();
}

}  // namespace tools
