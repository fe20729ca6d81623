// Lines that are missing, numbers that start again, and two objects at once.

#include <algorithm>

#include "tools/account/cause.h"
#include "tools/account/limits.h"

namespace tools {
namespace {

// The hole that is nearest to a time, of one at least.
size_t NearestOf(const std::vector<Span>& holes, Micros time) {
    const auto next = std::partition_point(holes.begin(), holes.end(),
                                           [time](const Span& hole) { return hole.end < time; });
    const bool isBefore = next == holes.end() || (next != holes.begin() &&
                                                  time - std::prev(next)->end < next->begin - time);
    return static_cast<size_t>(next - holes.begin()) - (isBefore ? 1 : 0);
}

void FindHoles(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    if (columns.holes.empty()) {
        return;
    }
    const size_t first = causes.size();
    for (const Span& hole : columns.holes) {
        causes.push_back({.what = Case::LinesMissing, .span = hole, .time = hole.begin});
    }
    for (const Scene::Disturbance& one : scene.leftOut) {
        Cause& cause = causes[first + NearestOf(columns.holes, one.time)];
        cause.count += std::max<int64_t>(one.amount, 1);
        cause.place = cause.place.line == 0 ? one.place : cause.place;
    }
    for (uint32_t row = 0; row < scene.frames.size(); ++row) {
        const Frame& frame = scene.frames[row];
        const auto [place, last] = scene.LastOf(row);
        if (!columns.IsNearHole(frame.seen, std::max(last, frame.end))) {
            continue;
        }
        Cause& cause = causes[first + NearestOf(columns.holes, last)];
        if (columns.fates[row].isUnknown) {
            cause.own.push_back(frame.number);
        }
        if (!cause.frame || columns.fates[row].isUnknown) {
            cause.frame = cause.own.empty() ? frame.number : cause.own.front();
        }
        if (cause.place.line == 0 && last >= cause.span.begin) {
            cause.place = place;
        }
        // Of numbers in between no line is left.
        const Frame* const next = row + 1 < scene.frames.size() ? &scene.frames[row + 1] : nullptr;
        const int64_t step = next == nullptr ? 0 : StepOf(frame.number, next->number);
        for (int64_t i = 1;
             i < step && step <= limits::MOST_MISSING && columns.IsNearHole(frame.seen, next->seen);
             ++i) {
            if (columns.LostOf(frame.number + i) == nullptr) {
                cause.beside.push_back(frame.number + i);
            }
        }
    }
    for (size_t i = first; i < causes.size(); ++i) {
        causes[i].place = causes[i].place.line == 0 ? scene.from : causes[i].place;
    }
}

void FindRestart(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    if (!scene.restartedAfter) {
        return;
    }
    Cause cause{.what = Case::Restarted, .span = {scene.begin, scene.stop}};
    for (uint32_t row = 0; row < scene.frames.size(); ++row) {
        const Frame& frame = scene.frames[row];
        const Fate& fate = columns.fates[row];
        if (StepOf(*scene.restartedAfter, frame.number) <= 2 && !frame.isStarted &&
            !fate.isUnknown && !fate.isOnlyOpened) {
            cause.own.push_back(frame.number);
        }
    }
    if (scene.frames.empty()) {
        return;
    }
    const Frame& first = scene.frames.front();
    cause.frame = first.number;
    cause.other = *scene.restartedAfter;
    cause.place = first.trouble.line != 0 ? first.trouble : first.place;
    cause.time = first.seen;
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
