// Where lines of the log are missing, and where nobody logged anything.

#include <algorithm>
#include <set>
#include <unordered_set>

#include "tools/account/wording.h"
#include "tools/base/text.h"

namespace tools {
namespace {

// Lines that are missing near a frame's life may tell of it: a pipeline's depth at 60 frames per
// second.
constexpr Micros NEAR = 150 * MILLISECOND;
// Holes that are no further apart are one.
constexpr Micros ONE_HOLE = 300 * MILLISECOND;
// Lines of one event are no further apart.
constexpr Micros ONE_EVENT = 10 * MILLISECOND;
// A standstill is no shorter, in periods: less is the time between two sets of lines.
constexpr double STANDSTILL_PERIODS = 2.2;
// Events that one object does not forward: fewer come of lines that are missing.
constexpr size_t MANY_IMPOSSIBLE = 5;

// Where a frame that is in order lacks lines that the library must have written.
void FindLacks(Judging& judging, const std::vector<bool>& isNodeDriven) {
    const Scene& scene = judging.scene;
    for (uint32_t frame = 0; frame < scene.frames.size(); ++frame) {
        const Frame& row = scene.frames[frame];
        if (row.isGap || judging.IsEarly(frame)) {
            continue;
        }
        int32_t top = -1;
        for (int32_t stage = scene.stageCount - 1; stage >= 0 && top < 0; --stage) {
            top = (scene.PassOf(frame, stage).seen & (STAGE_START | STAGE_END)) != 0 ? stage : -1;
        }
        if (top >= 0 && !row.isStarted) {
            judging.holes.push_back(row.told);
            continue;
        }
        const bool isInOrder = row.violation == Reason::None && !row.isEvicted &&
                               !row.isNotInFlight && !row.isDuplicate && row.isStarted;
        for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
            const StagePass& pass = scene.PassOf(frame, stage);
            const bool isLast = stage + 1 == scene.stageCount;
            const bool isEnded = (pass.seen & STAGE_END) != 0;
            const bool isStarted = (pass.seen & STAGE_START) != 0;
            // Stages are forwarded one after another, so a later one tells of those before it.
            const bool lacksLine =
                (stage < top && !(isStarted && isEnded)) || (stage == top && isEnded && !isStarted);
            const bool hasNodeEnd = (pass.seen & NODE_END) != 0;
            const bool lacksEvent =
                isInOrder &&
                ((hasNodeEnd && (!isEnded || (isLast ? !row.isEnded && stage > 0
                                                     : (scene.PassOf(frame, stage + 1).seen &
                                                        STAGE_START) == 0))) ||
                 (isEnded && !hasNodeEnd && isNodeDriven[static_cast<size_t>(stage)]));
            if (lacksLine || lacksEvent) {
                judging.holes.push_back(pass.HasLeft() ? pass.left : row.told);
            }
        }
        if (row.isNotInFlight && row.isStarted && !row.isEvicted && !row.isEnded &&
            row.violation == Reason::None) {
            judging.holes.push_back(judging.LastOf(frame).second);
        }
    }
}

// When the stage was last left before that time.
Micros LastLeft(const Scene& scene, int32_t stage, Micros time) {
    const auto& left = scene.order[static_cast<size_t>(stage)];
    const auto next = std::partition_point(left.begin(), left.end(), [&](uint32_t frame) {
        return scene.PassOf(frame, stage).left <= time;
    });
    return next == left.begin() ? scene.begin : scene.PassOf(*std::prev(next), stage).left;
}

// Whether the stage ends no frame after that time although some come to it, or as none does.
bool EndsNoMore(const Scene& scene, int32_t stage, Micros time) {
    const auto goesOn = [&](int32_t which) {
        const auto& left = scene.order[static_cast<size_t>(which)];
        return !left.empty() && scene.PassOf(left.back(), which).left > time;
    };
    for (int32_t other = 0; other < scene.stageCount; ++other) {
        if (goesOn(other)) {
            return stage > 0 && !goesOn(stage) && goesOn(stage - 1);
        }
    }
    return true;
}

// A silence that has swallowed the ends of several stages has swallowed lines.
void FindSwallowed(Judging& judging) {
    const Scene& scene = judging.scene;
    std::vector<std::pair<Micros, int32_t>>
        expected;  // Ends that never came: when, of which stage.
    // No stage is done with a frame before it is with those ahead.
    std::vector<Micros> ahead(static_cast<size_t>(scene.stageCount), NO_TIME);
    for (uint32_t frame = 0; frame < scene.frames.size(); ++frame) {
        const Frame& row = scene.frames[frame];
        for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
            Micros& free = ahead[static_cast<size_t>(stage)];
            if (scene.PassOf(frame, stage).HasLeft()) {
                free = std::max(free, scene.PassOf(frame, stage).left);
                continue;
            }
            // What a stage keeps back ends when others come.
            if (row.isEnded || judging.schedule.KeptBack(stage) > 0) {
                continue;
            }
            if (stage == 0 && row.start != NO_TIME) {
                expected.emplace_back(row.start + judging.schedule.PeriodAt(row.start), stage);
            } else if (stage > 0 && scene.PassOf(frame, stage - 1).HasLeft()) {
                const Micros came = scene.PassOf(frame, stage - 1).left;
                expected.emplace_back(std::max(came + judging.schedule.UsualStay(stage), free),
                                      stage);
            } else if (stage + 1 < scene.stageCount && scene.PassOf(frame, stage + 1).HasLeft()) {
                expected.emplace_back(
                    scene.PassOf(frame, stage + 1).left - judging.schedule.UsualStay(stage + 1),
                    stage);
            }
        }
    }
    std::sort(expected.begin(), expected.end());
    for (const Scene::Silence& silence : scene.silences) {
        std::set<int32_t> stages;
        for (auto it = std::lower_bound(expected.begin(), expected.end(),
                                        std::pair(silence.begin - MILLISECOND, -1));
             it != expected.end() && it->first <= silence.end + MILLISECOND; ++it) {
            stages.insert(it->second);
        }
        // Where a stage had stopped by then although it had a frame, it is no wonder that it ends
        // none.
        const Micros before = silence.begin - 2 * judging.schedule.PeriodAt(silence.begin);
        std::erase_if(stages, [&](int32_t stage) {
            const Micros last = LastLeft(scene, stage, silence.begin);
            return EndsNoMore(scene, stage, silence.end) ||
                   std::any_of(
                       std::lower_bound(expected.begin(), expected.end(), std::pair(last, stage)),
                       std::lower_bound(expected.begin(), expected.end(), std::pair(before, -1)),
                       [stage](const auto& end) { return end.second == stage; });
        });
        if (stages.size() >= 2) {
            judging.holes.push_back(silence.begin);
            judging.holes.push_back(silence.end);
        }
    }
}

