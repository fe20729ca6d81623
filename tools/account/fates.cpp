// What became of each frame, and what filled the table when frames were pushed out of it.

#include <algorithm>
#include <numeric>

#include "tools/account/limits.h"
#include "tools/account/steps.h"
#include "tools/log/message.h"

namespace tools {
namespace {

struct Fates : Step {
    // Numbers that are missing between frames that left stage 0 one after the other.
    void FindGaps() {
        if (columns.neverHit == 0) {
            return;
        }
        const std::vector<uint32_t>& rows = columns.delivered;
        // By how much stage 0 is behind the sensor, and dropped frames cost no time: at first, as
        // it caught up with so much of that.
        Micros lag = 0;
        for (size_t i = 1; scene.restartedAfter && i < std::min(rows.size(), limits::RATE_FRAMES);
             ++i) {
            const Micros passed = scene.DeliveredAt(rows[i]) - scene.DeliveredAt(rows[0]);
            lag = std::max(lag, static_cast<Micros>(i) * period - passed);
        }
        Gap gap{.before = scene.opener.value_or(1), .from = {scene.opened, scene.from}};
        for (const uint32_t row : rows) {
            gap.next = row;
            gap.to = scene.DeliveredAt(row);
            if (gap.before < 1 || row != rows.front()) {
                FindGap(gap, lag);
            }
            gap = {.before = scene.frames[row].number, .from = scene.DeliveryOf(row)};
        }
    }

    void FindGap(Gap& gap, Micros& lag) {
        const int64_t number = scene.frames[gap.next].number;
        const int64_t step = std::max<int64_t>(StepOf(gap.before, number), 1);
        const Micros passed = lag + gap.to - gap.from.time - columns.StoodIn(gap.from.time, gap.to);
        const Micros each = std::min(period, columns.period[gap.next]);
        lag = std::max<Micros>(passed - std::min(step, limits::MOST_MISSING) * each, 0);
        if (step <= 1 || step > limits::MOST_MISSING || columns.IsNearHole(gap.from.time, gap.to)) {
            return;
        }
        for (int64_t missing = Plus(gap.before, 1); missing != number; ++missing) {
            const uint32_t other = scene.RowOf(missing);
            // Without nodes a frame that was refused leaves no more lines.
            if (other == NO_INDEX ||
                (scene.NextStage(other) == 0 && (scene.hasNodes || !scene.frames[other].isGap))) {
                gap.missing.push_back(missing);
            }
        }
        // Calls that are played without their times tell nothing by these.
        const bool hasPace = columns.usual[0] > period / 2 && IsTimed(gap.from.time, gap.to);
        // Where stage 0 catches up, the sensor drops frames one gap after the other.
        const bool goesOn = !columns.gaps.empty() && columns.gaps.back().isDropped &&
                            scene.frames[columns.gaps.back().next].number == gap.before;
        gap.isDropped = !hasPace || goesOn ||
                        passed >= Times(limits::SKIPPED, (std::ssize(gap.missing) + 1) * each);
        if (gap.isDropped || gap.missing.empty()) {
            columns.fates[gap.next].periods = step;
        }
        for (const int64_t missing : gap.missing) {
            const uint32_t other = scene.RowOf(missing);
            if (other != NO_INDEX) {
                columns.fates[other].isSkipped = !gap.isDropped;
                columns.fates[other].isUnknown = false;
            }
            if (gap.isDropped) {
                const bool isEnded = other != NO_INDEX && scene.frames[other].isEnded;
                Lose({missing, 0, gap.from.time, isEnded ? Lost::How::Ended : Lost::How::Dropped});
            }
        }
        if (!gap.missing.empty()) {
            columns.gaps.push_back(std::move(gap));
        }
    }

    void Lose(const Lost& lost) {
        columns.lost.emplace(lost.number, lost);
        if (const uint32_t row = scene.RowOf(lost.number); row != NO_INDEX) {
            columns.fates[row].isNeverOut = true;
        }
    }

    void FindOutputs() {
        const int32_t last = columns.LastStage();
        for (uint32_t row = 0; row < RowCount(); ++row) {
            const Frame& frame = scene.frames[row];
            Fate& fate = columns.fates[row];
            fate.output = last >= 0 ? scene.LeftOf(row, last) : frame.end;
            fate.isOut = fate.output != NO_TIME;
            // A frame in error leaves no lines where no nodes do: then it is out when frames
            // usually are.
            if (!fate.isOut && !scene.hasNodes && last >= 0 && (frame.isGap || frame.violation)) {
                const auto rest = columns.usualStay.begin() + NextStage(row);
                const Micros output =
                    std::accumulate(rest, columns.usualStay.end(), scene.SeenUntil(row));
                fate.output = output <= scene.stop ? output : NO_TIME;
            }
        }
        columns.outputs = RowsBy([&](uint32_t row) {
            return Mark{columns.fates[row].output,
                        last >= 0 ? scene.LeftAt(row, last).place : Place()};
        });
    }

