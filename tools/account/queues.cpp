// Stages as queues: in which order frames left them, what they keep, and when they began.

#include <algorithm>
#include <cmath>

#include "tools/account/limits.h"
#include "tools/account/steps.h"
#include "tools/base/statistics.h"

namespace tools {
namespace {

struct Stages : Step {
    // Which stages there are, and the frames that were in them before all this.
    void Begin() {
        columns.stages = scene.isAlone ? 1 : scene.stagesBefore;
        std::vector<bool> isHit(static_cast<size_t>(scene.stageCount));
        std::fill_n(isHit.begin(), std::min(scene.stagesBefore, scene.stageCount), true);
        for (uint32_t row = 0; row < RowCount(); ++row) {
            for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
                if (scene.PassOf(row, stage).HasLeft()) {
                    isHit[static_cast<size_t>(stage)] = true;
                    columns.stages = std::max(columns.stages, stage + 1);
                }
            }
        }
        const auto never = std::find(isHit.begin(), isHit.end(), false);
        // Where no stage is reported at all, frames are all that the HAL reports.
        if (columns.stages > 0 && !scene.isAlone && never != isHit.end() &&
            RowCount() >= limits::ENOUGH_FRAMES) {
            columns.neverHit = static_cast<int32_t>(never - isHit.begin());
        }
        const auto first = std::find_if(scene.frames.begin(), scene.frames.end(),
                                        [](const Frame& row) { return row.isStarted; });
        columns.fates.resize(RowCount());
        for (uint32_t row = 0; row < RowCount(); ++row) {
            const Frame& frame = scene.frames[row];
            columns.fates[row].isEarly =
                !frame.isStarted && !frame.isGap &&
                ((scene.isBeginningMissing &&
                  (first == scene.frames.end() || frame.number <= first->number)) ||
                 IsOfSceneBefore(row) ||
                 (frame.number == scene.opener && !frame.isDuplicate && !scene.restartedAfter));
        }
    }

    // Whether the frame was behind stage 0 when the scene began.
    bool IsOfSceneBefore(uint32_t row) const {
        return !scene.isAlone && scene.NextStage(row) > 0 && !scene.PassOf(row, 0).HasLeft() &&
               scene.opener && scene.frames[row].seen <= scene.opened;
    }

    void SortOrders() {
        columns.order.resize(static_cast<size_t>(columns.stages));
        for (int32_t stage = 0; stage < columns.stages; ++stage) {
            auto& order = columns.order[stage];
            for (uint32_t row = 0; row < RowCount(); ++row) {
                if (scene.LeftOf(row, stage) != NO_TIME) {
                    order.push_back(row);
                }
            }
            std::sort(order.begin(), order.end(), [&](uint32_t one, uint32_t other) {
                const Micros a = scene.LeftOf(one, stage), b = scene.LeftOf(other, stage);
                if (a != b || scene.isAlone) {
                    return a != b ? a < b : one < other;
                }
                return scene.PassOf(one, stage).place < scene.PassOf(other, stage).place;
            });
        }
    }

    // The median of the intervals around each frame, where that is another than the scene's.
    void FindRates() {
        const std::vector<Coming> comings = ComingsOf(scene, columns);
        std::vector<Micros> each;
        bool isOther = false;
        for (size_t i = 1; i < comings.size(); ++i) {
            const auto [from, before] = comings[i - 1];
            const auto [to, row] = comings[i];
            // Of dropped frames each took its time. A HAL may also count by two.
            const int64_t passed = std::max<int64_t>((to - from + period / 2) / period, 1);
            const int64_t step = std::clamp<int64_t>(
                StepOf(scene.frames[before].number, scene.frames[row].number), 1, passed);
            each.push_back((to - from) / step);
        }
        const auto limit = Times(limits::OTHER_RATE, period);
        std::vector<Micros> rates(RowCount(), period), near;
        constexpr size_t reach = limits::RATE_FRAMES;
        for (size_t i = 0; i < each.size() && each.size() >= reach / 2; ++i) {
            near.assign(
                each.begin() + static_cast<std::ptrdiff_t>(i - std::min(i, reach)),
                each.begin() + static_cast<std::ptrdiff_t>(std::min(i + reach + 1, each.size())));
            const Micros usual = MedianOf(near, period);
            if (std::abs(usual - period) > limit) {
                rates[comings[i + 1].row] = usual;
                isOther = true;
            }
        }
        // At the ends of a stretch the median is too early or too late.
        const auto trim = [&](size_t i, bool& isInside) {
            Micros& rate = rates[comings[i + 1].row];
            const bool isUsual = std::abs(each[i] - rate) <= rate / 10 + MILLISECOND;
            isInside = rate != period && (isInside || isUsual);
            rate = isInside ? rate : period;
        };
        bool isInside = false;
        for (size_t i = 0; i < each.size() && isOther; ++i) {
            trim(i, isInside);
        }
        isInside = false;
        for (size_t i = each.size(); i-- > 0 && isOther;) {
            trim(i, isInside);
        }
        if (isOther) {
            columns.period = std::move(rates);
        }
    }

