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

// A frame as the sensor delivered it.
struct Coming {
    Micros time, interval;  // From the one before, for each frame of which it was one.
    Place place;
    int64_t number;
    uint16_t epoch;
    bool isAfterGap;  // Numbers are missing before it.
};

// Frames as the sensor delivers them: as they leave stage 0; without stages, as they are started.
std::vector<Coming> ComingsOf(const Scene& scene, Micros period) {
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
    if (scene.stageCount > 0 && !scene.order[0].empty()) {
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

// Some frames in a row: the first one and the last one.
struct Row {
    size_t first, last;
};

// The interval of most frames of a row, without its first one's; 0 where there is none.
Micros SteadyInterval(const std::vector<Coming>& comings, const Row& row) {
    std::vector<Micros> intervals;
    for (size_t i = row.first + 1; i <= row.last; ++i) {
        intervals.push_back(comings[i].interval);
    }
    const Micros usual = MedianOf(intervals, 0);
    const auto steady = std::count_if(intervals.begin(), intervals.end(), [&](Micros interval) {
        return IsNear(interval, usual, SAME_RATE);
    });
    return intervals.size() > 3 && steady * 4 >= std::ssize(intervals) * 3 ? usual : 0;
}

// Moves a row to where its intervals begin, no earlier than `earliest`, as far as they go on.
Row Fitted(const std::vector<Coming>& comings, Row row, Micros usual, Micros earliest) {
    const auto isUsual = [&](size_t i) { return IsNear(comings[i].interval, usual, SAME_RATE); };
    const size_t to = row.last;
    while (row.first > 0 && comings[row.first - 1].time >= earliest && isUsual(row.first)) {
        --row.first;
    }
    while (row.first < to && !isUsual(row.first + 1)) {
        ++row.first;
    }
    while (row.last > row.first && !isUsual(row.last)) {
        --row.last;
    }
    while (row.last >= to && row.last + 1 < comings.size() && isUsual(row.last + 1)) {
        ++row.last;
    }
    return row;
}

// The mean of the intervals of a row, without what stands out: a stall is told by itself.
Micros MeanInterval(const std::vector<Coming>& comings, const Row& row, Micros usual) {
    Micros sum = 0, count = 0;
    for (size_t i = row.first + 1; i <= row.last; ++i) {
        const bool isUsual = IsNear(comings[i].interval, usual, SAME_RATE);
        sum += isUsual ? comings[i].interval : 0;
        count += isUsual ? 1 : 0;
    }
    return sum / count;
}

// Stretches in which the intervals are steady, and others than the scene's: a second at a time,
// joined where they are alike.
std::vector<RateStretch> RatesOf(const std::vector<Coming>& comings, Micros period) {
    std::vector<RateStretch> rates;
    for (size_t from = 0; from + 1 < comings.size();) {
        size_t to = from + 1;
        while (to + 1 < comings.size() && comings[to].time - comings[from].time < RATE_LENGTH) {
            ++to;
        }
        const Micros usual = SteadyInterval(comings, {from, to});
        if (usual <= 0 || std::abs(usual - period) <=
                              static_cast<Micros>(OTHER_RATE * static_cast<double>(period))) {
            from = to;
            continue;
        }
        const Row row =
            Fitted(comings, {from, to}, usual, rates.empty() ? NO_TIME : rates.back().end);
        const Coming &first = comings[row.first], &last = comings[row.last];
        const Coming* next = row.last + 1 < comings.size() ? &comings[row.last + 1] : nullptr;
        // A stage 0 that was slow itself makes up for it afterwards, or has no room for some.
        const bool isCaughtUp = usual > period && next != nullptr &&
                                (next->interval < period * 4 / 5 || next->isAfterGap);
        if (last.time - first.time >= RATE_LENGTH * 9 / 10 && !isCaughtUp) {
            if (!rates.empty() && IsNear(rates.back().period, usual, SAME_RATE) &&
                first.time - rates.back().end < RATE_LENGTH) {
                rates.back().end = last.time;
            } else {
                rates.push_back({{first.time, last.time},
                                 MeanInterval(comings, row, usual),
                                 comings[row.first + 1].place});
            }
        }
        from = std::max(row.last, from + 1);
    }
    return rates;
}

// Those of the frames of which it is known when they came to a stage, as they came.
std::vector<uint32_t> AsTheyCame(const Scene& scene, int32_t stage, std::vector<uint32_t> frames) {
    std::erase_if(frames, [&](uint32_t frame) { return scene.ArrivalOf(frame, stage) == NO_TIME; });
    std::stable_sort(frames.begin(), frames.end(), [&](uint32_t one, uint32_t other) {
        return scene.ArrivalOf(one, stage) < scene.ArrivalOf(other, stage);
    });
    return frames;
}

// How many frames were left in a stage each time that one left it, until the last one came.
std::vector<Micros> InsideOf(const Scene& scene, int32_t stage) {
    const std::vector<uint32_t>& left = scene.order[static_cast<size_t>(stage)];
    const std::vector<uint32_t> came = AsTheyCame(scene, stage, left);
    std::vector<Micros> inside;
    size_t arrived = 0, gone = 0;
    for (const uint32_t frame : left) {
        if (scene.ArrivalOf(frame, stage) == NO_TIME) {
            continue;
        }
        const Micros time = scene.PassOf(frame, stage).left;
        while (arrived < came.size() && scene.ArrivalOf(came[arrived], stage) <= time) {
            ++arrived;
        }
        ++gone;
        if (time < scene.ArrivalOf(came.back(), stage)) {
            inside.push_back(static_cast<Micros>(arrived) - static_cast<Micros>(gone));
        }
    }
    return inside;
}

}  // namespace

Schedule::Schedule(Scene& measured)
    : scene(measured),
      stageCount(static_cast<size_t>(measured.stageCount)),
      period(measured.Period()) {
    const size_t frames = scene.frames.size();
    ahead.assign(frames * stageCount, NO_INDEX);
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
        usualDelay[Index(stage)] = MedianOf(works, period);
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

    rates = RatesOf(ComingsOf(scene, period), period);
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

// A stage that serves one frame after another has nobody waiting when it is not busy. Where there
// always is somebody although it keeps up, it keeps frames back, or works on several at once: what
// lets a frame go then is that another one comes.
void Schedule::FindKeptBack(int32_t stage) {
    const std::vector<uint32_t>& left = scene.order[Index(stage)];
    std::vector<Micros> inside = InsideOf(scene, stage);
    if (inside.empty() || !KeepsUp(stage, inside)) {
        return;
    }
    // Frames that are lost make it seem fewer now and then.
    const auto low = inside.begin() + static_cast<std::ptrdiff_t>(inside.size() / 10);
    std::nth_element(inside.begin(), low, inside.end());
    if (*low < 1) {
        return;
    }
    const auto kept = static_cast<size_t>(MedianOf(inside, 0));
    keptBack[Index(stage)] = static_cast<int32_t>(kept);
    // Those that never leave let others go, too.
    std::vector<uint32_t> came = left;
    for (const uint32_t frame : scene.order[Index(stage - 1)]) {
        if (!scene.PassOf(frame, stage).HasLeft()) {
            came.push_back(frame);
        }
    }
    came = AsTheyCame(scene, stage, std::move(came));
    auto& trigger = triggers[Index(stage)];
    trigger.assign(scene.frames.size(), NO_INDEX);
    for (size_t i = 0; i + kept < came.size(); ++i) {
        trigger[came[i]] = came[i + kept];
    }
    std::vector<Micros> delays;
    for (const uint32_t frame : left) {
        const Micros begin = CauseOf(frame, stage).begin;
        if (begin != NO_TIME) {
            delays.push_back(std::max<Micros>(scene.PassOf(frame, stage).left - begin, 0));
        }
    }
    usualDelay[Index(stage)] = MedianOf(delays, period);
}

// Whether a stage ends frames as often as they come, and no more and more wait for it. As long as a
// frame takes, others come: for one that cannot keep up the number of those inside says nothing.
bool Schedule::KeepsUp(int32_t stage, const std::vector<Micros>& inside) const {
    const auto middle = inside.begin() + static_cast<std::ptrdiff_t>(inside.size() / 2);
    std::vector<Micros> early(inside.begin(), middle), later(middle, inside.end());
    std::vector<Micros> spacings;
    const std::vector<uint32_t>& left = scene.order[Index(stage)];
    for (size_t i = 1; i < left.size(); ++i) {
        spacings.push_back(scene.PassOf(left[i], stage).left -
                           scene.PassOf(left[i - 1], stage).left);
    }
    Micros slowest = period;
    for (const RateStretch& stretch : rates) {
        slowest = std::max(slowest, stretch.period);
    }
    return MedianOf(later, 0) <= MedianOf(early, 0) + 1 &&
           MedianOf(spacings, period) <= slowest + slowest / 20 + MILLISECOND / 2;
}

}  // namespace tools