    void FindLost() {
        PerStage<uint32_t> newest;  // The highest row that left each stage.
        for (const std::vector<uint32_t>& order : columns.order) {
            newest.push_back(order.empty() ? 0 : *std::ranges::max_element(order));
        }
        std::vector<Lost> young;       // In flight for no longer than usual.
        std::optional<Lost> standing;  // The first of those that stand in the last stage.
        const int32_t stages = columns.neverHit.value_or(columns.stages);
        for (uint32_t row = 0; row < RowCount(); ++row) {
            const Fate& fate = columns.fates[row];
            const int32_t stage = NextStage(row);
            if (fate.isNeverOut || fate.isSkipped || fate.isUnknown || fate.isEarly ||
                fate.output != NO_TIME || stage >= stages ||
                (stage == 0 && !scene.frames[row].isStarted)) {
                continue;
            }
            Lost lost{scene.frames[row].number, stage, scene.LastOf(row).time};
            if (const auto how = HowLost(row, stage, newest[stage] > row)) {
                lost.how = *how;
                Lose(lost);
                if (lost.how == Lost::How::Stands && (!standing || stage > standing->stage)) {
                    standing = lost;
                }
            } else {
                young.push_back(lost);
            }
        }
        // A pipeline stands from its end: what is in it behind a frame that stands, stands behind
        // it.
        for (Lost& lost : young) {
            const bool isIn = lost.stage > 0 || scene.isAlone;
            if (standing && isIn && lost.number > standing->number &&
                lost.stage <= standing->stage) {
                lost.how = Lost::How::Stands;
                Lose(lost);
            }
        }
    }

    // Nothing where the frame may still come out. `isPassed`: a later one has left the stage.
    std::optional<Lost::How> HowLost(uint32_t row, int32_t stage, bool isPassed) const {
        const Frame& frame = scene.frames[row];
        const bool isIn = stage > 0 || scene.isAlone;
        const Micros since = MayLeaveFrom(row, stage);
        const Micros stood = since == NO_TIME
                                 ? 0
                                 : scene.stop - since - columns.StoodIn(since, scene.stop) -
                                       columns.usualStay[stage];
        if (frame.isEnded && (stage > 0 || isPassed)) {
            return Lost::How::Ended;
        }
        if (isIn && isPassed && stood > limits::PASSED_PERIODS * period) {
            return Lost::How::Passed;
        }
        if (isIn &&
            (stood > limits::HANGS_PERIODS * period || scene.stopped == Stop::NumbersRestart)) {
            return Lost::How::Stands;
        }
        return {};
    }

    // What may have become of a frame, and why it is not complete.
    struct Outcome {
        bool holds;
        FrameStatus status;
        const char* reason;
    };

    // The first that holds.
    Outcome OutcomeOf(uint32_t row) const {
        const Frame& frame = scene.frames[row];
        const Fate& fate = columns.fates[row];
        // Stages that are reported behind its end are refused.
        const bool isThrough = fate.isEarly || scene.isAlone || columns.stages == 0 ||
                               (scene.NextStage(row) == scene.stageCount &&
                                scene.Unreported(row) < 0 && frame.refused <= frame.end);
        const bool isOpen = frame.isStarted || (fate.isEarly && !frame.isDuplicate);
        const Outcome outcomes[] = {
            {frame.isEnded && isThrough, FrameStatus::Complete, ""},
            {frame.isEnded, FrameStatus::Dropped, "ended before it had been through all stages"},
            {frame.violation.has_value(), FrameStatus::Error,
             RefusalOf(frame.violation.value_or(MessageKind::FrameInError))},
            {frame.evicted != NO_TIME, FrameStatus::Evicted, TABLE_FULL},
            {isOpen, FrameStatus::Open, fate.isNeverOut ? "not seen to leave the stage" : ""},
            {frame.isGap, FrameStatus::Refused, RefusalOf(MessageKind::FrameNotContinuous)},
            {frame.isDuplicate, FrameStatus::Refused, RefusalOf(MessageKind::FrameAlreadyExists)},
            {true, FrameStatus::Unseen, RefusalOf(MessageKind::EndedFrameNotExist)}};
        return *std::ranges::find(outcomes, true, &Outcome::holds);
    }

