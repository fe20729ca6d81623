// Frames that never came out: dropped, lost on their way, or standing when everything ended.

#include <algorithm>
#include <map>

#include "tools/account/wording.h"
#include "tools/base/text.h"

namespace tools {
namespace {

// How much longer than usual a frame may stand in a stage before that is told, in periods.
constexpr Micros STANDS = 6;
// Where the HAL skips numbers, less time goes by than the frames would have taken.
constexpr double SKIPPED_SHARE = 0.6;
// The sensor has stopped before the scene ends: a HAL lets the pipeline run empty, and nobody sees
// it.
constexpr Micros RUNS_EMPTY = SECOND / 4;
constexpr Micros SENSOR_MAY_OWE = SECOND;
// Of a hole that swallowed frames there is a trace as near as that to those before and behind.
constexpr Micros AT_HOLE = 20 * MILLISECOND;

// What a frame stood until.
const char* WhatEnded(const Scene& scene) {
    return scene.hasEnd      ? "the scene ended"
           : scene.isGoingOn ? "this was looked at"
                             : "the capture ended";
}

std::string LostText(const std::vector<int64_t>& numbers, const std::string& stage, bool isEnded) {
    const char* const them = numbers.size() == 1 ? "it" : "them";
    return fmt::format(wording::LOST, fmt::arg("frames", FramesText(numbers)),
                       fmt::arg("stage", stage)) +
           (isEnded ? fmt::format(wording::AND_ENDED, fmt::arg("it", them)) : "");
}

// What is between two frames that left stage 0 one after the other.
struct Gap {
    uint32_t next = NO_INDEX;  // The second of them.
    // The number of the first, and when and where it left. The first of all comes after the one
    // that opened it.
    int64_t before = 0;
    Micros from = NO_TIME, to = NO_TIME;
    Place place;
    uint64_t step = 1;             // From one number to the other; 1, too, where none is missing.
    std::vector<int64_t> missing;  // Numbers of frames that have left no stage,
    std::vector<uint32_t> rows;    // and those of these frames that have lines.
};

Gap GapBefore(const Judging& judging, size_t position) {
    const Scene& scene = judging.scene;
    Gap gap;
    gap.next = scene.order[0][position];
    gap.to = scene.PassOf(gap.next, 0).left;
    uint16_t epoch = 0;
    if (position == 0) {
        gap.before = *scene.opener;
        gap.from = scene.opened;
        gap.place = scene.from;
    } else {
        const uint32_t first = scene.order[0][position - 1];
        gap.before = scene.frames[first].number;
        gap.from = scene.PassOf(first, 0).left;
        gap.place = scene.PassOf(first, 0).place;
        epoch = scene.frames[first].epoch;
    }
    const Frame& next = scene.frames[gap.next];
    if (next.epoch == epoch && next.number > gap.before) {
        gap.step = static_cast<uint64_t>(next.number) - static_cast<uint64_t>(gap.before);
    }
    if (gap.step <= MOST_MISSING) {
        for (uint64_t i = 1; i < gap.step; ++i) {
            const int64_t number = gap.before + static_cast<int64_t>(i);
            const uint32_t row = judging.FrameOf(epoch, number);
            if (row != NO_INDEX && judging.NextStage(row) > 0) {
                continue;  // It is only that its end of stage 0 was not reported, or later.
            }
            gap.missing.push_back(number);
            if (row != NO_INDEX) {
                gap.rows.push_back(row);
            }
        }
    }
    return gap;
}

void RaiseSkipped(Judging& judging, const Gap& gap) {
    for (const uint32_t row : gap.rows) {
        judging.skipped[row] = true;
        judging.Explain(row, judging.troubles.size());
    }
    const StagePass& pass = judging.scene.PassOf(gap.next, 0);
    const int64_t next = judging.scene.frames[gap.next].number;
    judging
        .Raise(Check::FrameGap, Severity::Error, NO_INDEX, 0, pass.place, pass.left,
               fmt::format(wording::SKIPPED, fmt::arg("frames", FramesText(gap.missing)),
                           fmt::arg("were", gap.missing.size() == 1 ? "was" : "were"),
                           fmt::arg("next", next), fmt::arg("before", gap.before)))
        .finding.frame = next;
}

void RaiseDropped(Judging& judging, const Gap& gap) {
    Scene& scene = judging.scene;
    bool isEnded = !gap.rows.empty();
    for (const uint32_t row : gap.rows) {
        isEnded = isEnded && scene.frames[row].isEnded;
        scene.frames[row].isNeverOut = true;
        judging.Explain(row, judging.troubles.size());
    }
    for (const int64_t number : gap.missing) {
        scene.neverOut.push_back(number);
        if (judging.FrameOf(scene.frames[gap.next].epoch, number) == NO_INDEX) {
            judging.droppedUnseen.push_back(number);
        }
    }
    Trouble& trouble =
        judging.Raise(Check::FrameLost, isEnded ? Severity::Warning : Severity::Error, NO_INDEX, 0,
                      gap.rows.empty() ? gap.place : scene.frames[gap.rows.front()].place, gap.from,
                      LostText(gap.missing, judging.StageName(0), isEnded));
    trouble.About(gap.missing);
    trouble.cost = static_cast<int64_t>(gap.missing.size());
    judging.droppedBefore[gap.next] = trouble.cost;
}

}  // namespace

// Between two frames that left stage 0: dropped by the sensor if the time has gone by, else skipped
// by the HAL.
void FindMissingNumbers(Judging& judging) {
    Scene& scene = judging.scene;
    const Schedule& schedule = judging.schedule;
    if (scene.stageCount == 0 || judging.neverHit == 0) {
        return;
    }
    // Calls that are played without their times tell nothing by them.
    const bool hasPace = schedule.UsualDelay(0) > schedule.Period() / 2;
    Micros lag = 0;  // By how much stage 0 is behind the sensor: drops meanwhile take no time here.
    for (size_t i = scene.opener ? 0 : 1; i < scene.order[0].size(); ++i) {
        const Gap gap = GapBefore(judging, i);
        const Micros period = std::min(schedule.PeriodAt(gap.from), schedule.PeriodAt(gap.to));
        const Micros passed = lag + gap.to - gap.from;
        const auto step = static_cast<Micros>(std::min(gap.step, MOST_MISSING));
        lag = std::max<Micros>(passed - step * period, 0);
        if (gap.missing.empty()) {
            continue;
        }
        const auto count = static_cast<Micros>(gap.missing.size());
        if (judging.HasHole(gap.from - AT_HOLE, gap.to + AT_HOLE)) {
            // What a hole has swallowed shows where it begins or ends, and here.
            for (const uint32_t row : gap.rows) {
                scene.frames[row].isUntold = true;
            }
        } else if (hasPace && judging.IsTimed(gap.from, gap.to) &&
                   passed < static_cast<Micros>(SKIPPED_SHARE *
                                                static_cast<double>((count + 1) * period))) {
            RaiseSkipped(judging, gap);
        } else {
            RaiseDropped(judging, gap);
        }
    }
    std::sort(judging.droppedUnseen.begin(), judging.droppedUnseen.end());
}

namespace {

// When a count of numbers ended: with the next one, or with the scene.
std::vector<Micros> StopsOf(const Scene& scene, const std::vector<uint32_t>& frames) {
    std::vector<Micros> stops;
    for (const uint32_t frame : frames) {
        const Frame& row = scene.frames[frame];
        while (stops.size() < row.epoch) {
            stops.push_back(row.told);
        }
    }
    stops.push_back(scene.stop);
    return stops;
}

// Whether a frame that came to the stage at that time has stood in it for much longer than usual.
bool Stands(const Judging& judging, uint32_t frame, int32_t stage, Micros since, Micros stop) {
    const Scene& scene = judging.scene;
    const auto kept = static_cast<size_t>(judging.schedule.KeptBack(stage));
    if (kept > 0) {
        // Others have to come before it may go.
        const std::vector<uint32_t>& came = scene.order[static_cast<size_t>(stage - 1)];
        const auto place = std::find(came.rbegin(), came.rend(), frame);
        if (static_cast<size_t>(place - came.rbegin()) < kept) {
            return false;
        }
        since = scene.PassOf(*(place - static_cast<std::ptrdiff_t>(kept)), stage - 1).left;
    }
    const Micros usual =
        judging.schedule.UsualStay(stage) + STANDS * judging.schedule.PeriodAt(since);
    return stop - since - judging.Stood(since, stop) > (stage == 0 ? RUNS_EMPTY : usual);
}

struct Lost {
    int32_t stage;
    bool isEnded;
    std::vector<uint32_t> frames;
};

void RaiseLost(Judging& judging, const Lost& lost) {
    Scene& scene = judging.scene;
    std::vector<int64_t> numbers;
    for (const uint32_t frame : lost.frames) {
        numbers.push_back(scene.frames[frame].number);
        scene.frames[frame].isNeverOut = true;
        judging.Explain(frame, judging.troubles.size());
    }
    const bool hasStage = lost.stage < scene.stageCount;
    std::string text =
        LostText(numbers, hasStage ? judging.StageName(lost.stage) : "the pipeline", lost.isEnded);
    if (!lost.isEnded && hasStage && lost.stage > 0 && lost.stage + 1 == scene.stageCount) {
        text += wording::OR_UNREPORTED;
    }
    const auto [place, time] = judging.LastOf(lost.frames.front());
    Trouble& trouble = judging.Raise(
        Check::FrameLost, lost.isEnded ? Severity::Warning : Severity::Error, lost.frames.front(),
        hasStage ? lost.stage : -1, place, time, std::move(text));
    trouble.finding.frames = RangesOf(numbers);
    trouble.cost = static_cast<int64_t>(numbers.size());
    scene.neverOut.insert(scene.neverOut.end(), numbers.begin(), numbers.end());
}

// Frames that stand in stages, by stage, when a count of numbers ends, and those that have just
// come.
struct Standing {
    std::map<int32_t, std::vector<uint32_t>> stuck, young;
};

// A pipeline stands from its end: what stands before stands behind that.
void RaiseStanding(Judging& judging, Standing& standing, Micros stop, const char* what) {
    Scene& scene = judging.scene;
    const int32_t stage = standing.stuck.rbegin()->first;
    const uint32_t first = standing.stuck.rbegin()->second.front();
    const auto [place, since] = judging.LastOf(first);
    // And so does what has come since, though not for long yet.
    for (const auto& [where, young] : standing.young) {
        if (where > 0 && where <= stage) {
            auto& all = standing.stuck[where];
            all.insert(all.end(), young.begin(), young.end());
        }
    }
    std::vector<int64_t> numbers;
    for (const auto& [where, all] : standing.stuck) {
        for (const uint32_t frame : all) {
            // The sensor's next one has not come yet.
            if (where > 0 || stage == 0) {
                numbers.push_back(scene.frames[frame].number);
                judging.Explain(frame, judging.troubles.size());
                scene.frames[frame].isNeverOut = stage != 0;
            }
        }
    }
    const Micros length = stop - since;
    if (stage == 0) {
        judging
            .Raise(Check::Stuck, length < SENSOR_MAY_OWE ? Severity::Note : Severity::Warning,
                   first, 0, place, since,
                   fmt::format(wording::SENSOR_OWES, fmt::arg("time", Ms(length)),
                               fmt::arg("what", what), fmt::arg("frame", numbers.front())))
            .finding.frames = RangesOf(numbers);
        return;
    }
    Trouble& trouble = judging.Raise(
        Check::Stuck, Severity::Error, first, stage, place, since,
        fmt::format(wording::STUCK, fmt::arg("frame", FramesText({scene.frames[first].number})),
                    fmt::arg("stage", judging.StageName(stage)), fmt::arg("time", Ms(length)),
                    fmt::arg("what", what),
                    fmt::arg("behind", numbers.size() == 1
                                           ? std::string()
                                           : fmt::format(wording::STUCK_BEHIND,
                                                         fmt::arg("count", numbers.size() - 1)))));
    trouble.finding.frames = RangesOf(numbers);
    trouble.cost = static_cast<int64_t>(numbers.size());
    scene.neverOut.insert(scene.neverOut.end(), numbers.begin(), numbers.end());
}

// When the first frame behind this one left the stage after that moment; NO_TIME when none did.
Micros PassedAt(const Scene& scene, uint32_t frame, int32_t stage, Micros since) {
    const Frame& row = scene.frames[frame];
    if (stage < scene.stageCount) {
        for (const uint32_t other : LeftAfter(scene, stage, since)) {
            if (scene.frames[other].epoch == row.epoch && scene.frames[other].number > row.number) {
                return scene.PassOf(other, stage).left;
            }
        }
    }
    return NO_TIME;
}

// How far each stage has got, and in the last place the ends of frames, in each count of numbers.
std::vector<int64_t> NewestOf(const Scene& scene, size_t epochs) {
    const auto stages = static_cast<size_t>(scene.stageCount);
    std::vector<int64_t> newest(epochs * (stages + 1), INT64_MIN);
    for (uint32_t frame = 0; frame < scene.frames.size(); ++frame) {
        const Frame& row = scene.frames[frame];
        for (size_t stage = 0; stage <= stages; ++stage) {
            const bool hasLeft = stage == stages
                                     ? row.isEnded
                                     : scene.PassOf(frame, static_cast<int32_t>(stage)).HasLeft();
            int64_t& most = newest[row.epoch * (stages + 1) + stage];
            most = hasLeft ? std::max(most, row.number) : most;
        }
    }
    return newest;
}

}  // namespace

void FindLost(Judging& judging) {
    Scene& scene = judging.scene;
    const std::vector<uint32_t>& frames = judging.byNumber;
    const std::vector<Micros> stops = StopsOf(scene, frames);
    const std::vector<int64_t> newest = NewestOf(scene, stops.size());
    const auto stages = static_cast<size_t>(scene.stageCount);
    const bool hasStages = judging.schedule.LastStage() >= 0;
    std::vector<Lost> groups;
    std::vector<Standing> standing(stops.size());
    for (const uint32_t frame : frames) {
        Frame& row = scene.frames[frame];
        const bool hasLines = judging.NextStage(frame) > 0;
        const bool isOpener = !row.isStarted && !row.isGap && frame == frames.front() &&
                              judging.NextStage(frame) <= 1;  // In the pipeline before the scene.
        const int32_t stage = hasStages ? judging.NextStage(frame) : scene.stageCount;
        if (row.isOut || judging.IsExplained(frame) || row.isUntold || isOpener ||
            !(hasLines || row.isStarted) || (judging.IsEarly(frame) && !hasLines) ||
            (judging.neverHit && stage >= *judging.neverHit)) {
            continue;
        }
        const Micros since = judging.LastOf(frame).second;
        if (judging.IsDoubtful(frame, PassedAt(scene, frame, stage, since))) {
            row.isUntold = true;
            continue;
        }
        const size_t column = stage < scene.stageCount ? static_cast<size_t>(stage) : stages;
        const bool isPassed = newest[row.epoch * (stages + 1) + column] > row.number;
        const Micros stop = stops[row.epoch];
        if (isPassed || row.isEnded) {
            const Frame* before =
                groups.empty() ? nullptr : &scene.frames[groups.back().frames.back()];
            const bool goesOn =
                before != nullptr && groups.back().stage == stage &&
                groups.back().isEnded == row.isEnded && before->epoch == row.epoch &&
                static_cast<uint64_t>(before->number) + 1 == static_cast<uint64_t>(row.number);
            if (!goesOn) {
                groups.push_back({stage, row.isEnded, {}});
            }
            groups.back().frames.push_back(frame);
        } else if (stage < scene.stageCount) {
            (Stands(judging, frame, stage, since, stop) ? standing[row.epoch].stuck
                                                        : standing[row.epoch].young)[stage]
                .push_back(frame);
        }
    }
    for (const Lost& lost : groups) {
        RaiseLost(judging, lost);
    }
    for (size_t epoch = 0; epoch < standing.size(); ++epoch) {
        if (!standing[epoch].stuck.empty()) {
            RaiseStanding(
                judging, standing[epoch], stops[epoch],
                epoch + 1 < standing.size() ? "frame numbers started again" : WhatEnded(scene));
        }
    }
}

// Numbers that start again in a running scene: the library refuses them until they have passed the
// old ones.
void FindRestarts(Judging& judging) {
    Scene& scene = judging.scene;
    const std::vector<uint32_t>& frames = judging.byNumber;
    for (int32_t epoch = 1; !frames.empty() && epoch <= scene.frames[frames.back()].epoch;
         ++epoch) {
        std::vector<int64_t> refused, flushed;
        std::vector<uint32_t> explained;
        std::optional<uint32_t> first;
        int64_t lastOfOld = 0;
        for (const uint32_t frame : frames) {
            Frame& row = scene.frames[frame];
            if (row.epoch + 1 == epoch) {
                lastOfOld = row.number;
                const bool isFlushed = !row.isOut && !row.isUntold && !judging.IsExplained(frame) &&
                                       !judging.IsEarly(frame);
                if (isFlushed) {
                    explained.push_back(frame);
                }
                // One that has left no stage had only been opened.
                if (isFlushed && judging.NextStage(frame) > 0) {
                    flushed.push_back(row.number);
                    row.isNeverOut = true;
                }
            } else if (row.epoch == epoch) {
                first = first ? first : std::optional(frame);
                if (!row.isStarted && !row.isUntold) {
                    refused.push_back(row.number);
                    if (!judging.IsExplained(frame)) {
                        explained.push_back(frame);
                    }
                }
            }
        }
        if (!first || (refused.empty() && flushed.empty())) {
            continue;
        }
        for (const uint32_t frame : explained) {
            judging.Explain(frame, judging.troubles.size());
        }
        const Frame& begin = scene.frames[*first];
        Trouble& trouble = judging.Raise(
            Check::NumbersRestart, Severity::Error, NO_INDEX, -1,
            begin.trouble.line != 0 ? begin.trouble : begin.place, begin.told,
            fmt::format(
                wording::RESTART, fmt::arg("first", begin.number), fmt::arg("last", lastOfOld),
                fmt::arg("refused", Counted(static_cast<int64_t>(refused.size()), "frame") +
                                        (refused.size() == 1 ? " was" : " were")),
                fmt::arg("flushed",
                         flushed.empty()
                             ? std::string()
                             : fmt::format(wording::FLUSHED, fmt::arg("frames", flushed.size())))));
        trouble.finding.frame = begin.number;
        trouble.finding.frames = RangesOf(refused);
        trouble.finding.times = std::max<int64_t>(static_cast<int64_t>(refused.size()), 1);
        scene.neverOut.insert(scene.neverOut.end(), flushed.begin(), flushed.end());
    }
}

}  // namespace tools
