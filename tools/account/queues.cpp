// Stages as queues: in which order frames left them, what they keep, and when they began.

#include <algorithm>
#include <cmath>
#include <optional>

#include "tools/account/limits.h"
#include "tools/account/steps.h"
#include "tools/base/statistics.h"

namespace tools {
namespace {

// What is known of some rows. `timeOf`: NO_TIME where it is not known.
template <typename TimeOf>
std::vector<Micros> KnownOf(const std::vector<uint32_t>& rows, const TimeOf& timeOf) {
    std::vector<Micros> times;
    for (const uint32_t row : rows) {
        if (const Micros time = timeOf(row); time != NO_TIME) {
            times.push_back(time);
        }
    }
    return times;
}

template <typename TimeOf>
Micros UsualOf(const std::vector<uint32_t>& rows, Micros none, const TimeOf& timeOf) {
    std::vector<Micros> times = KnownOf(rows, timeOf);
    return MedianOf(times, none);
}

struct Stages : Step {
    void FindOrders() {
        // Frames may have left stages before numbers started again.
        const int32_t before = scene.isAlone ? 1 : scene.stagesBefore;
        std::optional<int32_t> never;
        columns.stages = before;
        for (int32_t stage = 0; stage < (scene.isAlone ? 1 : scene.stageCount); ++stage) {
            columns.order.push_back(RowsBy([&](uint32_t row) { return scene.LeftAt(row, stage); }));
            if (!columns.order.back().empty()) {
                columns.stages = std::max(columns.stages, stage + 1);
            } else if (stage >= before && !never) {
                never = stage;
            }
        }
        // Where no stage is reported at all, frames are all that the HAL reports.
        if (columns.stages > 0 && RowCount() >= limits::ENOUGH_FRAMES) {
            columns.neverHit = never;
        }
        columns.order.resize(static_cast<size_t>(columns.stages));
        columns.delivered = RowsBy([this](uint32_t row) { return scene.DeliveryOf(row); });
    }

    // Frames that were in the pipeline before the scene, or before the capture.
    void FindEarly() {
        columns.fates.resize(RowCount());
        bool isFirst = scene.isBeginningMissing;
        for (uint32_t row = 0; row < RowCount(); ++row) {
            const Frame& frame = scene.frames[row];
            isFirst = isFirst && !frame.isStarted;
            // Behind stage 0 when the scene began.
            const bool isBehind = frame.seen <= scene.opened && scene.Unreported(row) == 0;
            const bool isOpener =
                frame.number == scene.opener && !frame.isDuplicate && !scene.restartedAfter;
            columns.fates[row].isEarly =
                !frame.isStarted && !frame.isGap && (isFirst || isBehind || isOpener);
        }
    }

    // The median of the intervals around each frame, where that is another than the scene's.
    void FindRates() {
        const std::vector<uint32_t>& rows = columns.delivered;
        std::vector<Micros> each, near;
        for (size_t i = 1; i < rows.size(); ++i) {
            const Micros interval = scene.DeliveredAt(rows[i]) - scene.DeliveredAt(rows[i - 1]);
            // Of dropped frames each took its time. A HAL may also count by two.
            const int64_t passed = std::max<int64_t>((interval + period / 2) / period, 1);
            const int64_t step =
                StepOf(scene.frames[rows[i - 1]].number, scene.frames[rows[i]].number);
            each.push_back(interval / std::clamp<int64_t>(step, 1, passed));
        }
        columns.period.assign(RowCount(), period);
        constexpr size_t reach = limits::RATE_FRAMES;
        for (size_t i = 0; i < each.size() && each.size() >= reach / 2; ++i) {
            near.assign(each.data() + (i - std::min(i, reach)),
                        each.data() + std::min(i + reach + 1, each.size()));
            const Micros usual = MedianOf(near, period);
            if (std::abs(usual - period) > Times(limits::OTHER_RATE, period)) {
                columns.period[rows[i + 1]] = usual;
            }
        }
        // At the ends of a stretch the median is too early or too late.
        for (const bool isBackward : {false, true}) {
            bool isInside = false;
            for (size_t i = 0; i < each.size(); ++i) {
                const size_t at = isBackward ? each.size() - 1 - i : i;
                Micros& rate = columns.period[rows[at + 1]];
                const bool isUsual = std::abs(each[at] - rate) <= rate / 10 + MILLISECOND;
                isInside = rate != period && (isInside || isUsual);
                rate = isInside ? rate : period;
            }
        }
    }

