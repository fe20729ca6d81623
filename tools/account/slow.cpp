// Stages that took long: passes that late frames are followed back to, and stages that cannot keep
// up.

#include <algorithm>
#include <set>
#include <span>

#include "tools/account/cause.h"
#include "tools/account/limits.h"

namespace tools {
namespace {

using RowsOf = std::span<const uint32_t>;

struct SlowStages {
    const Scene& scene;
    const Columns& columns;
    std::vector<Cause>& causes;
    const Micros period = scene.Period();
    std::vector<bool> isBusy = std::vector<bool>(columns.begin.size());  // Of each pass.

    void Find() {
        for (int32_t stage = 1; stage < columns.stages; ++stage) {
            FindBusy(stage);
        }
        FindSlowFirst();
        std::set<std::pair<int32_t, uint32_t>> blamed;  // Stages and rows.
        for (const LateFrame& late : columns.late) {
            for (const auto& [row, stage, excess] : late.blame) {
                if (!isBusy[columns.PassOf(row, stage)] && !(IsSensor(stage) && IsOfRate(row))) {
                    blamed.emplace(stage, row);
                }
            }
        }
        // Blamed passes of frames in a row, together.
        for (auto next = blamed.begin(); next != blamed.end();) {
            const auto [stage, first] = *next;
            uint32_t last = first;
            while (++next != blamed.end() && *next == std::pair(stage, last + 1) &&
                   StepOf(scene.frames[last].number, scene.frames[last + 1].number) == 1) {
                ++last;
            }
            AddRun(stage, first, last, false);
        }
    }

    // Before the first output there is no interval that would show that it is late.
    void FindSlowFirst() {
        if (scene.isBeginningMissing || scene.restartedAfter || columns.outputs.empty()) {
            return;
        }
        const uint32_t row = columns.outputs.front();
        const Frame& frame = scene.frames[row];
        if (!frame.isStarted || !columns.fates[row].isOut ||
            columns.IsNearHole(frame.seen, scene.SeenUntil(row))) {
            return;
        }
        for (int32_t stage = 0; stage < columns.stages; ++stage) {
            const Micros begin =
                stage == 0 ? frame.start : columns.begin[columns.PassOf(row, stage)];
            const Micros left = scene.LeftOf(row, stage);
            const Micros usual = std::max(columns.usual[stage], columns.usualStay[stage]);
            if (begin != NO_TIME && left != NO_TIME &&
                left - begin - columns.StoodIn(begin, left) - usual >
                    limits::HANGS_PERIODS * period) {
                AddRun(stage, row, row, true);
            }
        }
    }

    // Whether the stage works by the clock, and not when frames come.
    bool IsSensor(int32_t stage) const { return stage == 0 && !scene.isAlone; }

    // Whether the sensor took as long for the frame as for the frames around it.
    bool IsOfRate(uint32_t row) const {
        const Micros usual = columns.period[row] * columns.fates[row].periods;
        return columns.WorkOf(scene, row, 0) <= usual + Times(limits::TRIFLE_PERIODS, period);
    }

    // When the stage began with the frame; of the first one: when the frame was started.
    Micros BeginOf(uint32_t row, int32_t stage) const {
        const Micros begin = columns.begin[columns.PassOf(row, stage)];
        return begin == NO_TIME ? scene.frames[row].start : begin;
    }

    // A cause about rows from one to another, of which the stage began with the first then.
    Cause& Add(Case what, int32_t stage, uint32_t first, uint32_t last, Micros begin) {
        Cause cause{.what = what,
                    .span = {begin, scene.isAlone || stage == 0 ? scene.LeftOf(last, stage)
                                                                : Drained(stage, last)},
                    .stage = scene.isAlone ? -1 : stage,
                    .at = {begin, scene.LeftAt(first, stage).place}};
        // Frames that the sensor had to drop meanwhile make it as bad as a loss.
        for (const Gap& gap : columns.gaps) {
            if (stage > 0 && gap.isDropped && gap.from.time >= begin &&
                gap.from.time <= cause.span.end + 2 * period) {
                cause.atLeast = Severity::Error;
            }
        }
        causes.push_back(std::move(cause));
        return causes.back();
    }

    void AddRun(int32_t stage, uint32_t first, uint32_t last, bool isFirst) {
        const Micros begin = BeginOf(first, stage);
        const bool isKept = columns.kept[stage] > 0;
        Case what = isFirst ? Case::SlowFirst : Case::Slow;
        if (IsSensor(stage) && (isFirst || !IsCaughtUp(first, last, begin))) {
            what = isFirst ? Case::FirstStall : Case::Stall;
        }
        Cause& cause = Add(what, stage, first, last, begin);
        for (uint32_t row = first; row <= last; ++row) {
            const Micros left = scene.LeftOf(row, stage);
            // Where frames are kept back, people know how long they are in the stage.
            const Micros came = isKept ? CameAt(scene, row, stage) : NO_TIME;
            const Micros from = came == NO_TIME ? BeginOf(row, stage) : came;
            if (left != NO_TIME) {
                cause.own.push_back(scene.frames[row].number);
                cause.took.push_back(left - from - columns.StoodIn(from, left));
            }
        }
        cause.usual = isKept ? columns.usualStay[stage] : columns.usual[stage];
        if (IsSensor(stage)) {
            cause.usual = columns.period[first];
        } else if (what == Case::Slow && stage > 0) {
            const Micros least = limits::WAITED + (isKept ? columns.usualStay[stage] : 0);
            for (const uint32_t row : Behind(stage, last)) {
                if (columns.WaitOf(scene, row, stage) < least) {
                    break;
                }
                cause.beside.push_back(scene.frames[row].number);
            }
            std::ranges::sort(cause.beside);
        }
    }

