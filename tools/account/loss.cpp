// Frames that never came out: dropped, lost on their way, or standing when everything ended.

#include <algorithm>
#include <map>
#include <numeric>

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
constexpr uint64_t MOST_MISSING = 100'000;  // More is another count.

bool HasAnyLine(const Scene& scene, uint32_t frame) {
    for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
        if (scene.PassOf(frame, stage).HasLeft()) {
            return true;
        }
    }
    return false;
}

// What a frame stood until.
const char* WhatEnded(const Scene& scene) {
    return scene.hasEnd      ? "the scene ended"
           : scene.isGoingOn ? "this was looked at"
                             : "the capture ended";
}

}  // namespace

std::vector<uint32_t> ByNumber(const Scene& scene) {
    std::vector<uint32_t> frames(scene.frames.size());
    std::iota(frames.begin(), frames.end(), 0);
    std::stable_sort(frames.begin(), frames.end(), [&scene](uint32_t one, uint32_t other) {
        const Frame& a = scene.frames[one];
        const Frame& b = scene.frames[other];
        return std::pair(a.epoch, a.number) < std::pair(b.epoch, b.number);
    });
    return frames;
}

// Between two frames that left stage 0: dropped by the sensor if the time has gone by, else skipped
// by the HAL.
void FindMissingNumbers(Judging& judging) {
    Scene& scene = judging.scene;
    if (scene.stageCount == 0 || (judging.neverHit && *judging.neverHit == 0)) {
        return;
    }
    // Calls that are played without their times tell nothing by them.
    const bool hasPace =
        scene.hasTimes && judging.schedule.UsualWork(0) > judging.schedule.Period() / 2;
    std::map<std::pair<uint16_t, int64_t>, uint32_t> known;  // Made when first needed.
    const std::vector<uint32_t>& left = scene.order[0];
    Micros lag = 0;
    for (size_t i = scene.opener ? 0 : 1; i < left.size(); ++i) {
        const Frame& next = scene.frames[left[i]];
        const uint16_t epoch = i == 0 ? uint16_t{0} : scene.frames[left[i - 1]].epoch;
        const int64_t before = i == 0 ? *scene.opener : scene.frames[left[i - 1]].number;
        const Micros from = i == 0 ? scene.opened : scene.PassOf(left[i - 1], 0).left;
        const Place place = i == 0 ? scene.from : scene.PassOf(left[i - 1], 0).place;
        const bool isAhead = next.epoch == epoch && next.number > before;
        const auto step =
            isAhead ? static_cast<uint64_t>(next.number) - static_cast<uint64_t>(before) : 1;
        const Micros to = scene.PassOf(left[i], 0).left;
        const Micros period =
            std::min(judging.schedule.PeriodAt(from), judging.schedule.PeriodAt(to));
        // By how much stage 0 is behind the sensor: what it drops meanwhile takes no time here.
        const Micros passed = lag + to - from;
        lag = std::max<Micros>(
            passed - static_cast<Micros>(std::min<uint64_t>(step, MOST_MISSING)) * period, 0);
        if (step < 2 || step > MOST_MISSING) {
            continue;
        }
        if (known.empty()) {
            for (uint32_t frame = 0; frame < scene.frames.size(); ++frame) {
                known[{scene.frames[frame].epoch, scene.frames[frame].number}] = frame;
            }
        }
        std::vector<int64_t> missing;
        std::vector<uint32_t> rows;
        for (int64_t number = before + 1; number < next.number; ++number) {
            const auto row = known.find({next.epoch, number});
            if (row != known.end() && HasAnyLine(scene, row->second)) {
                continue;  // It is only that its end of stage 0 was not reported, or later.
            }
            missing.push_back(number);
            if (row != known.end()) {
                rows.push_back(row->second);
            }
        }
        // What a hole has swallowed shows where it begins or ends, and here.
        const bool isHole = judging.HasHole(from - AT_HOLE, to + AT_HOLE);
        if (missing.empty() || isHole) {
            for (const uint32_t row : isHole ? rows : std::vector<uint32_t>()) {
                scene.frames[row].isUntold = true;
            }
            continue;
        }
        const auto count = static_cast<Micros>(missing.size());
        const bool isSkipped =
            hasPace && judging.IsTimed(from, to) &&
            passed < static_cast<Micros>(SKIPPED_SHARE * static_cast<double>((count + 1) * period));
        const StagePass& pass = scene.PassOf(left[i], 0);
        const uint32_t first = rows.empty() ? NO_INDEX : rows.front();
        const size_t number = judging.troubles.size();
        if (isSkipped) {
            Trouble& trouble = judging.Raise(
                Check::FrameGap, Severity::Error, NO_INDEX, 0, pass.place, pass.left,
                fmt::format(wording::SKIPPED, fmt::arg("frames", FramesText(missing)),
                            fmt::arg("were", missing.size() == 1 ? "was" : "were"),
                            fmt::arg("next", next.number), fmt::arg("before", before)));
            trouble.finding.frame = next.number;
            for (const uint32_t row : rows) {
                judging.skipped[row] = true;
                judging.Explain(row, number);
            }
            continue;
        }
        const bool isEnded =
            first != NO_INDEX && std::all_of(rows.begin(), rows.end(), [&scene](uint32_t row) {
                return scene.frames[row].isEnded;
            });
        std::string text = fmt::format(wording::LOST, fmt::arg("frames", FramesText(missing)),
                                       fmt::arg("stage", judging.StageName(0)));
        if (isEnded) {
            text += fmt::format(wording::AND_ENDED,
                                fmt::arg("it", missing.size() == 1 ? "it" : "them"));
        }
        Trouble& trouble = judging.Raise(
            Check::FrameLost, isEnded ? Severity::Warning : Severity::Error, NO_INDEX, 0,
            first == NO_INDEX ? place : scene.frames[first].place, from, std::move(text));
        trouble.finding.frame = missing.front();
        trouble.finding.frames = RangesOf(missing);
        trouble.cost = count;
        judging.droppedBefore[left[i]] = count;
        for (const uint32_t row : rows) {
            scene.frames[row].isNeverOut = true;
            judging.Explain(row, number);
        }
        for (const int64_t dropped : missing) {
            scene.neverOut.push_back(dropped);
            if (!known.contains({next.epoch, dropped})) {
                judging.droppedUnseen.push_back(dropped);
            }
        }
    }
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
        fmt::format(wording::LOST, fmt::arg("frames", FramesText(numbers)),
                    fmt::arg("stage", hasStage ? judging.StageName(lost.stage) : "the pipeline"));
    if (lost.isEnded) {
        text +=
            fmt::format(wording::AND_ENDED, fmt::arg("it", numbers.size() == 1 ? "it" : "them"));
    } else if (hasStage && lost.stage > 0 && lost.stage + 1 == scene.stageCount) {
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
    if (stage >= scene.stageCount) {
        return NO_TIME;
    }
    const std::vector<uint32_t>& left = scene.order[static_cast<size_t>(stage)];
    const Frame& row = scene.frames[frame];
    auto next = std::partition_point(left.begin(), left.end(), [&](uint32_t other) {
        return scene.PassOf(other, stage).left <= since;
    });
    next = std::find_if(next, left.end(), [&](uint32_t other) {
        return scene.frames[other].epoch == row.epoch && scene.frames[other].number > row.number;
    });
    return next == left.end() ? NO_TIME : scene.PassOf(*next, stage).left;
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
    const std::vector<uint32_t> frames = ByNumber(scene);
    const std::vector<Micros> stops = StopsOf(scene, frames);
    const std::vector<int64_t> newest = NewestOf(scene, stops.size());
    const auto stages = static_cast<size_t>(scene.stageCount);
    const bool hasStages = judging.schedule.LastStage() >= 0;
    std::vector<Lost> groups;
    std::vector<Standing> standing(stops.size());
    for (const uint32_t frame : frames) {
        Frame& row = scene.frames[frame];
        const bool hasLines = HasAnyLine(scene, frame);
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
        } else if (scene.hasTimes && stage < scene.stageCount) {
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
    const std::vector<uint32_t> frames = ByNumber(scene);
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
                if (isFlushed && HasAnyLine(scene, frame)) {
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