    // How long frames are in a stage, and how many it keeps.
    void FindStays() {
        columns.place.assign(columns.order.size(), std::vector<uint32_t>(RowCount(), NO_INDEX));
        for (int32_t stage = 0; stage < columns.stages; ++stage) {
            const auto cameAt = [&](uint32_t row) { return CameAt(scene, row, stage); };
            // Frames that never left it are among them: they let go of others.
            columns.came.push_back(RowsBy([&](uint32_t row) {
                const bool isKnown =
                    scene.LeftOf(row, stage) != NO_TIME || scene.NextStage(row) == stage;
                const int32_t before = scene.StageBefore(row, stage);
                return Mark{isKnown ? cameAt(row) : NO_TIME,
                            before < 0 ? scene.frames[row].place : scene.LeftAt(row, before).place};
            }));
            const std::vector<uint32_t>& came = columns.came.back();
            for (size_t i = 0; i < came.size(); ++i) {
                columns.place[stage][came[i]] = static_cast<uint32_t>(i);
            }
            const std::vector<uint32_t>& order = columns.order[stage];
            columns.usualStay.push_back(UsualOf(order, 0, [&](uint32_t row) {
                return Between(cameAt(row), scene.LeftOf(row, stage));
            }));
            FindKept(stage);
            columns.usualHold.push_back(
                UsualOf(came, 0, [&](uint32_t row) { return HoldOf(row, stage); }));
            const auto count = [&](uint8_t line) {
                return std::ranges::count_if(order, [&](uint32_t row) {
                    return !scene.isAlone && (scene.PassOf(row, stage).seen & line) != 0;
                });
            };
            columns.isByNodes.push_back(2 * count(NODE_END) > count(STAGE_END) ? 1 : 0);
        }
    }

    // How long the stage had a frame that it may have let go of; NO_TIME where that is not known.
    Micros HoldOf(uint32_t row, int32_t stage) const {
        return Between(MayLeaveFrom(row, stage), scene.LeftOf(row, stage));
    }

    // Several servers, or frames that are kept back: each time that a frame leaves, as many later
    // ones have come, and it leaves as soon after the last of these as every frame. In a queue that
    // varies.
    void FindKept(int32_t stage) {
        const std::vector<uint32_t>& came = columns.came[stage];
        const auto cameAt = [&](uint32_t row) { return CameAt(scene, row, stage); };
        const std::vector<Micros> times = KnownOf(came, cameAt);
        const Micros inside = UsualOf(columns.order[stage], 0, [&](uint32_t row) {
            const Micros at = cameAt(row);
            const auto left = std::ranges::lower_bound(times, scene.LeftOf(row, stage));
            return at == NO_TIME ? NO_TIME : left - std::ranges::upper_bound(times, at);
        });
        columns.kept.push_back(static_cast<uint32_t>(std::max<Micros>(inside, 0)));
        // At another rate of the sensor a stage with several servers has another number.
        const auto isOther = [&](uint32_t row) { return columns.period[row] != period; };
        const bool isMostlyOther = 2 * std::ranges::count_if(came, isOther) > std::ssize(came);
        std::vector<Micros> holds = KnownOf(came, [&](uint32_t row) {
            return isOther(row) == isMostlyOther ? HoldOf(row, stage) : NO_TIME;
        });
        const Micros varies = QuantileOf(holds, 0.75, 0) - QuantileOf(holds, 0.25, 0);
        if (varies >= Times(limits::STEADY_PERIODS, period)) {
            columns.kept.back() = 0;
        }
    }
};

struct Queues : Step {
    // All threads are silent while frames are in two stages or more, which all go on afterwards: no
    // stage is slow.
    void FindStood() {
        for (const Scene::Silence& silence : scene.silences) {
            const int32_t stages = columns.stages > 0 ? StagesIn(silence) : 0;
            const auto isHole = [&](const Span& hole) {
                return hole.end >= silence.begin && hole.begin <= silence.end + period;
            };
            if (stages >= 2 && std::ranges::none_of(columns.holes, isHole)) {
                columns.stood.push_back({silence, stages});
            }
        }
    }

