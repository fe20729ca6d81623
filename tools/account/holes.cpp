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
    const auto later = LeftAfter(scene, stage, time);
    const auto& left = scene.order[static_cast<size_t>(stage)];
    return later.size() == left.size() ? scene.begin
                                       : scene.PassOf(*std::prev(later.data()), stage).left;
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
    const auto later = LeftAfter(scene, 0, silence.end - 1);
    if (later.empty()) {
        return false;
    }
    // When all goes on after a short while, it is overdue: else it is another's fault.
    const Micros start = scene.frames[later.front()].start;
    const bool isAtOnce = scene.PassOf(later.front(), 0).left <= silence.end + period;
    return (isAtOnce || silence.end - silence.begin > 4 * period) &&
           (start == NO_TIME || start <= silence.begin);
}

// When the stage could begin to let go of the frame. One that keeps frames back waits until another
// one comes.
Micros BeganAt(const Judging& judging, uint32_t frame, int32_t stage) {
    return judging.schedule.KeptBack(stage) > 0 ? judging.schedule.CauseOf(frame, stage).begin
                                                : judging.scene.ArrivalOf(frame, stage);
}

// The frame that was in the stage during all of a silence and came out of it soon afterwards, where
// it took longer for that one than for the one ahead; NO_INDEX for none.
uint32_t FrameIn(const Judging& judging, int32_t stage, const Span& silence) {
    const Scene& scene = judging.scene;
    for (const uint32_t frame : LeftAfter(scene, stage, silence.end - 1)) {
        if (scene.PassOf(frame, stage).left >= silence.end + SECOND) {
            break;
        }
        // One that is overtaken waits for the one that does so.
        const uint32_t ahead = judging.schedule.Ahead(frame, stage);
        if (judging.IsDoubtful(frame) ||
            (ahead != NO_INDEX && scene.frames[ahead].number > scene.frames[frame].number)) {
            continue;
        }
        if (ahead != NO_INDEX &&
            judging.WorkOf(ahead, stage, 0) > judging.WorkOf(frame, stage, 0) * 4 / 5) {
            break;
        }
        const Micros begin = BeganAt(judging, frame, stage);
        if (begin != NO_TIME && begin <= silence.begin) {
            return frame;
        }
    }
    return NO_INDEX;
}

// Whether the stage would have been done with a frame that is in it about when the silence began,
// or later.
bool HasJustCome(const Judging& judging, uint32_t frame, int32_t stage, const Span& silence) {
    const Schedule& schedule = judging.schedule;
    Micros usual =
        schedule.KeptBack(stage) > 0 ? schedule.UsualDelay(stage) : schedule.UsualStay(stage);
    // It came from the last stage whose end is told.
    for (int32_t untold = stage - 1; untold >= 0 && !judging.scene.PassOf(frame, untold).HasLeft();
         --untold) {
        usual += schedule.UsualStay(untold);
    }
    return silence.begin - BeganAt(judging, frame, stage) <= usual + schedule.Period();
}

// In how many stages frames were during a silence.
size_t StagesAtWork(const Judging& judging, const Span& silence) {
    size_t stages = 0;
    bool hasJustCome = false;
    for (int32_t stage = 1; stage < judging.scene.stageCount; ++stage) {
        const uint32_t frame = FrameIn(judging, stage, silence);
        if (frame != NO_INDEX) {
            ++stages;
            hasJustCome = hasJustCome || HasJustCome(judging, frame, stage, silence);
        }
    }
    // The sensor is at work, too, if the frame that it owes is the next to come. Behind a stage
    // that has been standing for long it would have no room for that.
    const Micros period = judging.schedule.PeriodAt(silence.begin);
    return stages + (hasJustCome && IsSensorAtWork(judging.scene, silence, period) ? 1 : 0);
}

// Moments at which lines are missing that belong together, with what is told of them.
struct Hole : Span {
    int64_t lines = 0;
    Place place;
    std::vector<int64_t> untold, near;  // Frames.
};

std::vector<Hole> HolesOf(const Judging& judging) {
    const std::vector<Scene::Silence>& silences = judging.scene.silences;
    std::vector<Hole> holes;
    for (const Micros moment : judging.holes) {
        // A silence that has swallowed lines is one hole, however long it is.
        const bool isOne = !holes.empty() &&
                           (moment <= holes.back().end + ONE_HOLE ||
                            std::any_of(silences.begin(), silences.end(), [&](const Span& silence) {
                                return std::abs(silence.begin - holes.back().end) <= ONE_HOLE &&
                                       silence.end >= moment - ONE_HOLE;
                            }));
        if (!isOne) {
            holes.emplace_back().begin = moment;
        }
        holes.back().end = moment;
    }
    return holes;
}

// The one that is nearest to that time, of one at least.
Hole& NearestOf(std::vector<Hole>& holes, Micros time) {
    const auto next = std::partition_point(holes.begin(), holes.end(),
                                           [time](const Hole& hole) { return hole.end < time; });
    const bool isBefore = next == holes.end() || (next != holes.begin() &&
                                                  time - std::prev(next)->end < next->begin - time);
    return isBefore ? *std::prev(next) : *next;
}