// Whether the first frame that left stage 0 after that time had been started before it.
bool IsSensorAtWork(const Scene& scene, const Span& silence, Micros period) {
    if (scene.stageCount == 0) {
        return false;
    }
    const auto next = std::partition_point(
        scene.order[0].begin(), scene.order[0].end(),
        [&](uint32_t frame) { return scene.PassOf(frame, 0).left < silence.end; });
    if (next == scene.order[0].end()) {
        return false;
    }
    // When all goes on after a short while, it is overdue: else it is another's fault.
    const Micros start = scene.frames[*next].start;
    const bool isAtOnce = scene.PassOf(*next, 0).left <= silence.end + period;
    return (isAtOnce || silence.end - silence.begin > 4 * period) &&
           (start == NO_TIME || start <= silence.begin);
}

}  // namespace

bool Judging::HasHole(Micros from, Micros to) const {
    const auto hole = std::lower_bound(holes.begin(), holes.end(), from);
    return hole != holes.end() && *hole <= to;
}

bool Judging::IsDoubtful(uint32_t frame, Micros until) const {
    if (holes.empty()) {
        return false;
    }
    const Micros first = scene.frames[frame].told;
    return HasHole(first - NEAR, std::max(LastOf(frame).second, until) + NEAR);
}

Micros Judging::Stood(Micros from, Micros to) const {
    Micros stood = 0;
    for (const Span& span : standstills) {
        stood += std::max<Micros>(std::min(to, span.end) - std::max(from, span.begin), 0);
    }
    return stood;
}

bool FindTwoObjects(Judging& judging) {
    const Scene& scene = judging.scene;
    if (scene.impossible.size() < MANY_IMPOSSIBLE && !scene.isAfterEnd) {
        return false;
    }
    judging.Raise(Check::TwoCameras, Severity::Error, NO_INDEX, -1, scene.from, scene.begin,
                  fmt::format(wording::TWO_OBJECTS, fmt::arg("process", scene.process)));
    return true;
}