    // In how many stages frames were that had come before a silence and left after it; 0 where it
    // is too short.
    int32_t StagesIn(const Span& silence) const {
        const auto delivered = FirstLeftAt(0, silence.end);
        const Micros each = delivered == columns.order[0].end()
                                ? period
                                : std::max(period, columns.period[*delivered]);
        if (silence.Length() <= Times(limits::STANDSTILL_PERIODS, each)) {
            return 0;
        }
        int32_t stages = 0;
        bool hasJustCome = false;
        for (int32_t stage = 1; stage < columns.stages; ++stage) {
            const auto next = FirstLeftAt(stage, silence.end);
            // The first to leave is the one that the stage was at work on, unless others overtake.
            const auto last = next + std::min<std::ptrdiff_t>(columns.order[stage].end() - next, 4);
            const auto found = std::find_if(next, last, [&](uint32_t row) {
                const Micros from = MayLeaveFrom(row, stage);
                return from != NO_TIME && from <= silence.begin;
            });
            if (found != last) {
                ++stages;
                const Micros usual = columns.usualStay[stage] + period;
                hasJustCome = hasJustCome || silence.begin - MayLeaveFrom(*found, stage) <= usual;
            }
        }
        // The sensor stands, too, if the frame that it owes comes next. Behind a stage that has
        // been standing for long it would have no room for that.
        return stages + (hasJustCome && OwesFrame(silence) ? 1 : 0);
    }

    // Whether the first frame that left stage 0 after a silence had been started before it.
    bool OwesFrame(const Span& silence) const {
        const auto next = FirstLeftAt(0, silence.end);
        if (next == columns.order[0].begin() || next == columns.order[0].end()) {
            // Behind the last it may have been at work on another count.
            return next != columns.order[0].begin() && scene.stopped == Stop::NumbersRestart;
        }
        // Numbers between that the sensor dropped in silence account for as many periods of it.
        const uint32_t before = *std::prev(next);
        int64_t missing = StepOf(scene.frames[before].number, scene.frames[*next].number) - 1;
        for (uint32_t row = before + 1; row < *next; ++row) {
            const Frame& frame = scene.frames[row];
            missing -= scene.NextStage(row) > 0 || (frame.isEnded && frame.end <= silence.begin);
        }
        const bool isAtOnce = scene.LeftOf(*next, 0) <= silence.end + period;
        return 2 * missing * period <= silence.Length() &&
               (isAtOnce || silence.Length() > 4 * period) &&
               scene.frames[*next].start <= silence.begin;
    }

    void FindBegins() {
        const auto stages = static_cast<size_t>(columns.stages);
        columns.begin.assign(RowCount() * stages, NO_TIME);
        columns.behind.assign(RowCount() * stages, NO_INDEX);
        for (int32_t stage = 0; stage < columns.stages; ++stage) {
            uint32_t ahead = NO_INDEX;
            for (const uint32_t row : columns.order[stage]) {
                SetBegin(row, stage, ahead);
                ahead = row;
            }
            columns.usual.push_back(UsualOf(columns.order[stage], period, [&](uint32_t row) {
                return columns.WorkOf(scene, row, stage);
            }));
        }
    }

    // `free`: the frame behind whose leaving the stage is free for this one.
    void SetBegin(uint32_t row, int32_t stage, uint32_t free) {
        if (columns.kept[stage] > 0) {
            free = columns.CameBehind(row, stage, -1 - int64_t{columns.kept[stage]});
        }
        const size_t pass = columns.PassOf(row, stage);
        const Micros left = scene.LeftOf(row, stage);
        const Micros came = CameAt(scene, row, stage);
        const Micros freeAt = free == NO_INDEX ? NO_TIME : scene.LeftOf(free, stage);
        const bool isKnown = came != NO_TIME || (stage == 0 && !scene.isAlone);
        if (isKnown && freeAt > came) {
            columns.begin[pass] = freeAt;
            columns.behind[pass] = static_cast<uint32_t>(columns.PassOf(free, stage));
        } else if (came != NO_TIME) {
            columns.begin[pass] = std::min(came, left);
            columns.behind[pass] = CameFrom(row, stage);
        }
    }
};

}  // namespace

void FindStages(const Scene& scene, Columns& columns) {
    Stages stages{{scene, columns}};
    stages.FindOrders();
    stages.FindEarly();
    stages.FindRates();
    stages.FindStays();
}

void FindQueues(const Scene& scene, Columns& columns) {
    Queues queues{{scene, columns}};
    queues.FindStood();
    queues.FindBegins();
}

}  // namespace tools