// Tells the holes what the log says of them: lines that logd left out, and frames nearby.
void FillHoles(const Judging& judging, std::vector<Hole>& holes) {
    const Scene& scene = judging.scene;
    for (const auto& leftOut : scene.leftOut) {
        Hole& hole = NearestOf(holes, leftOut.time);
        hole.lines += std::max<int64_t>(leftOut.amount, 1);
        hole.place = hole.place.line == 0 ? leftOut.place : hole.place;
    }
    for (uint32_t frame = 0; frame < scene.frames.size(); ++frame) {
        const Frame& row = scene.frames[frame];
        const auto [place, last] = judging.LastOf(frame);
        if (!row.isUntold && !judging.IsDoubtful(frame)) {
            continue;
        }
        Hole& hole = NearestOf(holes, std::max(last, row.start));
        if (row.isUntold) {
            hole.untold.push_back(row.number);
        }
        hole.near.push_back(row.number);
        if (hole.place.line == 0 && (row.isUntold || last >= hole.begin)) {
            hole.place = place;
        }
    }
    for (Hole& hole : holes) {
        std::sort(hole.near.begin(), hole.near.end());
    }
}

// Numbers between those near a hole of which there is no line at all.
std::vector<int64_t> AbsentOf(const Hole& hole, const std::unordered_set<int64_t>& known) {
    std::vector<int64_t> absent;
    for (size_t i = 1; i < hole.near.size(); ++i) {
        const int64_t from = hole.near[i - 1], to = hole.near[i];
        if (static_cast<uint64_t>(to) - static_cast<uint64_t>(from) < MOST_MISSING) {
            for (int64_t number = from; number < to; ++number) {
                if (!known.contains(number)) {
                    absent.push_back(number);
                }
            }
        }
    }
    return absent;
}

void RaiseHole(Judging& judging, const Hole& hole, const std::vector<int64_t>& absent) {
    std::optional<int64_t> around;
    if (!hole.untold.empty()) {
        around = *std::min_element(hole.untold.begin(), hole.untold.end());
    } else if (!hole.near.empty()) {
        around = hole.near[hole.near.size() / 2];
    }
    std::string text = fmt::format(
        wording::LINES_LOST,
        fmt::arg("lines", hole.lines > 1 ? fmt::format("{} lines", hole.lines) : "lines"),
        fmt::arg("around", around ? fmt::format(" around frame {}", *around) : ""));
    if (!hole.untold.empty()) {
        text += ": " + fmt::format(wording::UNTOLD, fmt::arg("numbers", NumbersText(hole.untold)));
    }
    if (!absent.empty()) {
        text += (hole.untold.empty() ? ": " : "; ") +
                fmt::format(wording::ABSENT, fmt::arg("numbers", NumbersText(absent)));
    }
    Trouble& trouble = judging.Raise(Check::LinesLost, Severity::Warning, NO_INDEX, -1,
                                     hole.place.line == 0 ? judging.scene.from : hole.place,
                                     hole.begin, std::move(text));
    trouble.finding.frame = around;
    trouble.absent = static_cast<int64_t>(absent.size());
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
        stood += Cut(span, {from, to}).Length();
    }
    return stood;
}

Micros Judging::WorkOf(uint32_t frame, int32_t stage, Micros unknown) const {
    const Micros work = schedule.WorkOf(frame, stage);
    const Micros done = scene.PassOf(frame, stage).left;
    return work == NO_TIME ? unknown : work - Stood(done - work, done);
}

std::span<const uint32_t> LeftAfter(const Scene& scene, int32_t stage, Micros time) {
    const std::vector<uint32_t>& left = scene.order[static_cast<size_t>(stage)];
    const auto next = std::partition_point(left.begin(), left.end(), [&](uint32_t frame) {
        return scene.PassOf(frame, stage).left <= time;
    });
    return std::span(left).subspan(static_cast<size_t>(next - left.begin()));
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
    std::sort(judging.holes.begin(), judging.holes.end());
}

// Nobody logs while frames are in several stages: no stage is slow, the process stood, or its clock
// was set.
void FindStandstills(Judging& judging) {
    const Scene& scene = judging.scene;
    for (const Scene::Silence& silence : scene.silences) {
        const auto shortest = static_cast<Micros>(
            STANDSTILL_PERIODS * static_cast<double>(judging.schedule.PeriodAt(silence.begin)));
        if (silence.end - silence.begin <= shortest ||
            judging.HasHole(silence.begin - MILLISECOND,
                            silence.end + judging.schedule.PeriodAt(silence.end))) {
            continue;
        }
        const size_t stages = StagesAtWork(judging, silence);
        if (stages < 2) {
            continue;
        }
        judging.standstills.push_back(silence);
        judging.Raise(
            Check::Standstill, Severity::Warning, NO_INDEX, -1, silence.place, silence.begin,
            fmt::format(wording::STANDSTILL, fmt::arg("time", Ms(silence.end - silence.begin)),
                        fmt::arg("stages", stages)));
    }
}

// One finding for each hole, with the frames of which it hides what became of them.
void FindLinesLost(Judging& judging) {
    std::vector<Hole> holes = HolesOf(judging);
    if (holes.empty()) {
        return;
    }
    FillHoles(judging, holes);
    std::unordered_set<int64_t> known;
    for (const Frame& row : judging.scene.frames) {
        known.insert(row.number);
    }
    for (const Hole& hole : holes) {
        RaiseHole(judging, hole, AbsentOf(hole, known));
    }
}

}  // namespace tools