    // How long frames are in a stage, and how many it keeps.
    void FindStays() {
        columns.kept.assign(columns.order.size(), 0);
        columns.came.resize(columns.order.size());
        columns.place.resize(columns.order.size());
        for (int32_t stage = 0; stage < columns.stages; ++stage) {
            std::vector<Micros> stays;
            for (const uint32_t row : columns.order[stage]) {
                const Micros came = CameAt(scene, row, stage);
                if (came != NO_TIME) {
                    stays.push_back(scene.LeftOf(row, stage) - came);
                }
            }
            columns.usualStay.push_back(MedianOf(stays, 0));
            columns.isByNodes.push_back(IsByNodes(stage) ? 1 : 0);
            FindKept(stage);
        }
    }

    bool IsByNodes(int32_t stage) const {
        size_t nodes = 0, ends = 0;
        for (const uint32_t row : columns.order[stage]) {
            const uint8_t seen = scene.isAlone ? 0 : scene.PassOf(row, stage).seen;
            nodes += (seen & NODE_END) != 0 ? 1 : 0;
            ends += (seen & STAGE_END) != 0 ? 1 : 0;
        }
        return 2 * nodes > ends;
    }

    void FindKept(int32_t stage) {
        std::vector<uint32_t> came = AsTheyCame(stage);
        columns.kept[stage] = stage > 0 || scene.isAlone ? KeptBy(stage, came) : 0;
        if (columns.kept[stage] > 0) {
            columns.place[stage].assign(RowCount(), NO_INDEX);
            for (size_t i = 0; i < came.size(); ++i) {
                columns.place[stage][came[i]] = static_cast<uint32_t>(i);
            }
            columns.came[stage] = std::move(came);
        }
    }

    std::vector<uint32_t> AsTheyCame(int32_t stage) const {
        // Frames that never left it are among them: they let go of others.
        std::vector<uint32_t> came;
        for (uint32_t row = 0; row < RowCount(); ++row) {
            if (CameAt(scene, row, stage) != NO_TIME &&
                (scene.LeftOf(row, stage) != NO_TIME || scene.NextStage(row) == stage)) {
                came.push_back(row);
            }
        }
        const auto key = [&](uint32_t row) {
            const uint32_t from = CameFrom(row, stage);
            const Place place =
                from == NO_INDEX
                    ? scene.frames[row].place
                    : scene
                          .PassOf(row, static_cast<int32_t>(from %
                                                            static_cast<uint32_t>(columns.stages)))
                          .place;
            return std::pair(CameAt(scene, row, stage), place);
        };
        std::sort(came.begin(), came.end(),
                  [&](uint32_t one, uint32_t other) { return key(one) < key(other); });
        return came;
    }

