// What a scene suffered: lines that are missing, numbers that start again, frames that were lost,
// skipped or pushed out, times in which nothing went on, and another rate of the sensor.

#include <algorithm>
#include <cstdlib>

#include "tools/account/cause.h"
#include "tools/account/limits.h"

namespace tools {
namespace {

// --- Lines and numbers.

// The hole that is nearest to a time, of one at least.
size_t NearestOf(const std::vector<Span>& holes, Micros time) {
    auto next = std::ranges::lower_bound(holes, time, {}, &Span::end);
    if (next == holes.end() ||
        (next != holes.begin() && time - std::prev(next)->end < next->begin - time)) {
        --next;
    }
    return static_cast<size_t>(next - holes.begin());
}

}  // namespace

void FindMissingLines(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    std::vector<Cause> found;
    for (const Span& hole : columns.holes) {
        found.push_back({.what = Case::LinesMissing, .span = hole, .at = {hole.begin}});
    }
    for (const Scene::Disturbance& one : scene.leftOut) {
        Cause& cause = found[NearestOf(columns.holes, one.time)];
        cause.count += std::max<int64_t>(one.amount, 1);
        cause.at.place = cause.at.place.line == 0 ? one.place : cause.at.place;
    }
    for (uint32_t row = 0; row < scene.frames.size(); ++row) {
        const Frame& frame = scene.frames[row];
        const Mark last = scene.LastOf(row);
        if (!columns.IsNearHole(frame.seen, scene.SeenUntil(row))) {
            continue;
        }
        Cause& cause = found[NearestOf(columns.holes, last.time)];
        if (columns.fates[row].isUnknown) {
            cause.own.push_back(frame.number);
        }
        if (!cause.frame || cause.own.size() == 1) {
            cause.frame = cause.own.empty() ? frame.number : cause.own.front();
        }
        if (cause.at.place.line == 0 && last.time >= cause.span.begin) {
            cause.at.place = last.place;
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
        cause.at.place = cause.at.place.line == 0 ? scene.from : cause.at.place;
        causes.push_back(std::move(cause));
    }
}

void FindRestart(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    if (!scene.restartedAfter || scene.frames.empty()) {
        return;
    }
    const Frame& first = scene.frames.front();
    Cause cause{
        .what = Case::Restarted,
        .span = {scene.begin, scene.stop},
        .frame = first.number,
        .at = {first.seen, first.trouble.place.line != 0 ? first.trouble.place : first.place},
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

// --- Frames that never came out, and numbers that the HAL skipped.

namespace {

Cause CauseOf(const Scene& scene, const Gap& gap) {
    const int32_t stage = scene.isAlone ? -1 : 0;
    const int64_t next = scene.frames[gap.next].number;
    if (!gap.isDropped) {
        return {.what = scene.isAlone ? Case::Gap : Case::Skipped,
                .span = {gap.from.time, gap.to},
                .stage = stage,
                .own = {next},
                .at = scene.DeliveryOf(gap.next),
                .other = gap.before,
                .beside = gap.missing};
    }
    const uint32_t first = scene.RowOf(gap.missing.front());
    Cause cause{
        .what = scene.isAlone ? Case::DroppedBeforeStart : Case::NeverLeft,
        .span = {gap.from.time, gap.to},
        .stage = stage,
        .own = gap.missing,
        .at = {gap.from.time, first == NO_INDEX ? gap.from.place : scene.frames[first].place},
        .other = gap.before,
        .count = next};
    const auto isEnded = [&scene](int64_t number) {
        const uint32_t row = scene.RowOf(number);
        return row != NO_INDEX && scene.frames[row].isEnded;
    };
    if (!scene.isAlone && std::ranges::all_of(cause.own, isEnded)) {
        cause.what = Case::DroppedAndEnded;
    }
    return cause;
}

}  // namespace

// --- Times in which nothing was logged or delivered, and another rate.

void FindStoppedSensor(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    const bool stands = std::any_of(columns.lost.begin(), columns.lost.end(), [](const auto& lost) {
        return lost.second.how == Lost::How::Stands;
    });
    // The frame that the sensor owes has been started by the one before it.
    const auto frame = std::find_if(scene.frames.rbegin(), scene.frames.rend(),
                                    [](const Frame& one) { return one.isStarted; });
    if (frame == scene.frames.rend() || frame->isEnded || stands || scene.isAlone ||
        scene.stopped == Stop::NumbersRestart || columns.stages == 0 || columns.neverHit == 0) {
        return;
    }
    const uint32_t row = scene.RowOf(frame->number);
    const std::vector<uint32_t>& order = columns.order[0];
    const Span span = {frame->start, scene.stop};
    if (scene.NextStage(row) > 0 || columns.fates[row].isUnknown ||
        (!order.empty() && scene.LeftOf(order.back(), 0) > span.begin) ||
        span.Length() - columns.StoodIn(span.begin, span.end) <= limits::SENSOR_OWES) {
        return;
    }
    // A HAL lets its pipeline run empty before it ends a scene.
    const Micros idle = columns.outputs.empty()
                            ? span.Length()
                            : span.end - columns.fates[columns.outputs.back()].output;
    const bool isDead = std::min(idle, span.Length()) >= limits::SENSOR_DEAD;
    causes.push_back({.what = Case::SensorStopped,
                      .span = span,
                      .stage = 0,
                      .own = {frame->number},
                      .at = {span.begin, frame->place},
                      .took = {span.Length()},
                      .atLeast = isDead ? Severity::Warning : Severity::Note});
}

// Stretches in which frames came at another rate than the scene's.
void FindOtherRates(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    const std::vector<uint32_t>& rows = columns.delivered;
    const auto isOther = [&](uint32_t row) { return columns.period[row] != scene.Period(); };
    // The first frame of all has no interval, and so no rate.
    auto first = std::find_if(rows.begin(), rows.end(), isOther);
    while (first != rows.end()) {
        const auto end = std::find_if_not(first, rows.end(), isOther);
        const Micros begin = scene.DeliveredAt(*std::prev(first));
        Cause cause{.what = Case::OtherRate,
                    .span = {begin, scene.DeliveredAt(*std::prev(end))},
                    .stage = 0,
                    .at = {begin, scene.DeliveryOf(*first).place}};
        Micros count = 0;
        for (auto one = first; one != end; ++one) {
            cause.own.push_back(scene.frames[*one].number);
            // Without what stands out: a stall is found by itself.
            const Micros usual = columns.period[*one];
            const Micros interval = scene.DeliveredAt(*one) - scene.DeliveredAt(*std::prev(one));
            if (std::abs(interval - usual) <= usual / 10 + MILLISECOND) {
                cause.count += interval;
                ++count;
            }
        }
        if (cause.count >= limits::RATE_LENGTH) {
            cause.took = {cause.count / count};
            std::ranges::sort(cause.own);
            causes.push_back(std::move(cause));
        }
        first = std::find_if(end, rows.end(), isOther);
    }
}

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
            before = &causes.emplace_back(Cause{.what = what,
                                                .span = {lost.since, scene.stop},
                                                .stage = stage,
                                                .own = {number},
                                                .at = scene.LastOf(scene.RowOf(number))});
        }
    }
    if (first != nullptr) {
        standing.stage = scene.isAlone ? -1 : first->stage;
        standing.frame = first->number;
        standing.span = {first->since, scene.stop};
        standing.took = {scene.stop - first->since};
        standing.at = scene.LastOf(scene.RowOf(first->number));
        causes.push_back(std::move(standing));
    }
}

// Frames are pushed out although no stage holds more than usual: the pipeline is deeper than the
// table.
void FindDepth(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    for (const auto& [rows, holders] : columns.evictions) {
        const Frame& first = scene.frames[rows.front()];
        const int32_t stage = scene.NextStage(rows.front());
        Cause cause{.what = Case::PushedOut,
                    .span = {first.evicted, scene.frames[rows.back()].evicted},
                    .stage = stage < scene.stageCount ? stage : -1,
                    .at = first.trouble};
        for (const uint32_t row : rows) {
            const Fate& fate = columns.fates[row];
            if (fate.status == FrameStatus::Evicted && IsNotBoosted(fate)) {
                cause.own.push_back(scene.frames[row].number);
            }
        }
        std::ranges::sort(cause.own);
        if (!holders.front() && !cause.own.empty() && !columns.neverHit) {
            causes.push_back(std::move(cause));
        }
    }
}

void FindPauses(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    for (const Standstill& stood : columns.stood) {
        causes.push_back({.what = Case::Stood,
                          .span = stood,
                          .at = {stood.begin, stood.place},
                          .took = {stood.Length()},
                          .count = stood.stages});
    }
    for (const Scene::Disturbance& step : scene.clockSteps) {
        causes.push_back({.what = Case::ClockSet,
                          .span = {step.time, step.time},
                          .at = {step.time, step.place},
                          .took = {step.amount}});
    }
}

}  // namespace tools