void FindHoles(Judging& judging) {
    const Scene& scene = judging.scene;
    std::vector<bool> isNodeDriven(static_cast<size_t>(scene.stageCount));
    for (size_t i = 0; i < scene.passes.size(); ++i) {
        const size_t stage = i % isNodeDriven.size();
        isNodeDriven[stage] = isNodeDriven[stage] || (scene.passes[i].seen & NODE_END) != 0;
    }
    FindLacks(judging, isNodeDriven);
    FindSwallowed(judging);
    if (!scene.hasEnd) {
        // Where the capture ends, the lines of one event may be there in part.
        std::erase_if(judging.holes,
                      [&scene](Micros hole) { return hole > scene.end - ONE_EVENT; });
    }
    for (const auto& leftOut : scene.leftOut) {
        judging.holes.push_back(leftOut.time);
    }
    judging.holes.insert(judging.holes.end(), scene.impossible.begin(), scene.impossible.end());
    std::erase(judging.holes, NO_TIME);
    std::sort(judging.holes.begin(), judging.holes.end());
}

// Nobody logs while frames are in several stages: no stage is slow, the process stood, or its clock
// was set.
void FindStandstills(Judging& judging) {
    const Scene& scene = judging.scene;
    for (const Scene::Silence& silence : scene.silences) {
        const auto shortest = static_cast<Micros>(
            STANDSTILL_PERIODS * static_cast<double>(judging.schedule.PeriodAt(silence.begin)));
        if (!scene.hasTimes || silence.end - silence.begin <= shortest ||
            judging.HasHole(silence.begin - MILLISECOND,
                            silence.end + judging.schedule.PeriodAt(silence.end))) {
            continue;
        }
        std::set<int32_t> stages;
        bool hasJustCome = false;
        // Those that came out of something later, and were in it at that time.
        for (int32_t stage = 1; stage < scene.stageCount; ++stage) {
            const auto& left = scene.order[static_cast<size_t>(stage)];
            auto next = std::partition_point(left.begin(), left.end(), [&](uint32_t frame) {
                return scene.PassOf(frame, stage).left < silence.end;
            });
            for (; next != left.end() && scene.PassOf(*next, stage).left < silence.end + SECOND;
                 ++next) {
                // One that is overtaken waits for the one that does so.
                const uint32_t ahead = judging.schedule.Ahead(*next, stage);
                if (judging.IsDoubtful(*next)) {
                    continue;
                }
                if (ahead != NO_INDEX && scene.frames[ahead].number > scene.frames[*next].number) {
                    continue;
                }
                // The stage was as slow with the one ahead of it.
                const auto workOf = [&judging, stage](uint32_t frame) {
                    const Micros work = judging.schedule.WorkOf(frame, stage);
                    const Micros done = judging.scene.PassOf(frame, stage).left;
                    return work == NO_TIME ? 0 : work - judging.Stood(done - work, done);
                };
                if (ahead != NO_INDEX && workOf(ahead) > workOf(*next) * 4 / 5) {
                    break;
                }
                // A stage that keeps frames back waits until another one comes.
                const bool keepsBack = judging.schedule.KeptBack(stage) > 0;
                const Micros begin = keepsBack ? judging.schedule.CauseOf(*next, stage).begin
                                               : scene.ArrivalOf(*next, stage);
                if (begin != NO_TIME && begin <= silence.begin) {
                    stages.insert(stage);
                    Micros usual = keepsBack ? judging.schedule.UsualDelay(stage)
                                             : judging.schedule.UsualStay(stage);
                    // It came from the last stage whose end is told.
                    for (int32_t untold = stage - 1;
                         untold >= 0 && !scene.PassOf(*next, untold).HasLeft(); --untold) {
                        usual += judging.schedule.UsualStay(untold);
                    }
                    hasJustCome =
                        hasJustCome || silence.begin - begin <= usual + judging.schedule.Period();
                    break;
                }
            }
        }
        // The sensor is at work, too, if the frame that it owes is the next to come. Behind a stage
        // that has been standing for long it would have no room for that.
        if (hasJustCome &&
            IsSensorAtWork(scene, silence, judging.schedule.PeriodAt(silence.begin))) {
            stages.insert(0);
        }
        if (stages.size() < 2) {
            continue;
        }
        judging.standstills.push_back(silence);
        judging.Raise(
            Check::Standstill, Severity::Warning, NO_INDEX, -1, silence.place, silence.begin,
            fmt::format(wording::STANDSTILL, fmt::arg("time", Ms(silence.end - silence.begin)),
                        fmt::arg("stages", stages.size())));
    }
}

