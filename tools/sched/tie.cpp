#include "tools/sched/tie.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <span>
#include <utility>

#include "tools/base/statistics.h"
#include "tools/base/text.h"
#include "tools/sched/states.h"

namespace tools {
namespace {

using Lines = std::span<const CountedLine>;

// Numbers of frames show which recording it is, so a coarse guess comes first.
constexpr Micros COARSE = SECOND;
// Clocks drift: what ties them is looked at so many lines at a time.
constexpr size_t AT_A_TIME = 64;
// A line and its counter are no further apart, unless a thread is stopped between them.
constexpr Micros TOGETHER = 5 * MILLISECOND;
// What nine of ten keep to. Two recordings of the same frames differ by more: nodes never take the
// same time twice.
constexpr Micros AGREEING = 600;
constexpr int64_t FEWEST = 8;
// Where the log has no line for that long, its clock may have been set; steps of more are breaks.
constexpr Micros SILENCE = SECOND / 10;

// A moment of the log, and how far the trace's clock is ahead then.
struct Knot {
    Micros log, ahead;
    Micros Trace() const { return log + ahead; }
};

// Knots rise by both clocks: one that does not is left out.
void AddKnot(std::vector<Knot>& knots, Knot knot) {
    if (knots.empty() || (knot.log > knots.back().log && knot.Trace() > knots.back().Trace())) {
        knots.push_back(knot);
    }
}

// What a guess of how much the trace's clock is ahead leads to.
struct Fit {
    std::vector<Knot> knots;
    std::vector<Micros> apart;  // Of each pair of a line and a counter that agree.
    // How often a thread of the log is one of the trace.
    std::map<int32_t, std::map<uint32_t, int64_t>> threads;
    int64_t pairs = 0;  // Lines of frames that the trace has counters of.

    Micros Within() const {
        std::vector<Micros> values = apart;
        return QuantileOf(values, 0.9, 0);
    }
    int64_t Agreeing() const { return std::ssize(apart); }

    void Add(const Fit& behind) {
        for (const Knot& knot : behind.knots) {
            AddKnot(knots, knot);
        }
        apart.insert(apart.end(), behind.apart.begin(), behind.apart.end());
        for (const auto& [ofLog, counts] : behind.threads) {
            for (const auto& [ofTrace, count] : counts) {
                threads[ofLog][ofTrace] += count;
            }
        }
    }
};

// The counter of an event that is nearest to a time; null for none.
const SchedCounter* NearestCounter(const SchedTrace& trace, const CountedEvent& event,
                                   Micros time) {
    const std::span<const SchedCounter> all = trace.CountersOf(event);
    const auto nearest =
        std::min_element(all.begin(), all.end(), [time](const auto& one, const auto& other) {
            return std::abs(one.time - time) < std::abs(other.time - time);
        });
    return nearest == all.end() ? nullptr : &*nearest;
}

struct Tying {
    const SchedTrace& trace;
    const Micros resolution;
    const int64_t fewest = std::min<int64_t>(FEWEST, std::ssize(trace.counters));

    // Each line with the counter that is nearest, and how far they are apart by stretches.
    Fit Match(Lines lines, Micros base) const {
        Fit fit;
        Micros ahead = base;
        for (size_t at = 0; at < lines.size(); at += AT_A_TIME) {
            std::vector<std::pair<const CountedLine*, const SchedCounter*>> pairs;
            std::vector<Micros> values;
            for (const CountedLine& line :
                 lines.subspan(at, std::min(AT_A_TIME, lines.size() - at))) {
                const SchedCounter* const counter = NearestCounter(trace, line, line.time + ahead);
                fit.pairs += counter != nullptr ? 1 : 0;
                if (counter != nullptr && std::abs(counter->time - line.time - base) <= COARSE) {
                    pairs.emplace_back(&line, counter);
                    values.push_back(counter->time - line.time);
                }
            }
            ahead = MedianOf(values, ahead);
            const size_t before = fit.apart.size();
            for (const auto& [line, counter] : pairs) {
                const Micros apart = std::abs(counter->time - line->time - ahead);
                if (apart <= TOGETHER) {
                    fit.apart.push_back(apart);
                    ++fit.threads[line->thread][counter->thread];
                }
            }
            if (fit.apart.size() > before) {
                // What holds in the middle of the first stretch holds at its beginning, too.
                const CountedLine& middle = *pairs[pairs.size() / 2].first;
                AddKnot(fit.knots, {fit.knots.empty() ? lines.front().time : middle.time, ahead});
            }
        }
        if (!fit.knots.empty()) {
            AddKnot(fit.knots, {lines.back().time, fit.knots.back().ahead});
        }
        return fit;
    }

