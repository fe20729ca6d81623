// What became of each frame.

#include <algorithm>
#include <cmath>

#include "tools/account/limits.h"
#include "tools/account/steps.h"
#include "tools/base/statistics.h"

namespace tools {
namespace {

struct Fates : Step {
    // Numbers that are missing between frames that left stage 0 one after the other.
    void FindGaps() {
        if (columns.neverHit == 0) {
            return;
        }
        const std::vector<Coming> comings = ComingsOf(scene, columns);
        // Calls that are played without their times tell nothing by these.
        const bool hasPace = columns.stages > 0 && columns.usual[0] > period / 2;
        const bool hasOpener = scene.opener && *scene.opener < 1;
        // By how much stage 0 is behind the sensor, and dropped frames cost no time.
        Micros lag = scene.restartedAfter ? LagBefore(comings) : 0;
        for (size_t i = hasOpener ? 0 : 1; i < comings.size(); ++i) {
            Gap gap;
            gap.next = comings[i].row;
            gap.to = comings[i].time;
            gap.before = i == 0 ? *scene.opener : scene.frames[comings[i - 1].row].number;
            gap.from = i == 0 ? scene.opened : comings[i - 1].time;
            gap.place = i == 0 ? scene.from : scene.LeftAt(comings[i - 1].row, 0);
            const int64_t number = scene.frames[gap.next].number;
            const int64_t step = std::max<int64_t>(StepOf(gap.before, number), 1);
            const Micros passed = lag + gap.to - gap.from - columns.StoodIn(gap.from, gap.to);
            const Micros each = std::min(period, columns.PeriodOf(scene, gap.next));
            lag = std::max<Micros>(passed - std::min(step, limits::MOST_MISSING) * each, 0);
            if (step <= 1 || step > limits::MOST_MISSING || columns.IsNearHole(gap.from, gap.to)) {
                continue;
            }
            for (int64_t missing = Plus(gap.before, 1); missing != number; ++missing) {
                const uint32_t row = scene.RowOf(missing);
                // Without nodes a frame that was refused leaves no more lines.
                const bool isGone =
                    row == NO_INDEX ||
                    (scene.NextStage(row) == 0 && (scene.hasNodes || !scene.frames[row].isGap) &&
                     !(scene.isAlone && scene.frames[row].start != NO_TIME));
                if (isGone) {
                    gap.missing.push_back(missing);
                }
            }
            const auto count = static_cast<int64_t>(gap.missing.size());
            if (count == 0) {
                columns.steps[gap.next] = step;  // The ends of those between are not reported.
                continue;
            }
            // Where stage 0 catches up, the sensor drops frames one gap after the other.
            const bool goesOn = i > 0 && !columns.gaps.empty() && columns.gaps.back().isDropped &&
                                columns.gaps.back().next == comings[i - 1].row;
            gap.isDropped = !hasPace || goesOn || !IsTimed(gap.from, gap.to) ||
                            passed >= Times(limits::SKIPPED, (count + 1) * each);
            if (gap.isDropped) {
                columns.steps[gap.next] = step;
            }
            for (const int64_t missing : gap.missing) {
                const uint32_t row = scene.RowOf(missing);
                if (row != NO_INDEX) {
                    columns.fates[row].isSkipped = !gap.isDropped;
                    columns.fates[row].isUnknown = false;
                }
            }
            columns.gaps.push_back(std::move(gap));
        }
    }

    // By how much stage 0 was behind when it began, as it caught up with so much of that.
    Micros LagBefore(const std::vector<Coming>& comings) const {
        Micros lag = 0;
        for (size_t i = 1; i < std::min(comings.size(), limits::RATE_FRAMES); ++i) {
            lag = std::max(lag,
                           static_cast<Micros>(i) * period - (comings[i].time - comings[0].time));
        }
        return lag;
    }