    // The rows that left the stage behind another one, from the next.
    RowsOf Behind(int32_t stage, uint32_t row) const {
        const std::vector<uint32_t>& order = columns.order[stage];
        const Micros left = scene.LeftOf(row, stage);
        const auto leftOf = [&](uint32_t one) { return scene.LeftOf(one, stage); };
        return {std::ranges::upper_bound(order, left, {}, leftOf), order.end()};
    }

    // When the queue behind a frame had gone.
    Micros Drained(int32_t stage, uint32_t row) const {
        for (const uint32_t next : Behind(stage, row)) {
            if (columns.WaitOf(scene, next, stage) <= columns.usual[stage]) {
                return scene.LeftOf(next, stage);
            }
        }
        return scene.stop;
    }

    // Whether stage 0 caught up with the sensor some frames behind a run: it was slow, and the
    // sensor went on.
    bool IsCaughtUp(uint32_t first, uint32_t last, Micros begin) const {
        // By how much a frame was behind the sensor.
        const auto lagOf = [&](uint32_t row) {
            const int64_t count = StepOf(scene.frames[first].number, scene.frames[row].number) + 1;
            const Micros left = scene.LeftOf(row, 0);
            return left == NO_TIME ? 0
                                   : left - begin - columns.StoodIn(begin, left) - period * count;
        };
        Micros most = 0;
        for (uint32_t row = first; row <= last; ++row) {
            most = std::max(most, lagOf(row));
        }
        const RowsOf all = Behind(0, last);
        const RowsOf behind = all.first(std::min(all.size(), limits::CATCH_UP_FRAMES));
        return std::ranges::any_of(
            behind, [&](uint32_t row) { return lagOf(row) < Times(limits::CAUGHT_UP, most); });
    }

    // Stages whose queue never gets empty and grows, by many frames that each take too long. A
    // median cannot tell 16.8 ms from 16.7: the queue can.
    void FindBusy(int32_t stage) {
        const std::vector<uint32_t>& order = columns.order[stage];
        // Whether the stage began with the frame when the one ahead had left, for which it waited.
        const auto isQueued = [&](uint32_t row) {
            const uint32_t behind = columns.behind[columns.PassOf(row, stage)];
            return behind != NO_INDEX &&
                   behind % static_cast<uint32_t>(columns.stages) == static_cast<uint32_t>(stage) &&
                   columns.WaitOf(scene, row, stage) != NO_TIME;
        };
        for (auto next = order.begin(); columns.kept[stage] == 0 && next != order.end();) {
            const auto first = next;
            next = std::find_if_not(first + 1, order.end(), isQueued);
            AddIfBusy(stage, {first, next});
        }
    }

    // `rows`: as they left the stage, each behind the one before.
    void AddIfBusy(int32_t stage, RowsOf rows) {
        const auto waitOf = [&](uint32_t row) { return columns.WaitOf(scene, row, stage); };
        const auto workOf = [&](uint32_t row) { return columns.WorkOf(scene, row, stage); };
        const Micros each = std::max(period, columns.period[rows.front()]);
        const Micros most = 2 * std::max(columns.usual[stage], each);
        // Frames that hung are found by themselves.
        const auto meanOf = [&] {
            Micros sum = 0, count = 0;
            for (const uint32_t row : rows) {
                const Micros work = workOf(row);
                if (work != NO_TIME && work <= most) {
                    sum += work;
                    ++count;
                }
            }
            return sum / std::max<Micros>(count, 1);
        };
        const Micros over = each + each / 50 + MILLISECOND / 2;
        const Micros limit = meanOf() > over ? over : each;
        while (rows.size() > 1 && workOf(rows.front()) <= limit) {
            rows = rows.subspan(1);
        }
        while (rows.size() > 1 && workOf(rows.back()) <= limit) {
            rows = rows.first(rows.size() - 1);
        }
        // Of a stage that is a few percent too slow the growth of the queue is the proof.
        const Micros mean = meanOf();
        const Micros begin = BeginOf(rows.front(), stage);
        const Micros growth = waitOf(rows.back()) - std::max<Micros>(waitOf(rows.front()), 0);
        if (rows.size() < limits::BUSY_FRAMES || growth < limits::BUSY_GROWTH_PERIODS * period ||
            (mean - each) * std::ssize(rows) < growth / 2) {
            return;
        }
        const auto [low, high] = std::ranges::minmax_element(rows);
        Cause& cause = Add(Case::CannotKeepUp, stage, *low, *high, begin);
        for (const uint32_t row : rows) {
            isBusy[columns.PassOf(row, stage)] = true;
        }
        // All of the stretch, frames that never came to the stage included.
        for (uint32_t row = *low; row <= *high; ++row) {
            cause.own.push_back(scene.frames[row].number);
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
