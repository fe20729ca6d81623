// Times in which nothing was logged or delivered: standstills, steps of the clock, a sensor that
// stopped or has another rate.

#include <algorithm>
#include <cstdlib>

#include "tools/account/cause.h"
#include "tools/account/limits.h"

namespace tools {
namespace {

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
                      .place = frame->place,
                      .time = span.begin,
                      .took = {span.Length()},
                      .atLeast = isDead ? Severity::Warning : Severity::Note});
}

// Stretches in which frames came at another rate than the scene's.
void FindRates(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    const std::vector<uint32_t>& rows = columns.delivered;
    const auto isOther = [&](uint32_t row) { return columns.period[row] != scene.Period(); };
    for (auto next = rows.begin();;) {
        const auto first = std::find_if(next, rows.end(), isOther);
        if (first == rows.end()) {
            return;
        }
        auto last = first;
        for (next = first; next != rows.end() && next - last <= std::ptrdiff_t{limits::RATE_FRAMES};
             ++next) {
            last = isOther(*next) ? next : last;
        }
        next = last + 1;
        // The first frame of all has no interval, and so no rate.
        const Micros begin = scene.DeliveredAt(*std::prev(first));
        Cause cause{.what = Case::OtherRate,
                    .span = {begin, scene.DeliveredAt(*last)},
                    .stage = 0,
                    .place = scene.LeftAt(*first, 0),
                    .time = begin};
        Micros count = 0;
        for (auto one = first; one != next; ++one) {
            const Micros usual = columns.period[*one];
            const Micros interval = scene.DeliveredAt(*one) - scene.DeliveredAt(*std::prev(one));
            if (isOther(*one)) {
                cause.own.push_back(scene.frames[*one].number);
                // Without what stands out: a stall is found by itself.
                if (std::abs(interval - usual) <= usual / 10 + MILLISECOND) {
                    cause.count += interval;
                    ++count;
                }
            }
        }
        if (cause.count >= limits::RATE_LENGTH) {
            cause.took = {cause.count / count};
            std::sort(cause.own.begin(), cause.own.end());
            causes.push_back(std::move(cause));
        }
    }
}

}  // namespace

void FindPauses(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    for (const Standstill& stood : columns.stood) {
        causes.push_back({.what = Case::Stood,
                          .span = stood,
                          .place = stood.place,
                          .time = stood.begin,
                          .took = {stood.Length()},
                          .count = stood.stages});
    }
    for (const Scene::Disturbance& step : scene.clockSteps) {
        causes.push_back({.what = Case::ClockSet,
                          .span = {step.time, step.time},
                          .place = step.place,
                          .time = step.time,
                          .took = {step.amount}});
    }
    FindStoppedSensor(scene, columns, causes);
    FindRates(scene, columns, causes);
}

}  // namespace tools