    void FindOutputs() {
        const int32_t last = columns.LastStage();
        for (uint32_t row = 0; row < RowCount(); ++row) {
            const Frame& frame = scene.frames[row];
            Fate& fate = columns.fates[row];
            const Micros left = last >= 0 ? scene.LeftOf(row, last) : frame.end;
            fate.isOut = left != NO_TIME;
            fate.output = left;
            // A frame in error leaves no lines where no nodes do: then it is out when frames
            // usually are.
            if (!fate.isOut && !scene.hasNodes && last >= 0 &&
                (frame.isGap || frame.violation != Violation::None)) {
                const int32_t next = scene.isAlone ? 0 : scene.NextStage(row);
                const Micros output = LastOf(row) + RestOf(next);
                fate.output = output <= scene.stop ? output : NO_TIME;
            }
            if (fate.output != NO_TIME) {
                columns.outputs.push_back(row);
            }
        }
        std::sort(columns.outputs.begin(), columns.outputs.end(),
                  [this](uint32_t one, uint32_t other) {
                      const Micros a = columns.fates[one].output, b = columns.fates[other].output;
                      const int32_t stage = columns.LastStage();
                      if (a != b || scene.isAlone || stage < 0) {
                          return a != b ? a < b : one < other;
                      }
                      return scene.PassOf(one, stage).place < scene.PassOf(other, stage).place;
                  });
    }

    void FindLost() {
        std::vector<bool> isMissing(RowCount());
        for (const Gap& gap : columns.gaps) {
            for (const int64_t number : gap.missing) {
                if (gap.isDropped) {
                    const uint32_t row = scene.RowOf(number);
                    const bool isEnded = row != NO_INDEX && scene.frames[row].isEnded;
                    columns.lost.push_back(
                        {number, 0, gap.from, isEnded ? Lost::How::Ended : Lost::How::Dropped});
                }
                if (const uint32_t row = scene.RowOf(number); row != NO_INDEX) {
                    isMissing[row] = true;
                    columns.fates[row].isNeverOut = gap.isDropped;
                }
            }
        }
        std::vector<int64_t> newest;  // The highest number that left each stage.
        for (int32_t stage = 0; stage < columns.stages; ++stage) {
            const auto& order = columns.order[stage];
            const auto most = std::max_element(order.begin(), order.end());
            newest.push_back(most == order.end() ? INT64_MIN : scene.frames[*most].number);
        }
        std::vector<uint32_t> young;  // In flight for no longer than usual.
        for (uint32_t row = 0; row < RowCount(); ++row) {
            const Fate& fate = columns.fates[row];
            if (isMissing[row] || fate.isUnknown || fate.output != NO_TIME || fate.isEarly) {
                continue;
            }
            const int32_t stage = scene.isAlone ? 0 : scene.NextStage(row);
            if (stage < columns.stages && !(columns.neverHit && stage >= *columns.neverHit)) {
                Lose(row, stage, newest[static_cast<size_t>(stage)], young);
            }
        }
        StandBehind(young);
        std::sort(columns.lost.begin(), columns.lost.end(),
                  [](const Lost& one, const Lost& other) { return one.number < other.number; });
    }

    // `newest`: the highest number that left the stage.
    void Lose(uint32_t row, int32_t stage, int64_t newest, std::vector<uint32_t>& young) {
        const Frame& frame = scene.frames[row];
        const bool hasLeft = stage > 0;
        if (!hasLeft && !frame.isStarted) {
            return;
        }
        const Micros since = StandsSince(row, stage);
        const bool isPassed = newest > frame.number;
        const Micros stood = since == NO_TIME
                                 ? 0
                                 : scene.stop - since - columns.StoodIn(since, scene.stop) -
                                       columns.usualStay[stage];
        const auto lose = [&](Lost::How how) {
            columns.lost.push_back({frame.number, stage, scene.LastOf(row).second, how});
            columns.fates[row].isNeverOut = true;
        };
        if (frame.isEnded && (hasLeft || isPassed)) {
            lose(Lost::How::Ended);
        } else if (isPassed && (stood > limits::PASSED_PERIODS * period || frame.isEnded) &&
                   (hasLeft || scene.isAlone)) {
            lose(Lost::How::Passed);
        } else if (hasLeft || scene.isAlone) {
            const bool isFlushed = scene.stopped == Stop::NumbersRestart;
            if (stood > limits::HANGS_PERIODS * period || isFlushed) {
                lose(Lost::How::Stands);
            } else {
                young.push_back(row);
            }
        }
    }

    // Since when a frame stands in a stage; NO_TIME where the stage still waits for others to come.
    Micros StandsSince(uint32_t row, int32_t stage) const {
        const uint32_t kept = columns.kept[stage];
        if (kept == 0 || stage == 0) {
            return std::max(scene.LastOf(row).second, scene.frames[row].start);
        }
        const auto& came = columns.order[stage - 1];
        const auto at = std::find(came.rbegin(), came.rend(), row);
        if (at == came.rend() || static_cast<size_t>(at - came.rbegin()) < kept) {
            return NO_TIME;
        }
        return scene.LeftOf(*(at - static_cast<std::ptrdiff_t>(kept)), stage - 1);
    }