    void FindStatus(uint32_t row) {
        const Frame& frame = scene.frames[row];
        Fate& fate = columns.fates[row];
        const auto [holds, status, reason] = OutcomeOf(row);
        fate.status = status;
        fate.reason = reason;
        const bool isKnown = status == FrameStatus::Complete || fate.isNeverOut;
        fate.isUnknown = fate.isUnknown && !isKnown;
        FindOpened(row);
        // A frame behind one of which nothing is known may have been opened by that.
        const bool isBehind = row > 0 && columns.fates[row - 1].isUnknown && !frame.isStarted;
        fate.isUnknown = fate.isUnknown || (isBehind && !isKnown);
        if (fate.isUnknown) {
            fate.reason = "lines of the log are missing";
        }
        const int32_t next = scene.NextStage(row);
        if (fate.status == FrameStatus::Error && frame.violationStage >= 0) {
            fate.stage = frame.violationStage;
        } else if (fate.status != FrameStatus::Complete && next < scene.stageCount) {
            fate.stage = next;
        }
    }

    void FindOpened(uint32_t row) {
        Fate& fate = columns.fates[row];
        fate.isOnlyOpened = columns.stages > 0 && !scene.isAlone && !fate.isUnknown &&
                            !fate.isNeverOut && scene.NextStage(row) == 0 &&
                            fate.output == NO_TIME && columns.neverHit != 0;
    }
};

// The stage with the most frames beyond those it usually has, of the frames in flight then; nothing
// where none has many more.
std::optional<int32_t> HolderOf(const Scene& scene, const Columns& columns, Micros time) {
    constexpr std::ptrdiff_t reach = 200;  // Many times the table's frames.
    if (scene.isAlone && columns.outputs.empty()) {
        return {};  // Nothing shows what is usual.
    }
    PerStage<int64_t> surplus;
    for (const uint32_t kept : columns.kept) {
        surplus.push_back(-1 - int64_t{kept});
    }
    // The rows that had been started by then, from the newest down.
    const auto begin = scene.frames.begin();
    const auto end = std::ranges::upper_bound(scene.frames, time, {}, &Frame::seen);
    for (auto frame = end - std::min(end - begin, reach); frame != end; ++frame) {
        const auto row = static_cast<uint32_t>(frame - begin);
        const auto isBy = [time](Micros moment) { return moment != NO_TIME && moment <= time; };
        // A frame that was lost is in no queue.
        const auto lost = columns.lost.find(frame->number);
        if (!frame->isStarted || isBy(frame->isEnded ? frame->end : columns.fates[row].output) ||
            (lost != columns.lost.end() && lost->second.how != Lost::How::Stands)) {
            continue;
        }
        int32_t stage = 0;
        for (int32_t left = 0; left < columns.stages; ++left) {
            stage += isBy(scene.LeftOf(row, left)) ? 1 : 0;
        }
        if (stage < columns.stages) {
            ++surplus[stage];
        }
    }
    const auto most = std::ranges::max_element(surplus);
    if (most == surplus.end() || *most < limits::SURPLUS) {
        return {};
    }
    return static_cast<int32_t>(most - surplus.begin());
}

}  // namespace

void FindFates(const Scene& scene, Columns& columns) {
    Fates fates{{scene, columns}};
    if (columns.isMixed) {
        fates.FindOutputs();
        for (uint32_t row = 0; row < fates.RowCount(); ++row) {
            fates.FindOpened(row);
        }
        return;
    }
    fates.FindGaps();
    fates.FindOutputs();
    fates.FindLost();
    for (uint32_t row = 0; row < fates.RowCount(); ++row) {
        fates.FindStatus(row);
    }
}

void FindEvictions(const Scene& scene, Columns& columns) {
    // Lost frames only keep their places: they suffer nothing when they leave these.
    const std::vector<uint32_t> evicted = Step{scene, columns}.RowsBy([&](uint32_t row) {
        return Mark{columns.fates[row].isNeverOut ? NO_TIME : scene.frames[row].evicted};
    });
    Micros last = NO_TIME;
    for (const uint32_t row : evicted) {
        const Micros time = scene.frames[row].evicted;
        if (last == NO_TIME || time - last > limits::EVICTIONS_APART) {
            columns.evictions.emplace_back();
        }
        columns.evictions.back().rows.push_back(row);
        columns.evictions.back().holders.push_back(HolderOf(scene, columns, time));
        last = time;
    }
}

}  // namespace tools
