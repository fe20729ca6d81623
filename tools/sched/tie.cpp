#include "tools/sched/tie.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <span>
#include <utility>

#include "tools/base/finding.h"
#include "tools/base/statistics.h"

namespace tools {
namespace {

using Lines = std::span<const CountedLine>;

// Numbers of frames show which recording it is, so a coarse guess comes first.
constexpr Micros COARSE = SECOND;
// Clocks drift, so they are tied by so many lines at a time.
constexpr size_t AT_A_TIME = 64;
// Nine of ten lines are this near to their counters. Two recordings of the same frames differ by
// more: nodes never take the same time twice.
constexpr Micros AGREEING = 600;
constexpr int64_t FEWEST = 8;
// Where the log has no line for that long, its clock may have been set; steps of more are breaks.
constexpr Micros SILENCE = SECOND / 10;

// Knots rise by the trace's clock and do not fall by the log's: one that does not do so is left
// out.
void AddKnot(std::vector<Knot>& knots, Knot knot) {
    if (knots.empty() || (knot.log >= knots.back().log && knot.Trace() > knots.back().Trace())) {
        knots.push_back(knot);
    }
}

// How well log and trace fit, by a guess of how much the trace's clock is ahead.
struct Fit {
    std::vector<Knot> knots{};
    int64_t pairs = 0;     // Lines that have a counter within COARSE.
    int64_t agreeing = 0;  // Of these, lines that agree with their counters,
    Micros within = 0;     // nine of ten to within this much.
};

struct Tying {
    const SchedTrace& trace;
    const Micros resolution;
    const int64_t fewest = std::min<int64_t>(FEWEST, std::ssize(trace.counters));

    // Each line with the counter that is nearest, and how far they are apart by stretches.
    Fit Match(Lines lines, Micros ahead) const {
        Fit fit;
        std::vector<Micros> apart;
        for (size_t at = 0; at < lines.size(); at += AT_A_TIME) {
            const Lines stretch = lines.subspan(at, std::min(AT_A_TIME, lines.size() - at));
            std::vector<Micros> values;
            for (const CountedLine& line : stretch) {
                const Micros time = line.time + ahead;
                if (const auto* const counter = CounterBeside(trace, line, time, COARSE)) {
                    values.push_back(counter->time - line.time);
                }
            }
            fit.pairs += std::ssize(values);
            if (values.empty()) {
                continue;
            }
            ahead = MedianOf(values, ahead);
            AddKnot(fit.knots, {stretch[stretch.size() / 2].time, ahead});
            for (const Micros value : values) {
                if (std::abs(value - ahead) <= TOGETHER) {
                    apart.push_back(std::abs(value - ahead));
                }
            }
        }
        fit.agreeing = std::ssize(apart);
        fit.within = QuantileOf(apart, 0.9, 0);
        return fit;
    }

