// Frames that never came out, and numbers that the HAL skipped.

#include <algorithm>

#include "tools/account/cause.h"

namespace tools {
namespace {

Cause CauseOf(const Scene& scene, const Gap& gap) {
    const int32_t stage = scene.isAlone ? -1 : 0;
    const int64_t next = scene.frames[gap.next].number;
    if (!gap.isDropped) {
        return {.what = scene.isAlone ? Case::Gap : Case::Skipped,
                .span = {gap.from, gap.to},
                .stage = stage,
                .own = {next},
                .place = scene.LeftAt(gap.next, 0),
                .time = gap.to,
                .other = gap.before,
                .beside = gap.missing};
    }
    const uint32_t first = scene.RowOf(gap.missing.front());
    Cause cause{.what = scene.isAlone ? Case::DroppedBeforeStart : Case::NeverLeft,
                .span = {gap.from, gap.to},
                .stage = stage,
                .own = gap.missing,
                .place = first == NO_INDEX ? gap.place : scene.frames[first].place,
                .time = gap.from,
                .other = gap.before,
                .count = next};
    const auto isEnded = [&scene](int64_t number) {
        const uint32_t row = scene.RowOf(number);
        return row != NO_INDEX && scene.frames[row].isEnded;
    };
    if (!scene.isAlone && std::all_of(cause.own.begin(), cause.own.end(), isEnded)) {
        cause.what = Case::DroppedAndEnded;
    }
    return cause;
}

}  // namespace

void FindLosses(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    for (const Gap& gap : columns.gaps) {
        causes.push_back(CauseOf(scene, gap));
    }
    // Frames that stand when all ends, in one cause: they stand behind the one that got farthest.
    Cause standing{.what = Case::Stands};
    const Lost* first = nullptr;
    Cause* before = nullptr;
    for (const auto& [number, lost] : columns.lost) {
        const int32_t stage = scene.isAlone ? -1 : lost.stage;
        const Case what = lost.how == Lost::How::Ended ? Case::DroppedAndEnded : Case::NeverLeft;
        if (lost.how == Lost::How::Stands) {
            standing.own.push_back(number);
            first = first == nullptr || lost.stage > first->stage ? &lost : first;
        } else if (lost.how == Lost::How::Dropped || stage == 0) {
            continue;  // Of a gap.
        } else if (before != nullptr && before->stage == stage && before->what == what &&
                   StepOf(before->own.back(), number) == 1) {
            before->own.push_back(number);
        } else {
            causes.push_back(
                {.what = what, .span = {lost.since, scene.stop}, .stage = stage, .own = {number}});
            before = &causes.back();
            std::tie(before->place, before->time) = scene.LastOf(scene.RowOf(number));
        }
    }
    if (first != nullptr) {
        standing.stage = scene.isAlone ? -1 : first->stage;
        standing.frame = first->number;
        standing.span = {first->since, scene.stop};
        standing.took = {scene.stop - first->since};
        std::tie(standing.place, standing.time) = scene.LastOf(scene.RowOf(first->number));
        causes.push_back(std::move(standing));
    }
}

}  // namespace tools
