// Stages that took long: passes that late frames are followed back to, and stages that cannot keep
// up.

#include <algorithm>
#include <map>
#include <numeric>
#include <span>

#include "tools/account/cause.h"
#include "tools/account/limits.h"
#include "tools/base/statistics.h"

namespace tools {
namespace {

struct SlowStages {
    const Scene& scene;
    const Columns& columns;
    std::vector<Cause>& causes;
    const Micros period = scene.Period();
    std::vector<std::vector<bool>> isBusy{};  // By stage and row: of one that cannot keep up.

    void Find() {
        isBusy.resize(static_cast<size_t>(columns.stages));
        for (int32_t stage = 1; stage < columns.stages; ++stage) {
            FindBusy(stage);
        }
        std::map<int32_t, std::map<uint32_t, Micros>> blamed;  // By stage and row: the excess.
        for (const LateFrame& late : columns.late) {
            if (late.isFirst) {
                AddFirst(late);
                continue;
            }
            for (const Blame& blame : late.blame) {
                const bool isOfRate = blame.stage == 0 && !scene.isAlone && IsOfRate(blame.row);
                const std::vector<bool>& busy = isBusy[static_cast<size_t>(blame.stage)];
                if (!isOfRate && (busy.empty() || !busy[blame.row])) {
                    blamed[blame.stage][blame.row] = blame.excess;
                }
            }
        }
        for (const auto& [stage, rows] : blamed) {
            AddRuns(stage, rows);
        }
    }

    // Whether the sensor took as long for the frame as for the frames around it.
    bool IsOfRate(uint32_t row) const {
        const auto steps = columns.steps.find(row);
        const Micros usual =
            columns.PeriodOf(scene, row) * (steps == columns.steps.end() ? 1 : steps->second);
        return columns.WorkOf(scene, row, 0) <= usual + Times(limits::TRIFLE_PERIODS, period);
    }

    // When the stage began with the frame; of the first one: when the frame was started.
    Micros BeginOf(uint32_t row, int32_t stage) const {
        const Micros begin = columns.begin[columns.PassOf(row, stage)];
        return begin == NO_TIME ? scene.frames[row].start : begin;
    }

    void AddFirst(const LateFrame& late) {
        for (const Blame& blame : late.blame) {
            const Micros begin =
                blame.stage == 0 ? scene.frames[blame.row].start : BeginOf(blame.row, blame.stage);
            const bool isSensor = blame.stage == 0 && !scene.isAlone;
            Cause& cause = Add(isSensor ? Case::FirstStall : Case::SlowFirst, blame.row, blame.row,
                               blame.stage, begin);
            cause.took = {scene.LeftOf(blame.row, blame.stage) - begin};
            cause.usual =
                isSensor ? period
                         : std::max(columns.usual[blame.stage], columns.usualStay[blame.stage]);
        }
    }

    // A cause about rows from one to another, of which the stage began with the first then.
    Cause& Add(Case what, uint32_t first, uint32_t last, int32_t stage, Micros begin) {
        Cause cause{.what = what,
                    .span = {begin, scene.isAlone || stage == 0 ? scene.LeftOf(last, stage)
                                                                : Drained(last, stage)},
                    .stage = scene.isAlone ? -1 : stage,
                    .place = scene.LeftAt(first, stage),
                    .time = begin};
        for (uint32_t row = first; row <= last; ++row) {
            if (scene.LeftOf(row, stage) != NO_TIME) {
                cause.own.push_back(scene.frames[row].number);
            }
        }
        // Frames that the sensor had to drop meanwhile make it as bad as a loss.
        const bool hasDropped =
            stage > 0 && std::any_of(columns.gaps.begin(), columns.gaps.end(), [&](const Gap& gap) {
                return gap.isDropped && gap.from >= begin &&
                       gap.from <= cause.span.end + 2 * period;
            });
        cause.atLeast = hasDropped ? Severity::Error : Severity::Note;
        causes.push_back(std::move(cause));
        return causes.back();
    }

