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
constexpr uint64_t MOST_MISSING = 100'000;  // More is another count.

// Indices of all frames, by count and number.
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

bool HasAnyLine(const Scene& scene, uint32_t frame) {
    for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
        if (scene.PassOf(frame, stage).HasLeft()) {
            return true;
        }
    }
    return false;
}

// "its scene ended", "the capture ended".
const char* WhatEnded(const Scene& scene) {
    return scene.hasEnd ? "the scene ended" : "the capture ended";
}

}  // namespace

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
        const auto step = static_cast<uint64_t>(next.number) - static_cast<uint64_t>(before);
        const Micros to = scene.PassOf(left[i], 0).left;
        const Micros period = judging.schedule.PeriodAt(to);
        // By how much stage 0 is behind the sensor: what it drops meanwhile takes no time here.
        const Micros passed = lag + to - from;
        lag = std::max<Micros>(
            passed - static_cast<Micros>(std::min<uint64_t>(step, MOST_MISSING)) * period, 0);
        if (next.epoch != epoch || next.number <= before || step < 2 || step > MOST_MISSING) {
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
        const bool isHole = judging.HasHole(from - 100 * MILLISECOND, to + 100 * MILLISECOND);
        if (missing.empty() || isHole) {
            for (const uint32_t row : isHole ? rows : std::vector<uint32_t>()) {
                scene.frames[row].isUntold = true;
            }
            continue;
        }
        const auto count = static_cast<Micros>(missing.size());
        const bool isSkipped =
            hasPace &&
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

// Frames that stood when numbers started again.
static void RaiseStanding(Judging& judging, const std::vector<uint32_t>& standing, Micros time) {
    Scene& scene = judging.scene;
    std::vector<int64_t> numbers;
    for (const uint32_t frame : standing) {
        numbers.push_back(scene.frames[frame].number);
        scene.frames[frame].isNeverOut = true;
        judging.Explain(frame, judging.troubles.size());
    }
    const uint32_t first = standing.front();
    const int32_t stage = judging.NextStage(first);
    const auto [place, since] = judging.LastOf(first);
    Trouble& trouble = judging.Raise(
        Check::Stuck, Severity::Error, first, stage, place, since,
        fmt::format(wording::STUCK, fmt::arg("frame", FramesText({numbers.front()})),
                    fmt::arg("stage", judging.StageName(stage)), fmt::arg("time", Ms(time - since)),
                    fmt::arg("what", "frame numbers started again"),
                    fmt::arg("behind", numbers.size() == 1
                                           ? std::string()
                                           : fmt::format(wording::STUCK_BEHIND,
                                                         fmt::arg("count", numbers.size() - 1)))));
    trouble.finding.frames = RangesOf(numbers);
    trouble.cost = static_cast<int64_t>(numbers.size());
    scene.neverOut.insert(scene.neverOut.end(), numbers.begin(), numbers.end());
}

// Numbers that start again in a running scene: the library refuses them until they have passed the
// old ones.
void FindRestarts(Judging& judging) {
    Scene& scene = judging.scene;
    const std::vector<uint32_t> frames = ByNumber(scene);
    for (uint16_t epoch = 1; !frames.empty() && epoch <= scene.frames[frames.back()].epoch;
         ++epoch) {
        std::vector<int64_t> refused, flushed;
        std::vector<uint32_t> old;
        std::optional<uint32_t> first;
        size_t number = judging.troubles.size();
        int64_t lastOfOld = 0;
        for (const uint32_t frame : frames) {
            Frame& row = scene.frames[frame];
            if (row.epoch + 1 == epoch) {
                lastOfOld = row.number;
                const bool isOut = judging.IsOut(frame);
                if (!isOut && !judging.IsExplained(frame) && !judging.IsEarly(frame)) {
                    old.push_back(frame);
                }
            } else if (row.epoch == epoch) {
                first = first ? first : std::optional(frame);
                if (!row.isStarted) {
                    refused.push_back(row.number);
                }
            }
        }
        // What was in flight is flushed, or had been standing.
        std::vector<uint32_t> standing;
        for (const uint32_t frame : old) {
            const int32_t stage = judging.NextStage(frame);
            const Micros since = judging.LastOf(frame).second;
            const bool isYoung =
                stage == 0 || stage >= scene.stageCount || !first ||
                scene.frames[*first].told - since <=
                    judging.schedule.UsualStay(stage) + STANDS * judging.schedule.PeriodAt(since);
            if (!isYoung || (!standing.empty() && stage > 0)) {
                standing.push_back(frame);
            }
        }
        if (!standing.empty()) {
            RaiseStanding(judging, standing, scene.frames[*first].told);
            number = judging.troubles.size();
        }
        for (const uint32_t frame : old) {
            if (!judging.IsExplained(frame)) {
                judging.Explain(frame, number);
                // One that has left no stage had only been opened.
                if (HasAnyLine(scene, frame)) {
                    flushed.push_back(scene.frames[frame].number);
                    scene.frames[frame].isNeverOut = true;
                }
            }
        }
        for (const uint32_t frame : frames) {
            if (scene.frames[frame].epoch == epoch && !scene.frames[frame].isStarted) {
                judging.Explain(frame, number);
            }
        }
        if (!first || (refused.empty() && flushed.empty())) {
            continue;
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

// Whether a frame that came to the stage at that time has stood in it for much longer than usual.
static bool Stands(const Judging& judging, uint32_t frame, int32_t stage, Micros since) {
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
    return scene.stop - since - judging.Stood(since, scene.stop) >
           (stage == 0 ? RUNS_EMPTY : usual);
}

void FindLost(Judging& judging) {
    Scene& scene = judging.scene;
    // How far each stage has got, in each count of numbers.
    const std::vector<uint32_t> frames = ByNumber(scene);
    const auto stages = static_cast<size_t>(scene.stageCount);
    const size_t epochs = frames.empty() ? 0 : scene.frames[frames.back()].epoch + size_t{1};
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

    struct Lost {
        int32_t stage;
        bool isEnded;
        std::vector<uint32_t> frames;
    };
    std::vector<Lost> groups;
    std::map<int32_t, std::vector<uint32_t>> stuck, inFlight;
    uint32_t before = NO_INDEX;
    for (const uint32_t frame : frames) {
        Frame& row = scene.frames[frame];
        row.isOut = judging.IsOut(frame);
        const bool hasLines = HasAnyLine(scene, frame) || row.isStarted;
        // Frames of a count that is refused as a whole may be lost all the same.
        const bool isExplained =
            judging.IsExplained(frame) &&
            (row.isNeverOut || !HasAnyLine(scene, frame) ||
             judging.troubles[judging.causes[frame] - 1].finding.check != Check::NumbersRestart);
        if (row.isOut || isExplained || !hasLines || row.isUntold ||
            (judging.IsEarly(frame) && !HasAnyLine(scene, frame))) {
            continue;
        }
        const bool isOpener = !row.isStarted && !row.isGap && frame == frames.front();
        if (isOpener && judging.NextStage(frame) <= 1) {
            continue;  // It was in the pipeline before the scene was.
        }
        const int32_t stage =
            judging.schedule.LastStage() < 0 ? scene.stageCount : judging.NextStage(frame);
        if (judging.neverHit && stage >= *judging.neverHit) {
            continue;
        }
        if (judging.IsDoubtful(frame)) {
            row.isUntold = true;
            continue;
        }
        const bool hasStages = judging.schedule.LastStage() >= 0;
        const size_t column =
            hasStages && stage < scene.stageCount ? static_cast<size_t>(stage) : stages;
        const bool isPassed = newest[row.epoch * (stages + 1) + column] > row.number;
        const Micros since = judging.LastOf(frame).second;
        if (isPassed || row.isEnded) {
            const bool goesOn = !groups.empty() && groups.back().stage == stage &&
                                groups.back().isEnded == row.isEnded && before != NO_INDEX &&
                                before == groups.back().frames.back() &&
                                scene.frames[before].number + 1 == row.number &&
                                scene.frames[before].epoch == row.epoch;
            if (!goesOn) {
                groups.push_back({stage, row.isEnded, {}});
            }
            groups.back().frames.push_back(frame);
            before = frame;
        } else if (scene.hasTimes && hasStages && stage < scene.stageCount && since != NO_TIME) {
            (Stands(judging, frame, stage, since) ? stuck : inFlight)[stage].push_back(frame);
        }
    }
    for (const Lost& lost : groups) {
        std::vector<int64_t> numbers;
        const size_t number = judging.troubles.size();
        for (const uint32_t frame : lost.frames) {
            numbers.push_back(scene.frames[frame].number);
            scene.frames[frame].isNeverOut = true;
            judging.Explain(frame, number);
        }
        const bool hasStage = lost.stage < scene.stageCount;
        std::string text = fmt::format(
            wording::LOST, fmt::arg("frames", FramesText(numbers)),
            fmt::arg("stage", hasStage ? judging.StageName(lost.stage) : "the pipeline"));
        if (lost.isEnded) {
            text += fmt::format(wording::AND_ENDED,
                                fmt::arg("it", numbers.size() == 1 ? "it" : "them"));
        } else if (hasStage && lost.stage > 0 && lost.stage + 1 == scene.stageCount) {
            text += wording::OR_UNREPORTED;
        }
        const auto [place, time] = judging.LastOf(lost.frames.front());
        Trouble& trouble = judging.Raise(
            Check::FrameLost, lost.isEnded ? Severity::Warning : Severity::Error,
            lost.frames.front(), hasStage ? lost.stage : -1, place, time, std::move(text));
        trouble.finding.frames = RangesOf(numbers);
        trouble.cost = static_cast<int64_t>(numbers.size());
        scene.neverOut.insert(scene.neverOut.end(), numbers.begin(), numbers.end());
    }
    if (stuck.empty()) {
        return;
    }
    // A pipeline stands from its end: what stands before stands behind that.
    const auto& [stage, standing] = *stuck.rbegin();
    const size_t number = judging.troubles.size();
    const uint32_t first = standing.front();
    const auto [place, since] = judging.LastOf(first);
    // And so does what has come since, though not for long yet.
    for (auto& [where, young] : inFlight) {
        if (where > 0 && where <= stage && stage > 0) {
            stuck[where].insert(stuck[where].end(), young.begin(), young.end());
        }
    }
    std::vector<int64_t> numbers;
    for (const auto& [where, all] : stuck) {
        for (const uint32_t frame : all) {
            // The sensor's next one has not come yet.
            if (where == 0 && stage != 0) {
                continue;
            }
            numbers.push_back(scene.frames[frame].number);
            judging.Explain(frame, number);
            scene.frames[frame].isNeverOut = stage != 0;
        }
    }
    const Micros length = scene.stop - since;
    if (stage == 0) {
        Trouble& trouble = judging.Raise(
            Check::Stuck, length < SENSOR_MAY_OWE ? Severity::Note : Severity::Warning, first, 0,
            place, since,
            fmt::format(wording::SENSOR_OWES, fmt::arg("time", Ms(length)),
                        fmt::arg("what", WhatEnded(scene)), fmt::arg("frame", numbers.front())));
        trouble.finding.frames = RangesOf(numbers);
        return;
    }
    Trouble& trouble = judging.Raise(
        Check::Stuck, Severity::Error, first, stage, place, since,
        fmt::format(wording::STUCK,
                    fmt::arg("frame", fmt::format("frame {}", scene.frames[first].number)),
                    fmt::arg("stage", judging.StageName(stage)), fmt::arg("time", Ms(length)),
                    fmt::arg("what", WhatEnded(scene)),
                    fmt::arg("behind", numbers.size() == 1
                                           ? std::string()
                                           : fmt::format(wording::STUCK_BEHIND,
                                                         fmt::arg("count", numbers.size() - 1)))));
    trouble.finding.frames = RangesOf(numbers);
    trouble.cost = static_cast<int64_t>(numbers.size());
    scene.neverOut.insert(scene.neverOut.end(), numbers.begin(), numbers.end());
}

}  // namespace tools