    // Several servers, or frames that are kept back: each time that a frame leaves, as many later
    // ones have come, and it leaves as soon after the last of these as every frame. In a queue that
    // varies.
    uint32_t KeptBy(int32_t stage, const std::vector<uint32_t>& came) const {
        std::vector<Micros> times, inside, behind;
        for (const uint32_t row : came) {
            times.push_back(CameAt(scene, row, stage));
        }
        for (const uint32_t row : columns.order[stage]) {
            if (CameAt(scene, row, stage) == NO_TIME) {
                continue;
            }
            inside.push_back(
                std::lower_bound(times.begin(), times.end(), scene.LeftOf(row, stage)) -
                std::upper_bound(times.begin(), times.end(), CameAt(scene, row, stage)));
        }
        const auto kept = static_cast<size_t>(std::max<Micros>(MedianOf(inside, 0), 0));
        // At another rate of the sensor a stage with several servers has another number.
        const auto isOther = [&](uint32_t row) { return columns.PeriodOf(scene, row) != period; };
        const bool isMostlyOther =
            2 * std::count_if(came.begin(), came.end(), isOther) > std::ssize(came);
        for (size_t i = 0; i + kept < came.size(); ++i) {
            if (isOther(came[i]) == isMostlyOther && scene.LeftOf(came[i], stage) != NO_TIME) {
                behind.push_back(scene.LeftOf(came[i], stage) - times[i + kept]);
            }
        }
        const Micros varies = QuantileOf(behind, 0.75, 0) - QuantileOf(behind, 0.25, 0);
        return varies < Times(limits::STEADY_PERIODS, period) ? static_cast<uint32_t>(kept) : 0;
    }
};

struct Queues : Step {
    // All threads are silent while frames are in two stages or more, which all go on afterwards: no
    // stage is slow.
    void FindStood() {
        if (columns.stages == 0) {
            return;
        }
        for (const Scene::Silence& silence : scene.silences) {
            Micros each = period;
            if (const auto next = FirstLeftAt(0, silence.end);
                !scene.isAlone && next != columns.order[0].end()) {
                each = std::max(each, columns.PeriodOf(scene, *next));
            }
            const auto shortest = Times(limits::STANDSTILL_PERIODS, each);
            const int32_t stages = silence.Length() > shortest ? StagesIn(silence) : 0;
            const auto hole =
                std::find_if(columns.holes.begin(), columns.holes.end(), [&](const Span& one) {
                    return one.end >= silence.begin && one.begin <= silence.end + period;
                });
            if (stages >= 2 && hole == columns.holes.end()) {
                columns.stood.push_back({{silence.begin, silence.end}, silence.place, stages});
            }
        }
    }

