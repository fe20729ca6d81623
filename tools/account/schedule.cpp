#include "tools/account/schedule.h"

#include <algorithm>

namespace tools {
namespace {

// A rate is told of where it lasts that long.
constexpr Micros RATE_LENGTH = SECOND;
// Intervals that differ by no more are of one rate.
constexpr double SAME_RATE = 0.1;
// And a rate is another than the scene's if it differs by more.
constexpr double OTHER_RATE = 0.15;

bool IsNear(Micros one, Micros other, double share) {
    return std::abs(one - other) <
           static_cast<Micros>(share * static_cast<double>(other)) + MILLISECOND;
}

}  // namespace

Micros MedianOf(std::vector<Micros>& values, Micros none) {
    if (values.empty()) {
        return none;
    }
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>((values.size() - 1) / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

Schedule::Schedule(Scene& measured)
    : scene(measured),
      stageCount(static_cast<size_t>(measured.stageCount)),
      period(SECOND / (measured.fps > 0 ? measured.fps : 60)) {
    const size_t frames = scene.frames.size();
    ahead.assign(frames * stageCount, NO_INDEX);
    usualWork.assign(stageCount, period);
    usualStay.assign(stageCount, period);
    usualDelay.assign(stageCount, period);
    keptBack.assign(stageCount, 0);
    triggers.resize(stageCount);
    std::vector<Micros> works, stays;
    for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
        works.clear();
        stays.clear();
        uint32_t before = NO_INDEX;
        for (const uint32_t frame : scene.order[Index(stage)]) {
            ahead[frame * stageCount + Index(stage)] = before;
            StagePass& pass = measured.PassOf(frame, stage);
            const Micros arrival = scene.ArrivalOf(frame, stage);
            const Micros free = before == NO_INDEX ? NO_TIME : scene.PassOf(before, stage).left;
            pass.begin = std::max(arrival, free);
            if (pass.begin != NO_TIME) {
                pass.begin = std::min(pass.begin, pass.left);
                works.push_back(pass.left - pass.begin);
            }
            if (arrival != NO_TIME) {
                stays.push_back(std::max<Micros>(pass.left - arrival, 0));
            }
            before = frame;
        }
        lastStage = before == NO_INDEX ? lastStage : stage;
        usualDelay[Index(stage)] = usualWork[Index(stage)] = MedianOf(works, period);
        usualStay[Index(stage)] = MedianOf(stays, period);
    }
    if (lastStage >= 0) {
        outputs = scene.order[Index(lastStage)];
    } else {
        for (uint32_t frame = 0; frame < frames; ++frame) {
            if (scene.frames[frame].isEnded) {
                outputs.push_back(frame);
            }
        }
        std::stable_sort(outputs.begin(), outputs.end(), [this](uint32_t one, uint32_t other) {
            return scene.frames[one].end < scene.frames[other].end;
        });
    }

    if (scene.hasTimes) {
        FindRates(Comings());
    }
    for (int32_t stage = 1; stage < scene.stageCount; ++stage) {
        FindKeptBack(stage);
    }
}

Micros Schedule::PeriodAt(Micros time) const {
    for (const RateStretch& stretch : rates) {
        if (time >= stretch.begin && time <= stretch.end + stretch.period) {
            return stretch.period;
        }
    }
    return period;
}

Micros Schedule::WorkOf(uint32_t frame, int32_t stage) const {
    const StagePass& pass = scene.PassOf(frame, stage);
    return pass.HasLeft() && pass.begin != NO_TIME ? pass.left - pass.begin : NO_TIME;
}

Schedule::Cause Schedule::CauseOf(uint32_t frame, int32_t stage) const {
    const uint32_t before = Ahead(frame, stage);
    const Micros free = before == NO_INDEX ? NO_TIME : scene.PassOf(before, stage).left;
    uint32_t trigger = frame;
    if (!triggers[Index(stage)].empty() && triggers[Index(stage)][frame] != NO_INDEX) {
        trigger = triggers[Index(stage)][frame];
    }
    const Micros arrival = scene.ArrivalOf(trigger, stage);
    if (free != NO_TIME && free >= arrival) {
        return {free, before, true};
    }
    return {arrival, stage == 0 ? before : trigger, stage == 0};
}

// Frames as the sensor delivers them: as they leave stage 0; without stages, as they are started.
std::vector<Schedule::Coming> Schedule::Comings() const {
    std::vector<Coming> comings;
    const auto add = [&](const Frame& frame, Micros time, const Place& place) {
        Coming coming{time, NO_TIME, place, frame.number, frame.epoch, false};
        if (!comings.empty()) {
            const Coming& before = comings.back();
            coming.interval = time - before.time;
            // Dropped ones took their time, too. A HAL may also count by two.
            const auto step =
                static_cast<uint64_t>(frame.number) - static_cast<uint64_t>(before.number);
            if (frame.epoch == before.epoch && frame.number > before.number && step < 1000) {
                coming.isAfterGap = step > 1;
                coming.interval = std::max(coming.interval / static_cast<Micros>(step),
                                           std::min(coming.interval, period));
            }
        }
        comings.push_back(coming);
    };
    if (stageCount > 0 && !scene.order[0].empty()) {
        for (const uint32_t frame : scene.order[0]) {
            const StagePass& pass = scene.PassOf(frame, 0);
            add(scene.frames[frame], pass.left, pass.place);
        }
    } else {
        for (const Frame& frame : scene.frames) {
            if (frame.start != NO_TIME) {
                add(frame, frame.start, frame.place);
            }
        }
    }
    return comings;
}

// Stretches in which the intervals are steady, and others than the scene's: a second at a time,
// joined where they are alike.
void Schedule::FindRates(const std::vector<Coming>& comings) {
    std::vector<Micros> intervals;
    for (size_t from = 0; from + 1 < comings.size();) {
        size_t to = from;
        intervals.clear();
        do {
            intervals.push_back(comings[++to].interval);
        } while (to + 1 < comings.size() && comings[to].time - comings[from].time < RATE_LENGTH);
        const Micros usual = MedianOf(intervals, period);
        const auto isUsual = [&](size_t which) {
            return IsNear(comings[which].interval, usual, SAME_RATE);
        };
        const auto steady =
            std::count_if(intervals.begin(), intervals.end(),
                          [usual](Micros interval) { return IsNear(interval, usual, SAME_RATE); });
        const bool isOther = std::abs(usual - period) >
                                 static_cast<Micros>(OTHER_RATE * static_cast<double>(period)) &&
                             usual > 0 &&
                             steady * 4 >= static_cast<std::ptrdiff_t>(intervals.size()) * 3 &&
                             intervals.size() > 3;
        if (!isOther) {
            from = to;
            continue;
        }
        // From where such an interval begins, as far as they go on.
        size_t first = from;
        while (first > 0 && (rates.empty() || comings[first - 1].time >= rates.back().end) &&
               isUsual(first)) {
            --first;
        }
        while (first < to && !isUsual(first + 1)) {
            ++first;
        }
        size_t last = to;
        while (last > first && !isUsual(last)) {
            --last;
        }
        while (last >= to && last + 1 < comings.size() && isUsual(last + 1)) {
            ++last;
        }
        // A stage 0 that was slow itself makes up for it afterwards, or has no room for some.
        const bool isCaughtUp =
            usual > period && last + 1 < comings.size() &&
            (comings[last + 1].interval < period * 4 / 5 || comings[last + 1].isAfterGap);
        const Micros length = comings[last].time - comings[first].time;
        if (last > first && length >= RATE_LENGTH * 9 / 10 && !isCaughtUp) {
            // Without what stands out: a stall is told by itself.
            Micros sum = 0, count = 0;
            for (size_t i = first + 1; i <= last; ++i) {
                sum += isUsual(i) ? comings[i].interval : 0;
                count += isUsual(i) ? 1 : 0;
            }
            const Micros mean = sum / std::max<Micros>(count, 1);
            if (!rates.empty() && IsNear(rates.back().period, usual, SAME_RATE) &&
                comings[first].time - rates.back().end < RATE_LENGTH) {
                rates.back().end = comings[last].time;
            } else {
                RateStretch stretch;
                stretch.begin = comings[first].time;
                stretch.end = comings[last].time;
                stretch.period = mean;
                stretch.place = comings[std::min(first + 1, comings.size() - 1)].place;
                rates.push_back(stretch);
            }
        }
        from = std::max(last, from + 1);
    }
}

// A stage that serves one frame after another has nobody waiting when it is not busy. Where there
// always is somebody although it keeps up, it keeps frames back, or works on several at once: what
// lets a frame go then is that another one comes.
void Schedule::FindKeptBack(int32_t stage) {
    const std::vector<uint32_t>& left = scene.order[Index(stage)];
    // Those that left it, as they came.
    std::vector<uint32_t> came;
    for (const uint32_t frame : left) {
        if (scene.ArrivalOf(frame, stage) != NO_TIME) {
            came.push_back(frame);
        }
    }
    if (came.size() < 2) {
        return;
    }
    const auto isBefore = [this, stage](uint32_t one, uint32_t other) {
        return scene.ArrivalOf(one, stage) < scene.ArrivalOf(other, stage);
    };
    std::stable_sort(came.begin(), came.end(), isBefore);
    std::vector<Micros> inside;
    size_t arrived = 0, gone = 0;
    const Micros lastArrival = scene.ArrivalOf(came.back(), stage);
    for (const uint32_t frame : left) {
        if (scene.ArrivalOf(frame, stage) == NO_TIME) {
            continue;
        }
        ++gone;
        const Micros time = scene.PassOf(frame, stage).left;
        while (arrived < came.size() && scene.ArrivalOf(came[arrived], stage) <= time) {
            ++arrived;
        }
        if (time < lastArrival) {
            inside.push_back(static_cast<Micros>(arrived) - static_cast<Micros>(gone));
        }
    }
    if (inside.empty()) {
        return;
    }
    // Nor do more and more wait for one that keeps up.
    const auto middle = inside.begin() + static_cast<std::ptrdiff_t>(inside.size() / 2);
    std::vector<Micros> early(inside.begin(), middle), later(middle, inside.end());
    const bool isGrowing = MedianOf(later, 0) > MedianOf(early, 0) + 1;
    const auto low = inside.begin() + static_cast<std::ptrdiff_t>(inside.size() / 10);
    std::nth_element(inside.begin(), low, inside.end());
    // As long as a frame takes, others come: for a stage that cannot keep up that says nothing.
    std::vector<Micros> spacings;
    for (size_t i = 1; i < left.size(); ++i) {
        spacings.push_back(scene.PassOf(left[i], stage).left -
                           scene.PassOf(left[i - 1], stage).left);
    }
    Micros slowest = period;
    for (const RateStretch& stretch : rates) {
        slowest = std::max(slowest, stretch.period);
    }
    const bool keepsUp =
        !isGrowing && MedianOf(spacings, period) <= slowest + slowest / 20 + MILLISECOND / 2;
    if (*low < 1 || !keepsUp) {
        return;
    }
    // Frames that are lost make it seem fewer now and then.
    const auto kept = static_cast<size_t>(MedianOf(inside, 0));
    keptBack[Index(stage)] = static_cast<int32_t>(kept);
    // Those that never leave let others go, too.
    for (const uint32_t frame : scene.order[Index(stage - 1)]) {
        if (!scene.PassOf(frame, stage).HasLeft()) {
            came.push_back(frame);
        }
    }
    std::stable_sort(came.begin(), came.end(), isBefore);
    auto& trigger = triggers[Index(stage)];
    trigger.assign(scene.frames.size(), NO_INDEX);
    std::vector<Micros> delays;
    for (size_t i = 0; i + kept < came.size(); ++i) {
        trigger[came[i]] = came[i + kept];
    }
    for (const uint32_t frame : left) {
        const Micros begin = CauseOf(frame, stage).begin;
        if (begin != NO_TIME) {
            delays.push_back(std::max<Micros>(scene.PassOf(frame, stage).left - begin, 0));
        }
    }
    usualDelay[Index(stage)] = MedianOf(delays, period);
}

}  // namespace tools
