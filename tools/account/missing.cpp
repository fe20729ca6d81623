// Lines that are missing, numbers that start again, and two objects at once.

#include <algorithm>

#include "tools/account/cause.h"
#include "tools/account/limits.h"

namespace tools {
namespace {

// The hole that is nearest to a time, of one at least.
size_t NearestOf(const std::vector<Span>& holes, Micros time) {
    auto next = std::partition_point(holes.begin(), holes.end(),
                                     [time](const Span& hole) { return hole.end < time; });
    if (next == holes.end() ||
        (next != holes.begin() && time - std::prev(next)->end < next->begin - time)) {
        --next;
    }
    return static_cast<size_t>(next - holes.begin());
}

void FindHoles(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    if (columns.holes.empty()) {
        return;
    }
    std::vector<Cause> found;
    for (const Span& hole : columns.holes) {
        found.push_back({.what = Case::LinesMissing, .span = hole, .time = hole.begin});
    }
    for (const Scene::Disturbance& one : scene.leftOut) {
        Cause& cause = found[NearestOf(columns.holes, one.time)];
        cause.count += std::max<int64_t>(one.amount, 1);
        cause.place = cause.place.line == 0 ? one.place : cause.place;
    }
    for (uint32_t row = 0; row < scene.frames.size(); ++row) {
        const Frame& frame = scene.frames[row];
        const auto [place, last] = scene.LastOf(row);
        if (!columns.IsNearHole(frame.seen, std::max(last, frame.end))) {
            continue;
        }
        Cause& cause = found[NearestOf(columns.holes, last)];
        if (columns.fates[row].isUnknown) {
            cause.own.push_back(frame.number);
        }
        if (!cause.frame || cause.own.size() == 1) {
            cause.frame = cause.own.empty() ? frame.number : cause.own.front();
        }
        if (cause.place.line == 0 && last >= cause.span.begin) {
            cause.place = place;
        }
        // Of numbers in between no line is left.
        if (row + 1 == scene.frames.size() ||
            !columns.IsNearHole(frame.seen, scene.frames[row + 1].seen)) {
            continue;
        }
        const int64_t step = StepOf(frame.number, scene.frames[row + 1].number);
        for (int64_t i = 1; i < step && step <= limits::MOST_MISSING; ++i) {
            if (!columns.lost.contains(frame.number + i)) {
                cause.beside.push_back(frame.number + i);
            }
        }
    }
    for (Cause& cause : found) {
        cause.place = cause.place.line == 0 ? scene.from : cause.place;
        causes.push_back(std::move(cause));
    }
}

void FindRestart(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    if (!scene.restartedAfter || scene.frames.empty()) {
        return;
    }
    const Frame& first = scene.frames.front();
    Cause cause{.what = Case::Restarted,
                .span = {scene.begin, scene.stop},
                .frame = first.number,
                .place = first.trouble.line != 0 ? first.trouble : first.place,
                .time = first.seen,
                .other = *scene.restartedAfter};
    for (uint32_t row = 0; row < scene.frames.size(); ++row) {
        const Frame& frame = scene.frames[row];
        const Fate& fate = columns.fates[row];
        if (StepOf(*scene.restartedAfter, frame.number) <= 2 && !frame.isStarted &&
            !fate.isUnknown && !fate.isOnlyOpened) {
            cause.own.push_back(frame.number);
        }
    }
    cause.times = std::max<int64_t>(std::ssize(cause.own), 1);
    causes.push_back(std::move(cause));
}

}  // namespace

void FindMissingLines(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    if (columns.isMixed) {
        causes.push_back({.what = Case::TwoObjects,
                          .span = {scene.begin, scene.stop},
                          .place = scene.from,
                          .time = scene.begin});
        return;
    }
    FindHoles(scene, columns, causes);
    FindRestart(scene, columns, causes);
}

}  // namespace tools