    // The rows that left the stage behind another one, from the next.
    std::span<const uint32_t> Behind(uint32_t row, int32_t stage) const {
        const std::vector<uint32_t>& order = columns.order[stage];
        const Micros left = scene.LeftOf(row, stage);
        const auto next = std::partition_point(order.begin(), order.end(), [&](uint32_t one) {
            return scene.LeftOf(one, stage) <= left;
        });
        return {next, order.end()};
    }

    // When the queue behind a frame had gone.
    Micros Drained(uint32_t row, int32_t stage) const {
        for (const uint32_t next : Behind(row, stage)) {
            if (columns.WaitOf(scene, next, stage) <= columns.usual[stage]) {
                return scene.LeftOf(next, stage);
            }
        }
        return scene.stop;
    }

    // Blamed passes of frames in a row, together.
    void AddRuns(int32_t stage, const std::map<uint32_t, Micros>& rows) {
        for (auto next = rows.begin(); next != rows.end();) {
            const uint32_t first = next->first;
            uint32_t last = first;
            for (++next; next != rows.end() && next->first == last + 1 &&
                         StepOf(scene.frames[last].number, scene.frames[next->first].number) == 1;
                 ++next) {
                last = next->first;
            }
            const Micros begin = BeginOf(first, stage);
            const bool isStall = stage == 0 && !scene.isAlone && !IsCaughtUp(first, last, begin);
            Cause& cause = Add(isStall ? Case::Stall : Case::Slow, first, last, stage, begin);
            const bool isKept = columns.kept[stage] > 0;
            for (uint32_t row = first; row <= last; ++row) {
                const Micros came = isKept ? CameAt(scene, row, stage) : NO_TIME;
                if (scene.LeftOf(row, stage) != NO_TIME) {
                    // Where frames are kept back, people know how long they are in the stage.
                    const Micros from = came == NO_TIME ? BeginOf(row, stage) : came;
                    const Micros left = scene.LeftOf(row, stage);
                    cause.took.push_back(left - from - columns.StoodIn(from, left));
                }
            }
            cause.usual = isKept ? columns.usualStay[stage] : columns.usual[stage];
            if (stage == 0 && !scene.isAlone) {
                cause.usual = columns.PeriodOf(scene, first);
            }
            if (!isStall) {
                cause.beside = WaitingBehind(last, stage);
            }
        }
    }

    // By how much a frame was behind the sensor, where `first` began then.
    Micros LagOf(uint32_t row, uint32_t first, Micros begin) const {
        const int64_t count = StepOf(scene.frames[first].number, scene.frames[row].number) + 1;
        const Micros left = scene.LeftOf(row, 0);
        return left == NO_TIME ? 0 : left - begin - columns.StoodIn(begin, left) - period * count;
    }

    // Whether stage 0 caught up with the sensor some frames behind a run: it was slow, and the
    // sensor went on.
    bool IsCaughtUp(uint32_t first, uint32_t last, Micros begin) const {
        Micros most = 0;
        for (uint32_t row = first; row <= last; ++row) {
            most = std::max(most, LagOf(row, first, begin));
        }
        const auto behind =
            Behind(last, 0).first(std::min(Behind(last, 0).size(), limits::CATCH_UP_FRAMES));
        return std::any_of(behind.begin(), behind.end(), [&](uint32_t row) {
            return LagOf(row, first, begin) < Times(limits::CAUGHT_UP, most);
        });
    }

    // Frames that had to wait at the stage behind a slow one.
    std::vector<int64_t> WaitingBehind(uint32_t last, int32_t stage) const {
        std::vector<int64_t> waiting;
        if (stage == 0) {
            return waiting;
        }
        const Micros least =
            limits::WAITED + (columns.kept[stage] > 0 ? columns.usualStay[stage] : 0);
        for (const uint32_t next : Behind(last, stage)) {
            if (columns.WaitOf(scene, next, stage) < least) {
                break;
            }
            waiting.push_back(scene.frames[next].number);
        }
        std::sort(waiting.begin(), waiting.end());
        return waiting;
    }