    // In how many stages frames were that had come before a silence and left after it.
    int32_t StagesIn(const Span& silence) const {
        int32_t stages = 0;
        bool hasJustCome = false;
        for (int32_t stage = 1; stage < columns.stages; ++stage) {
            const auto& order = columns.order[stage];
            const auto next = FirstLeftAt(stage, silence.end);
            // The first to leave is the one that the stage was at work on, unless others overtake.
            const auto last = next + std::min<std::ptrdiff_t>(order.end() - next, 4);
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

    // From when on the stage may let go of the frame: one that keeps frames back waits until others
    // have come.
    Micros MayLeaveFrom(uint32_t row, int32_t stage) const {
        const uint32_t kept = columns.kept[stage];
        if (kept == 0 || columns.place[stage][row] == NO_INDEX) {
            return scene.ArrivalOf(row, stage);
        }
        const size_t at = columns.place[stage][row] + kept;
        const std::vector<uint32_t>& came = columns.came[stage];
        return at < came.size() ? CameAt(scene, came[at], stage) : NO_TIME;
    }

    std::vector<uint32_t>::const_iterator FirstLeftAt(int32_t stage, Micros time) const {
        const std::vector<uint32_t>& order = columns.order[stage];
        return std::partition_point(order.begin(), order.end(),
                                    [&](uint32_t row) { return scene.LeftOf(row, stage) < time; });
    }

    // Whether the first frame that left stage 0 after a silence had been started before it.
    bool OwesFrame(const Span& silence) const {
        const auto next = FirstLeftAt(0, silence.end);
        if (scene.isAlone || next == columns.order[0].end()) {
            // It was at work on another count.
            return scene.stopped == Stop::NumbersRestart;
        }
        // Numbers between that the sensor dropped in silence account for as many periods of it.
        const bool isFirst = next == columns.order[0].begin();
        int64_t missing = 0;
        if (!isFirst) {
            const uint32_t before = *std::prev(next);
            missing = StepOf(scene.frames[before].number, scene.frames[*next].number) - 1;
            for (uint32_t row = before + 1; row < *next; ++row) {
                const Frame& frame = scene.frames[row];
                missing -=
                    scene.NextStage(row) > 0 || (frame.isEnded && frame.end <= silence.begin);
            }
        }
        const bool isNext = !isFirst && 2 * missing * period <= silence.Length();
        const Micros start = scene.frames[*next].start;
        const bool isAtOnce = scene.LeftOf(*next, 0) <= silence.end + period;
        return isNext && (isAtOnce || silence.Length() > 4 * period) &&
               (start == NO_TIME || start <= silence.begin);
    }

    void FindQueues() {
        const auto stages = static_cast<size_t>(columns.stages);
        columns.begin.assign(RowCount() * stages, NO_TIME);
        columns.behind.assign(RowCount() * stages, NO_INDEX);
        columns.together.resize(stages);
        columns.usual.assign(stages, period);
        for (int32_t stage = 0; stage < columns.stages; ++stage) {
            FindQueue(stage);
        }
    }

    void FindQueue(int32_t stage) {
        const std::vector<uint32_t>& order = columns.order[stage];
        const uint32_t kept = columns.kept[stage];
        const std::vector<uint32_t>& came = columns.came[stage];
        const std::vector<uint32_t>& place = columns.place[stage];
        FindTogether(stage);
        const bool isGrouped = !columns.together[stage].empty() && kept == 0;
        uint32_t ahead = NO_INDEX;
        for (size_t first = 0; first < order.size();) {
            size_t last = first;
            while (isGrouped && last + 1 < order.size() && IsTogether(stage, last + 1)) {
                ++last;
            }
            // Frames that leave together begin together, when the last of them has come.
            uint32_t latest = order[first];
            for (size_t i = first; i <= last; ++i) {
                latest = CameAt(scene, order[i], stage) > CameAt(scene, latest, stage) ? order[i]
                                                                                       : latest;
            }
            for (size_t i = first; i <= last; ++i) {
                uint32_t free = ahead;
                if (kept > 0) {
                    const uint32_t at = place[order[i]];
                    free = at != NO_INDEX && at > kept ? came[at - kept - 1] : NO_INDEX;
                }
                SetBegin(order[i], stage, latest, free);
            }
            ahead = order[last];
            first = last + 1;
        }
        std::vector<Micros> works;
        for (const uint32_t row : order) {
            const Micros work = columns.WorkOf(scene, row, stage);
            if (work != NO_TIME) {
                works.push_back(work);
            }
        }
        columns.usual[stage] = MedianOf(works, period);
    }

    // `free`: the frame behind whose leaving the stage is free for this one.
    void SetBegin(uint32_t row, int32_t stage, uint32_t latest, uint32_t free) {
        const size_t pass = columns.PassOf(row, stage);
        const Micros left = scene.LeftOf(row, stage);
        const Micros came = CameAt(scene, latest, stage);
        const Micros freeAt = free == NO_INDEX ? NO_TIME : scene.LeftOf(free, stage);
        if (came != NO_TIME) {
            columns.begin[pass] = std::min(came, left);
            columns.behind[pass] = CameFrom(latest, stage);
        }
        const bool isKnown = came != NO_TIME || (stage == 0 && !scene.isAlone);
        if (freeAt != NO_TIME && freeAt <= left && isKnown && freeAt > came) {
            columns.begin[pass] = freeAt;
            columns.behind[pass] = static_cast<uint32_t>(columns.PassOf(free, stage));
        }
    }

    bool IsTogether(int32_t stage, size_t position) const {
        const auto& order = columns.order[stage];
        return scene.LeftOf(order[position], stage) - scene.LeftOf(order[position - 1], stage) <=
               limits::TOGETHER;
    }

    // The frames that leave together with another, where most do.
    void FindTogether(int32_t stage) {
        const std::vector<uint32_t>& order = columns.order[stage];
        std::vector<uint32_t> rows;
        for (size_t i = 0; i < order.size() && stage > 0; ++i) {
            if ((i > 0 && IsTogether(stage, i)) ||
                (i + 1 < order.size() && IsTogether(stage, i + 1))) {
                rows.push_back(order[i]);
            }
        }
        if (static_cast<double>(rows.size()) >
            limits::GROUPED * static_cast<double>(order.size())) {
            columns.together[stage] = std::move(rows);
        }
    }
};

}  // namespace

void FindStages(const Scene& scene, Columns& columns) {
    Stages stages{{scene, columns}};
    stages.Begin();
    stages.SortOrders();
    stages.FindRates();
    stages.FindStays();
}

void FindQueues(const Scene& scene, Columns& columns) {
    Queues queues{{scene, columns}};
    queues.FindStood();
    queues.FindQueues();
}

}  // namespace tools