    Fit Best(Lines lines) const {
        // By the second. Guesses overlap, as the true one may be where two seconds meet.
        std::map<int64_t, std::vector<Micros>> guesses;
        size_t most = 0;
        for (const CountedLine& line : lines) {
            for (const SchedCounter& counter : trace.CountersOf(line)) {
                const Micros ahead = counter.time - line.time;
                for (const int64_t second : {ahead / COARSE, ahead / COARSE - 1}) {
                    guesses[second].push_back(ahead);
                    most = std::max(most, guesses[second].size());
                }
            }
        }
        // Scenes of the same frames look alike from afar: of all that it may be, the one that fits
        // best.
        Fit best;
        for (auto& [second, aheads] : guesses) {
            if (aheads.size() * 2 < most) {
                continue;
            }
            Fit other = Match(lines, MedianOf(aheads, 0));
            if (other.Agreeing() * 2 > best.Agreeing() &&
                (best.apart.empty() || std::pair(other.Within(), -other.Agreeing()) <
                                           std::pair(best.Within(), -best.Agreeing()))) {
                best = std::move(other);
            }
        }
        return best;
    }

    bool IsGood(const Fit& fit) const {
        return fit.Agreeing() >= fewest && fit.Agreeing() * 2 >= fit.pairs &&
               fit.Within() <= resolution / 2 + AGREEING;
    }
};

// A time of the trace by the log's clock. The knots rise by both clocks.
Micros ToLog(const std::vector<Knot>& knots, Micros time) {
    const auto next = std::partition_point(
        knots.begin(), knots.end(), [time](const Knot& knot) { return knot.Trace() < time; });
    if (next == knots.begin() || next == knots.end()) {
        return time - (next == knots.end() ? knots.back() : *next).ahead;
    }
    const Knot& before = *std::prev(next);
    return before.log +
           (next->log - before.log) * (time - before.Trace()) / (next->Trace() - before.Trace());
}

void TurnIntoLog(SchedTrace& trace, const std::vector<Knot>& knots) {
    const auto turn = [&knots](Micros& time) { time = ToLog(knots, time); };
    for (SchedEvent& event : trace.events) {
        turn(event.time);
    }
    for (SchedCounter& counter : trace.counters) {
        turn(counter.time);
    }
    for (SchedTrace::Hole& hole : trace.holes) {
        turn(hole.begin);
        turn(hole.end);
    }
    turn(trace.from);
    turn(trace.to);
}

// Where the clock was set, or nothing was logged for long, the clocks may have moved apart: from
// one such place to the next the lines are one part.
std::vector<Lines> PartsOf(Lines lines) {
    std::vector<Lines> parts;
    size_t first = 0;
    for (size_t i = 1; i <= lines.size(); ++i) {
        if (i == lines.size() || lines[i].isBehindStep ||
            std::abs(lines[i].time - lines[i - 1].time) > SILENCE) {
            parts.push_back(lines.subspan(first, i - first));
            first = i;
        }
    }
    return parts;
}

// Ties the clocks across the place where one part ends and the next begins.
void Bridge(std::vector<Knot>& knots, const Knot& to, Tie& tie) {
    const Knot from = knots.back();
    const Span log = {from.log, to.log}, byTrace = {from.Trace(), to.Trace()};
    // The clocks move apart in the middle between the two lines.
    const Micros near = std::max<Micros>(std::min(byTrace.Length(), to.log - from.log) / 2 - 1, 0);
    AddKnot(knots, {from.log + near, from.ahead});
    AddKnot(knots, {to.log - near, to.ahead});
    if (std::abs(to.ahead - from.ahead) > SILENCE) {
        tie.breaks.push_back({log, byTrace});
    }
}

// Finds the trace's thread of each of the log's. Where processes have the same ids in both, threads
// have, too; a trace from outside of a container has other ids of both.
void FindThreads(const SchedTrace& trace, const Fit& fit, Tie& tie) {
    for (const auto& [ofLog, counts] : fit.threads) {
        const auto most = std::max_element(
            counts.begin(), counts.end(),
            [](const auto& one, const auto& other) { return one.second < other.second; });
        if (ofLog > 0) {  // Else the log does not have it.
            tie.threads[ofLog] = most->first;
        }
    }
    const bool isSameProcess =
        std::any_of(trace.counters.begin(), trace.counters.end(),
                    [](const SchedCounter& one) { return one.group == one.process; }) ||
        std::any_of(tie.threads.begin(), tie.threads.end(), [&trace](const auto& pair) {
            return trace.threads[pair.second].tid == pair.first;
        });
    for (const auto& [ofLog, ofTrace] : tie.threads) {
        if (isSameProcess && trace.threads[ofTrace].tid != ofLog) {
            throw TieError(fmt::format(
                "its counters and the log are of the same process, but the log's lines of thread "
                "{} are\nthread {}'s in the trace: it is of another recording",
                ofLog, trace.threads[ofTrace].tid));
        }
    }
    tie.isSameNumbering = isSameProcess || tie.threads.empty();
}

}  // namespace

void CountedLines::OnMessage(const Message& message, const Moment& moment) {
    switch (message.kind) {
        case MessageKind::FrameStart:
        case MessageKind::FrameEnd:
        case MessageKind::StageStart:
        case MessageKind::StageEnd:
            all.push_back(
                {{message.kind, message.stage, static_cast<int32_t>(message.frame), moment.process},
                 moment.time,
                 moment.thread,
                 isBehindStep});
            isBehindStep = false;
            return;
        default:
            return;
    }
}

void CountedLines::OnClockSet(Micros /*step*/, const Moment& /*moment*/, const Place& /*place*/) {
    isBehindStep = true;
}

const SchedCounter* CounterBeside(const SchedTrace& trace, const CountedEvent& event, Micros time) {
    const SchedCounter* const counter = NearestCounter(trace, event, time);
    const bool isNear = counter != nullptr && std::abs(counter->time - time) <= 2 * TOGETHER;
    return isNear ? counter : nullptr;
}

Tie TieClocks(SchedTrace& trace, const CountedLines& counted, Micros resolution) {
    const Lines lines = counted.all;
    if (trace.counters.empty()) {
        throw TieError(
            "it has none of the library's counters: were the trace tags camera or hal on, and the\n"
            "library's debug switch?");
    }
    if (lines.empty()) {
        throw TieError(
            "the log has no times, or has no frame that the service was told of:\n"
            "nothing ties the two together");
    }
    const Tying tying{trace, resolution};
    // All lines together show best which of several recordings of the same frames it is.
    const Fit whole = tying.Best(lines);
    if (whole.pairs == 0) {
        throw TieError(fmt::format(
            "none of its counters (of process {}) is of a frame of the log (of process {}):\n"
            "the one ends before the other begins, or they are of two runs",
            trace.counters.front().process, lines.front().process));
    }
    const Micros base = whole.knots.empty() ? 0 : whole.knots.front().ahead;
    Tie tie;
    Fit all;
    for (const Lines& part : PartsOf(lines)) {
        Fit fit = tying.Match(part, base);
        if (!tying.IsGood(fit)) {
            fit = tying.Best(part);
        }
        if (fit.pairs < tying.fewest) {
            continue;  // Too few to show anything; no such part has a knot of its own.
        }
        const bool isFirst = all.knots.empty();
        if (!tying.IsGood(fit) ||
            (!isFirst && fit.knots.front().Trace() <= all.knots.back().Trace())) {
            tie.untied.push_back({part.front().time, part.back().time});
            continue;
        }
        if (!isFirst) {
            Bridge(all.knots, fit.knots.front(), tie);
        }
        all.Add(fit);
    }
    if (all.knots.empty()) {
        throw TieError(
            fmt::format("its counters and the log are of different times (another run, or another "
                        "boot): {} of\n"
                        "{} agree, to within {} ms",
                        whole.Agreeing(), Counted(std::ssize(trace.counters), "counter"),
                        Fixed(static_cast<double>(whole.Within()) / 1000, 1)));
    }
    FindThreads(trace, all, tie);
    tie.counters = all.Agreeing();
    tie.within = all.Within();
    if (!tie.breaks.empty()) {
        const States states = StatesOf(trace);  // By the trace's clock.
        for (Tie::Break& one : tie.breaks) {
            for (const auto& [ofLog, ofTrace] : tie.threads) {
                one.threads[ofTrace] = states.SharesOf(ofTrace, one.byTrace);
            }
        }
    }
    TurnIntoLog(trace, all.knots);
    for (const Span part : tie.untied) {
        trace.holes.push_back({part, SchedTrace::ALL_CPUS});
    }
    for (const Span part : tie.breaks) {
        trace.holes.push_back({part, SchedTrace::ALL_CPUS});
    }
    return tie;
}

}  // namespace tools