    // Stages whose queue never gets empty and grows, by many frames that each take too long. A
    // median cannot tell 16.8 ms from 16.7: the queue can.
    void FindBusy(int32_t stage) {
        const std::vector<uint32_t>& order = columns.order[stage];
        if (columns.kept[stage] > 0) {
            return;
        }
        size_t first = 0;
        for (size_t i = 1; i <= order.size(); ++i) {
            if (i < order.size() && IsQueued(order[i], stage)) {
                continue;
            }
            if (i - first >= limits::BUSY_FRAMES) {
                AddIfBusy(stage, first, i - 1);
            }
            first = i;
        }
    }

    // Whether the stage began with the frame when the one ahead had left, for which it had waited.
    bool IsQueued(uint32_t row, int32_t stage) const {
        const uint32_t behind = columns.behind[columns.PassOf(row, stage)];
        return behind != NO_INDEX &&
               behind % static_cast<size_t>(columns.stages) == static_cast<size_t>(stage) &&
               columns.WaitOf(scene, row, stage) != NO_TIME;
    }

    // Positions in the stage's order.
    void AddIfBusy(int32_t stage, size_t first, size_t last) {
        const std::vector<uint32_t>& order = columns.order[stage];
        const auto waitOf = [&](size_t i) { return columns.WaitOf(scene, order[i], stage); };
        const auto workOf = [&](size_t i) { return columns.WorkOf(scene, order[i], stage); };
        // Behind the longest wait it catches up.
        Micros longest = 0;
        for (size_t i = first; i <= last; ++i) {
            longest = std::max(longest, waitOf(i));
        }
        while (last > first && waitOf(last) < longest * 4 / 5) {
            --last;
        }
        const Micros each = std::max(period, columns.PeriodOf(scene, order[first]));
        const Micros most = 2 * std::max(columns.usual[stage], each);
        // Frames that hung are found by themselves.
        const auto meanOf = [&](size_t from, size_t to) {
            Micros sum = 0, count = 0;
            for (size_t i = from; i <= to; ++i) {
                const Micros work = workOf(i);
                if (work != NO_TIME && work <= most) {
                    sum += work;
                    ++count;
                }
            }
            return count == 0 ? 0 : sum / count;
        };
        const Micros over = each + each / 50 + MILLISECOND / 2;
        const Micros limit = meanOf(first, last) > over ? over : each;
        while (first < last && workOf(first) <= limit) {
            ++first;
        }
        while (last > first && workOf(last) <= limit) {
            --last;
        }
        const size_t count = last - first + 1;
        if (count < limits::BUSY_FRAMES) {
            return;
        }
        const Micros mean = meanOf(first, last);
        const Micros length =
            scene.LeftOf(order[last], stage) - columns.begin[columns.PassOf(order[first], stage)];
        const Micros growth = waitOf(last) - std::max<Micros>(waitOf(first), 0);
        // Of a stage that is a few percent too slow the growth of the queue is the proof; where the
        // sensor has no room, the queue grows no more.
        const Micros explained = (mean - each) * static_cast<Micros>(count);
        const bool isTooSlow = mean > over && length >= SECOND;
        if (!isTooSlow &&
            !(growth >= limits::BUSY_GROWTH_PERIODS * period && explained >= growth / 2)) {
            return;
        }
        const auto begin = order.begin() + static_cast<std::ptrdiff_t>(first);
        const auto end = order.begin() + static_cast<std::ptrdiff_t>(last) + 1;
        const auto [low, high] = std::minmax_element(begin, end);
        Cause& cause = Add(Case::CannotKeepUp, *low, *high, stage, BeginOf(order[first], stage));
        std::vector<bool>& busy = isBusy[static_cast<size_t>(stage)];
        busy.resize(scene.frames.size());
        for (size_t i = first; i <= last; ++i) {
            busy[order[i]] = workOf(i) <= most;
        }
        // All of the stretch, frames that never came to the stage included.
        const int64_t step = StepOf(cause.own.front(), cause.own.back());
        if (step <= limits::MOST_MISSING) {
            cause.own.resize(static_cast<size_t>(step) + 1);
            std::iota(cause.own.begin(), cause.own.end(), scene.frames[*low].number);
        }
        cause.took = {mean};
        cause.usual = each;
    }
};

}  // namespace

void FindSlow(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    SlowStages{scene, columns, causes}.Find();
}

}  // namespace tools