    // A pipeline stands from its end: what is in it behind a frame that stands, stands behind it.
    void StandBehind(const std::vector<uint32_t>& young) {
        const Lost* first = nullptr;
        for (const Lost& one : columns.lost) {
            if (one.how == Lost::How::Stands && (first == nullptr || one.stage > first->stage)) {
                first = &one;
            }
        }
        if (first == nullptr) {
            return;
        }
        const int64_t number = first->number;
        const int32_t stage = first->stage;
        for (const uint32_t row : young) {
            const int32_t next = scene.isAlone ? 0 : scene.NextStage(row);
            if (scene.frames[row].number > number && next <= stage) {
                columns.lost.push_back(
                    {scene.frames[row].number, next, scene.LastOf(row).second, Lost::How::Stands});
                columns.fates[row].isNeverOut = true;
            }
        }
    }

    void FindStatuses() {
        for (uint32_t row = 0; row < RowCount(); ++row) {
            const Frame& frame = scene.frames[row];
            Fate& fate = columns.fates[row];
            const bool isThrough =
                scene.isAlone || columns.stages == 0 ||
                (scene.NextStage(row) == scene.stageCount && scene.Unreported(row) < 0);
            const auto set = [&fate](FrameStatus status, Reason reason) {
                fate.status = status;
                fate.reason = reason;
            };
            if (frame.isEnded && (isThrough || fate.isEarly)) {
                set(FrameStatus::Complete, Reason::None);
            } else if (frame.isEnded) {
                set(FrameStatus::Dropped, Reason::EndedByHal);
            } else if (frame.violation != Violation::None) {
                constexpr Reason reasons[] = {Reason::None, Reason::NoSuchStage, Reason::OutOfOrder,
                                              Reason::OutOfTurn};
                set(FrameStatus::Error, reasons[static_cast<size_t>(frame.violation)]);
                fate.stage = frame.violationStage;
            } else if (frame.evicted != NO_TIME) {
                set(FrameStatus::Evicted, Reason::Evicted);
            } else if (frame.isGap && !frame.isStarted) {
                set(FrameStatus::Refused, Reason::Gap);
            } else if (frame.isDuplicate && !frame.isStarted) {
                set(FrameStatus::Refused, Reason::AlreadyInFlight);
            } else if (!frame.isStarted && !fate.isEarly) {
                set(FrameStatus::Unseen, Reason::NotInFlight);
            } else if (fate.isNeverOut) {
                fate.reason = Reason::NeverLeft;
            }
            const int32_t next = scene.NextStage(row);
            fate.isUnknown =
                fate.isUnknown && fate.status != FrameStatus::Complete && !fate.isNeverOut;
            NoteOnlyOpened(row);
            // A frame behind one of which nothing is known may have been opened by that.
            const bool isBehind = row > 0 && columns.fates[row - 1].isUnknown && !frame.isStarted &&
                                  fate.status != FrameStatus::Complete && !fate.isNeverOut;
            fate.isUnknown = fate.isUnknown || isBehind;
            if (fate.isUnknown) {
                fate.reason = Reason::LinesMissing;
            }
            if (fate.stage < 0 && fate.status != FrameStatus::Complete && next < scene.stageCount) {
                fate.stage = next;
            }
        }
    }

    void NoteOnlyOpened(uint32_t row) {
        Fate& fate = columns.fates[row];
        fate.isOnlyOpened = columns.stages > 0 && !scene.isAlone && !fate.isUnknown &&
                            !fate.isNeverOut && scene.NextStage(row) == 0 &&
                            fate.output == NO_TIME && columns.neverHit != 0;
    }
};

}  // namespace

void FindFates(const Scene& scene, Columns& columns) {
    Fates fates{{scene, columns}};
    if (!columns.isMixed) {
        fates.FindGaps();
    }
    fates.FindOutputs();
    if (!columns.isMixed) {
        fates.FindLost();
        fates.FindStatuses();
        return;
    }
    columns.outputs.clear();
    for (uint32_t row = 0; row < scene.frames.size(); ++row) {
        fates.NoteOnlyOpened(row);
    }
}

}  // namespace tools
