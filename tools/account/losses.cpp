// Frames that never came out, and numbers that the HAL skipped.

#include <algorithm>

#include "tools/account/cause.h"

namespace tools {
namespace {

Cause CauseOf(const Scene& scene, const Gap& gap) {
    const int32_t stage = scene.isAlone ? -1 : 0;
    const bool isEnded = std::all_of(gap.missing.begin(), gap.missing.end(), [&](int64_t number) {
        const uint32_t row = scene.RowOf(number);
        return row != NO_INDEX && scene.frames[row].isEnded;
    });
    Cause cause{.what = Case::NeverLeft, .span = {gap.from, gap.to}, .stage = stage};
    cause.other = gap.before;
    const Frame& next = scene.frames[gap.next];
    if (gap.isDropped) {
        if (scene.isAlone) {
            cause.what = Case::DroppedBeforeStart;
        } else if (isEnded) {
            cause.what = Case::DroppedAndEnded;
        }
        cause.own = gap.missing;
        cause.count = next.number;
        const uint32_t row = scene.RowOf(gap.missing.front());
        cause.place = row == NO_INDEX ? gap.place : scene.frames[row].place;
        cause.time = gap.from;
        return cause;
    }
    cause.what = scene.isAlone ? Case::Gap : Case::Skipped;
    cause.beside = gap.missing;
    cause.place = scene.LeftAt(gap.next, 0);
    cause.time = gap.to;
    cause.own = {next.number};
    return cause;
}

// Frames that stand when all ends, in one cause: those behind the first stand behind it.
Cause StandingOf(const Scene& scene, const std::vector<const Lost*>& lost) {
    Cause cause{.what = Case::Stands};
    const Lost* first = lost.front();
    for (const Lost* one : lost) {
        cause.own.push_back(one->number);
        first = one->stage > first->stage ? one : first;
    }
    cause.stage = scene.isAlone ? -1 : first->stage;
    cause.frame = first->number;
    cause.span = {first->since, scene.stop};
    cause.took = {scene.stop - first->since};
    std::tie(cause.place, cause.time) = scene.LastOf(scene.RowOf(first->number));
    return cause;
}

}  // namespace

void FindLosses(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    for (const Gap& gap : columns.gaps) {
        causes.push_back(CauseOf(scene, gap));
    }
    std::vector<const Lost*> standing;
    const Lost* before = nullptr;
    for (const Lost& lost : columns.lost) {
        const uint32_t row = scene.RowOf(lost.number);
        if (lost.how == Lost::How::Stands) {
            standing.push_back(&lost);
        }
        if (lost.how == Lost::How::Stands || lost.how == Lost::How::Dropped || row == NO_INDEX ||
            (lost.stage == 0 && !scene.isAlone)) {
            continue;
        }
        // Frames in a row are one finding.
        if (before != nullptr && before->stage == lost.stage && before->how == lost.how &&
            StepOf(before->number, lost.number) == 1) {
            causes.back().own.push_back(lost.number);
        } else {
            const bool isEnded = lost.how == Lost::How::Ended;
            causes.push_back({.what = isEnded ? Case::DroppedAndEnded : Case::NeverLeft,
                              .span = {lost.since, scene.stop},
                              .stage = scene.isAlone ? -1 : lost.stage,
                              .own = {lost.number}});
            std::tie(causes.back().place, causes.back().time) = scene.LastOf(row);
        }
        before = &lost;
    }
    if (!standing.empty()) {
        causes.push_back(StandingOf(scene, standing));
    }
}

}  // namespace tools