    Fit Best(Lines lines) const {
        std::map<int64_t, std::vector<Micros>> guesses;  // By the second.
        size_t most = 0;
        for (const CountedLine& line : lines) {
            for (const SchedCounter& counter : trace.CountersOf(line)) {
                std::vector<Micros>& guess = guesses[(counter.time - line.time) / COARSE];
                guess.push_back(counter.time - line.time);
                most = std::max(most, guess.size());
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
            if (other.agreeing * 2 > best.agreeing &&
                (best.agreeing == 0 || other.within < best.within)) {
                best = std::move(other);
            }
        }
        return best;
    }

    bool IsGood(const Fit& fit) const {
        return fit.agreeing >= fewest && fit.agreeing * 2 >= fit.pairs &&
               fit.within <= resolution / 2 + AGREEING;
    }
};

// A time by another clock; `from` and `to` have times of the knots by the two. There are knots.
Micros Turned(const std::vector<Knot>& knots, Micros time, const auto& from, const auto& to) {
    const auto next = std::ranges::upper_bound(knots, time, {}, from);
    if (next == knots.begin() || next == knots.end()) {
        const Knot& nearest = next == knots.end() ? knots.back() : *next;
        return time + to(nearest) - from(nearest);
    }
    const Knot& before = *std::prev(next);
    return to(before) +
           (to(*next) - to(before)) * (time - from(before)) / (from(*next) - from(before));
}

constexpr auto BY_LOG = std::mem_fn(&Knot::log);
constexpr auto BY_TRACE = std::mem_fn(&Knot::Trace);

void TurnIntoLog(SchedTrace& trace, const std::vector<Knot>& knots) {
    const auto turn = [&knots](Micros& time) { time = Turned(knots, time, BY_TRACE, BY_LOG); };
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

// Where the clock was set, or nothing was logged for long, the clocks may have moved apart.
bool IsBreak(const CountedLine& line, const CountedLine& next) {
    return next.isBehindStep || std::abs(next.time - line.time) > SILENCE;
}

// Where log and trace number threads alike, all threads are known.
void NameThreads(const SchedTrace& trace, Tie& tie) {
    const bool isSameNumbering = std::ranges::all_of(tie.threads, [&trace](const auto& one) {
        return one.first == trace.threads[one.second].tid;
    });
    for (uint32_t i = 0; isSameNumbering && i < trace.threads.size(); ++i) {
        tie.threads.try_emplace(trace.threads[i].tid, i);
    }
}

}  // namespace

Micros ToTrace(const std::vector<Knot>& knots, Micros time) {
    return knots.empty() ? time : Turned(knots, time, BY_LOG, BY_TRACE);
}

void CountedLines::OnMessage(const Message& message, const Moment& moment) {
    for (const auto& [kind, name] : COUNTER_NAMES) {
        if (isOn && message.kind == kind) {
            all.push_back(
                {{kind, message.stage, static_cast<int32_t>(message.frame), moment.process},
                 moment.time,
                 moment.thread,
                 isBehindStep});
            isBehindStep = false;
        }
    }
}

const SchedCounter* CounterBeside(const SchedTrace& trace, const CountedEvent& event, Micros time,
                                  Micros within) {
    const auto apart = [time](const SchedCounter& one) { return std::abs(one.time - time); };
    const std::span<const SchedCounter> all = trace.CountersOf(event);
    const auto nearest = std::ranges::min_element(all, {}, apart);
    return nearest != all.end() && apart(*nearest) <= within ? &*nearest : nullptr;
}

Tie TieClocks(SchedTrace& trace, std::vector<Knot> clocks, const std::vector<CountedLine>& counted,
              Micros resolution) {
    const Lines lines = counted;
    Tie tie;
    if (trace.counters.empty()) {
        if (clocks.empty()) {
            throw CommandError(
                trace.name +
                ": error: it has none of the library's counters: were the trace tags camera or hal "
                "on, and the\nlibrary's debug switch?");
        }
        TurnIntoLog(trace, clocks);
        NameThreads(trace, tie);
        tie.knots = std::move(clocks);
        return tie;
    }
    if (lines.empty()) {
        throw CommandError(
            trace.name +
            ": error: the log has no times, or has no frame that the service was told of:\n"
            "nothing ties the two together");
    }
    const Tying tying{trace, resolution};
    // All lines together show best which of several recordings of the same frames it is.
    const Fit whole = tying.Best(lines);
    const Micros base = whole.knots.empty() ? 0 : whole.knots.front().ahead;
    std::vector<Knot> knots;
    for (Lines rest = lines, part; !rest.empty(); rest = rest.subspan(part.size())) {
        const auto last = std::ranges::adjacent_find(rest, IsBreak);
        part = {rest.begin(), last == rest.end() ? last : last + 1};
        Fit fit = tying.Match(part, base);
        if (!tying.IsGood(fit)) {
            fit = tying.Best(part);
        }
        if (fit.pairs < tying.fewest) {
            continue;  // Too few lines to show anything.
        }
        const Knot from = knots.empty() ? Knot() : knots.back();
        const Knot to = {part.front().time, fit.knots.front().ahead};
        if (!tying.IsGood(fit) || (!knots.empty() && to.Trace() <= from.Trace())) {
            tie.untied.push_back({part.front().time, part.back().time});
            continue;
        }
        if (!knots.empty() && std::abs(to.ahead - from.ahead) > SILENCE) {
            const Tie::Break apart = {{from.log, to.log}, to.Trace() - from.Trace()};
            tie.breaks.push_back(apart);
            trace.holes.push_back({{from.Trace(), to.Trace()}, SchedTrace::ALL_CPUS});
            // The clocks move apart in the middle between the two lines.
            const Micros near = (std::min(apart.Length(), apart.passed) - 1) / 2;
            AddKnot(knots, {from.log + near, from.ahead});
            AddKnot(knots, {to.log - near, to.ahead});
        }
        AddKnot(knots, to);
        for (const Knot& knot : fit.knots) {
            AddKnot(knots, knot);
        }
        AddKnot(knots, {part.back().time, fit.knots.back().ahead});
    }
    if (knots.empty()) {
        throw CommandError(fmt::format(
            "{}: error: its counters (of process {}) and the log (of process {}) are of different "
            "times:\n"
            "the one ends before the other begins, or they are of two runs or boots",
            trace.name, trace.counters.front().process, lines.front().process));
    }
    TurnIntoLog(trace, knots);
    tie.knots = std::move(knots);
    for (const Span part : tie.untied) {
        trace.holes.push_back({part, SchedTrace::ALL_CPUS});
    }
    std::vector<Micros> apart;
    for (const CountedLine& line : lines) {
        if (const SchedCounter* const counter = CounterBeside(trace, line, line.time)) {
            apart.push_back(std::abs(counter->time - line.time));
            tie.threads.try_emplace(line.thread, counter->thread);
        }
    }
    tie.threads.erase(-1);  // A log may lack them.
    NameThreads(trace, tie);
    tie.counters = std::ssize(apart);
    tie.within = QuantileOf(apart, 0.9, 0);
    return tie;
}

}  // namespace tools
