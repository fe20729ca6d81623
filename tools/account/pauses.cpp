// Times in which nothing was logged or delivered: standstills, steps of the clock, a sensor that
// stopped or has another rate.

#include <algorithm>
#include <cstdlib>
#include <numeric>

#include "tools/account/cause.h"
#include "tools/account/limits.h"
#include "tools/base/statistics.h"

namespace tools {
namespace {

void FindStoppedSensor(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    const bool stands = std::any_of(columns.lost.begin(), columns.lost.end(),
                                    [](const Lost& one) { return one.how == Lost::How::Stands; });
    if (scene.frames.empty() || scene.stopped == Stop::NumbersRestart || scene.isAlone || stands ||
        columns.stages == 0 || columns.neverHit == 0) {
        return;
    }
    // The frame that the sensor owes has been started by the one before it.
    uint32_t row = static_cast<uint32_t>(scene.frames.size()) - 1;
    while (row > 0 && !scene.frames[row].isStarted) {
        --row;
    }
    const Frame& frame = scene.frames[row];
    const Micros since = frame.start;
    if (!frame.isStarted || frame.isEnded || scene.NextStage(row) > 0 ||
        columns.fates[row].isUnknown) {
        return;
    }
    const std::vector<uint32_t>& order = columns.order[0];
    const bool isLast = order.empty() || scene.LeftOf(order.back(), 0) <= since;
    const Micros length = scene.stop - since;
    if (!isLast || length - columns.StoodIn(since, scene.stop) <= limits::SENSOR_OWES) {
        return;
    }
    // A HAL lets its pipeline run empty before it ends a scene.
    const Micros idle = columns.outputs.empty()
                            ? length
                            : scene.stop - columns.fates[columns.outputs.back()].output;
    causes.push_back({.what = Case::SensorStopped,
                      .span = {since, scene.stop},
                      .stage = 0,
                      .own = {frame.number},
                      .place = frame.place,
                      .time = since,
                      .took = {length},
                      .atLeast = std::min(idle, length) < limits::SENSOR_DEAD ? Severity::Note
                                                                              : Severity::Warning});
}

// Stretches in which frames came at another rate than the scene's.
void FindRates(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    if (columns.period.empty()) {
        return;
    }
    const std::vector<Coming> comings = ComingsOf(scene, columns);
    for (size_t i = 0; i < comings.size();) {
        const auto isOther = [&](size_t at) {
            return columns.period[comings[at].row] != scene.Period();
        };
        const size_t first = i++;
        if (!isOther(first)) {
            continue;
        }
        Cause cause{.what = Case::OtherRate, .stage = 0};
        std::vector<Micros> intervals;  // Without what stands out: a stall is reported by itself.
        size_t last = first;
        for (; i < comings.size() && i - last <= limits::RATE_FRAMES; ++i) {
            last = isOther(i) ? i : last;
        }
        i = last + 1;
        for (size_t at = first; at <= last; ++at) {
            const Micros usual = columns.period[comings[at].row];
            const Micros interval = at == 0 ? 0 : comings[at].time - comings[at - 1].time;
            if (isOther(at)) {
                cause.own.push_back(scene.frames[comings[at].row].number);
            }
            if (isOther(at) && std::abs(interval - usual) <= usual / 10 + MILLISECOND) {
                intervals.push_back(interval);
            }
        }
        const auto count = static_cast<Micros>(intervals.size());
        const Micros sum = std::accumulate(intervals.begin(), intervals.end(), Micros{0});
        if (sum < limits::RATE_LENGTH) {
            continue;
        }
        std::sort(cause.own.begin(), cause.own.end());
        const Micros from = first == 0 ? comings[0].time : comings[first - 1].time;
        cause.span = {from, comings[last].time};
        cause.took = {sum / count};
        cause.count = sum;
        const uint32_t row = comings[first].row;
        cause.place = scene.LeftAt(row, 0);
        cause.time = from;
        causes.push_back(std::move(cause));
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