// One finding for each hole, with the frames of which it hides what became of them.
void FindLinesLost(Judging& judging) {
    Scene& scene = judging.scene;
    struct Hole : Span {
        int64_t lines = 0;
        Place place;
        std::vector<int64_t> untold, near;
    };
    std::vector<Hole> found;
    for (const Micros hole : judging.holes) {
        // A silence that has swallowed lines is one hole, however long it is.
        const bool isOne =
            !found.empty() &&
            (hole <= found.back().end + ONE_HOLE ||
             std::any_of(scene.silences.begin(), scene.silences.end(), [&](const auto& silence) {
                 return std::abs(silence.begin - found.back().end) <= ONE_HOLE &&
                        silence.end >= hole - ONE_HOLE;
             }));
        if (!isOne) {
            found.emplace_back();
            found.back().begin = hole;
        }
        found.back().end = hole;
    }
    if (found.empty()) {
        return;
    }
    const auto holeOf = [&found](Micros time) {
        const auto next = std::partition_point(
            found.begin(), found.end(), [time](const Hole& hole) { return hole.end < time; });
        if (next == found.end() ||
            (next != found.begin() && time - std::prev(next)->end < next->begin - time)) {
            return std::prev(next);
        }
        return next;
    };
    for (const auto& leftOut : scene.leftOut) {
        const auto hole = holeOf(leftOut.time);
        hole->lines += std::max<int64_t>(leftOut.amount, 1);
        hole->place = hole->place.line == 0 ? leftOut.place : hole->place;
    }
    for (uint32_t frame = 0; frame < scene.frames.size(); ++frame) {
        const Frame& row = scene.frames[frame];
        const auto [place, last] = judging.LastOf(frame);
        if (last == NO_TIME || !(row.isUntold || judging.IsDoubtful(frame))) {
            continue;
        }
        const auto hole = holeOf(std::max(last, row.start));
        if (row.isUntold) {
            hole->untold.push_back(row.number);
        }
        hole->near.push_back(row.number);
        if (hole->place.line == 0 && (row.isUntold || last >= hole->begin)) {
            hole->place = place;
        }
    }
    std::unordered_set<int64_t> known;
    for (const Frame& row : scene.frames) {
        known.insert(row.number);
    }
    for (Hole& hole : found) {
        // Numbers between those that are told of, of which there is no line at all.
        std::vector<int64_t> absent;
        std::sort(hole.near.begin(), hole.near.end());
        for (size_t i = 1; i < hole.near.size(); ++i) {
            const int64_t from = hole.near[i - 1];
            const auto missing = static_cast<uint64_t>(hole.near[i]) - static_cast<uint64_t>(from);
            if (missing > 1 && missing < 100'000) {
                for (int64_t number = from + 1; number < hole.near[i]; ++number) {
                    if (!known.contains(number)) {
                        absent.push_back(number);
                    }
                }
            }
        }
        std::string around;
        std::optional<int64_t> first;
        if (!hole.untold.empty()) {
            first = *std::min_element(hole.untold.begin(), hole.untold.end());
        } else if (!hole.near.empty()) {
            first = hole.near[hole.near.size() / 2];
        }
        if (first) {
            around = fmt::format(" around frame {}", *first);
        }
        std::string text = fmt::format(
            wording::LINES_LOST,
            fmt::arg("lines", hole.lines > 1 ? fmt::format("{} lines", hole.lines) : "lines"),
            fmt::arg("around", around));
        std::vector<std::string> parts;
        if (!hole.untold.empty()) {
            parts.push_back(
                fmt::format(wording::UNTOLD, fmt::arg("numbers", NumbersText(hole.untold))));
        }
        if (!absent.empty()) {
            parts.push_back(fmt::format(wording::ABSENT, fmt::arg("numbers", NumbersText(absent))));
        }
        for (size_t i = 0; i < parts.size(); ++i) {
            text += (i == 0 ? ": " : "; ") + parts[i];
        }
        Trouble& trouble = judging.Raise(Check::LinesLost, Severity::Warning, NO_INDEX, -1,
                                         hole.place.line == 0 ? scene.from : hole.place, hole.begin,
                                         std::move(text));
        trouble.finding.frame = first;
        trouble.absent = static_cast<int64_t>(absent.size());
    }
}

}  // namespace tools
