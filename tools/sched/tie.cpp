#include "tools/sched/tie.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <map>
#include <set>
#include <span>
#include <utility>

#include "tools/base/statistics.h"
#include "tools/base/text.h"
#include "tools/sched/states.h"

namespace tools {
namespace {

using Line = CountedLines::Line;
using Lines = std::span<const Line>;

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

// The same moment by both clocks.
struct Knot {
    Micros log, trace;
};

// Knots rise by both clocks.
void AddKnot(std::vector<Knot>& knots, Micros log, Micros ahead) {
    if (knots.empty() || (log > knots.back().log && log + ahead > knots.back().trace)) {
        knots.push_back({log, log + ahead});
    }
}

// What a guess of how much the trace's clock is ahead leads to.
struct Fit {
    std::vector<Knot> knots;
    std::vector<Micros> apart;  // Of each pair of a line and a counter that agree.
    // How often a thread of the log is one of the trace.
    std::map<std::pair<int32_t, uint32_t>, int64_t> threads;
    int64_t pairs = 0;  // Lines of frames that the trace has counters of.

    Micros Within() const {
        std::vector<Micros> values = apart;
        return QuantileOf(values, 0.9, 0);
    }
    int64_t Agreeing() const { return std::ssize(apart); }
};

struct Tying {
    const SchedTrace& trace;
    const CounterTable& counters;
    const Micros resolution;

    // Each line with the counter that is nearest, and how far they are apart by stretches.
    Fit Match(Lines lines, Micros base) const {
        struct Pair {
            const Line* line;
            const SchedCounter* counter;
            Micros Ahead() const { return counter->time - line->time; }
        };
        Fit fit;
        Micros ahead = base;
        std::vector<Pair> pairs;
        std::vector<Micros> values;
        const auto settle = [&] {
            values.clear();
            for (const Pair& pair : pairs) {
                values.push_back(pair.Ahead());
            }
            ahead = MedianOf(values, ahead);
            const size_t before = fit.apart.size();
            for (const Pair& pair : pairs) {
                if (std::abs(pair.Ahead() - ahead) <= TOGETHER) {
                    fit.apart.push_back(std::abs(pair.Ahead() - ahead));
                    ++fit.threads[{pair.line->thread, pair.counter->thread}];
                }
            }
            if (fit.apart.size() > before) {
                // What holds in the middle of the first stretch holds at its beginning, too.
                AddKnot(fit.knots,
                        fit.knots.empty() ? lines.front().time : pairs[pairs.size() / 2].line->time,
                        ahead);
            }
            pairs.clear();
        };
        for (const Line& line : lines) {
            const SchedCounter* const counter = counters.Nearest(line, line.time + ahead);
            if (counter == nullptr) {
                continue;
            }
            ++fit.pairs;
            if (std::abs(counter->time - line.time - base) <= COARSE) {
                pairs.push_back({&line, counter});
            }
            if (pairs.size() == AT_A_TIME) {
                settle();
            }
        }
        settle();
        if (!fit.knots.empty()) {
            AddKnot(fit.knots, lines.back().time, fit.knots.back().trace - fit.knots.back().log);
        }
        return fit;
    }

    Fit Best(Lines lines) const {
        // By the second. Guesses overlap, as the true one may be where two seconds meet.
        std::map<int64_t, std::vector<Micros>> guesses;
        size_t most = 0;
        for (const Line& line : lines) {
            for (const uint32_t counter : counters.Of(line)) {
                const Micros ahead = trace.counters[counter].time - line.time;
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
        const auto all = std::ssize(trace.counters);
        return fit.Agreeing() >= std::min<int64_t>(FEWEST, all) &&
               fit.Agreeing() * 2 >= fit.pairs && fit.Within() <= resolution / 2 + AGREEING;
    }
};

// A time of the trace by the log's clock. The knots rise by both clocks.
Micros ToLog(const std::vector<Knot>& knots, Micros time) {
    const auto next = std::partition_point(knots.begin(), knots.end(),
                                           [time](const Knot& knot) { return knot.trace < time; });
    if (next == knots.begin() || next == knots.end()) {
        const Knot& nearest = next == knots.end() ? knots.back() : *next;
        return time - nearest.trace + nearest.log;
    }
    const Knot& before = *std::prev(next);
    return before.log +
           (next->log - before.log) * (time - before.trace) / (next->trace - before.trace);
}

void TurnIntoLog(SchedTrace& trace, const std::vector<Knot>& knots) {
    for (SchedEvent& event : trace.events) {
        event.time = ToLog(knots, event.time);
    }
    for (SchedCounter& counter : trace.counters) {
        counter.time = ToLog(knots, counter.time);
    }
    for (SchedTrace::Hole& hole : trace.holes) {
        hole.begin = ToLog(knots, hole.begin);
        hole.end = ToLog(knots, hole.end);
    }
    trace.from = ToLog(knots, trace.from);
    trace.to = ToLog(knots, trace.to);
}

// Where the clock was set, or nothing was logged for long, the clocks may have moved apart: from
// one such place to the next the lines are one part.
std::vector<Lines> PartsOf(const CountedLines& counted) {
    const Lines lines = counted.All();
    std::vector<Lines> parts;
    size_t first = 0;
    for (size_t i = 1; i <= lines.size(); ++i) {
        if (i == lines.size() || std::abs(lines[i].time - lines[i - 1].time) > SILENCE ||
            std::binary_search(counted.Steps().begin(), counted.Steps().end(), i)) {
            parts.push_back(lines.subspan(first, i - first));
            first = i;
        }
    }
    return parts;
}

void RequireSameProcess(const SchedTrace& trace, Lines lines) {
    std::set<int32_t> processes;
    for (const SchedCounter& counter : trace.counters) {
        processes.insert(counter.process);
    }
    if (std::none_of(lines.begin(), lines.end(),
                     [&](const Line& line) { return processes.contains(line.process); })) {
        throw TieError(fmt::format(
            "its counters are of process {}, and the log is of process {}: they were not taken of\n"
            "the same run",
            *processes.begin(), lines.front().process));
    }
}

// Finds the trace's thread of each of the log's. Where processes have the same ids in both, threads
// have, too; a trace from outside of a container has other ids of both.
void FindThreads(const SchedTrace& trace, const Fit& fit, Tie& tie) {
    std::map<int32_t, int64_t> most;
    for (const auto& [pair, count] : fit.threads) {
        const auto& [ofLog, ofTrace] = pair;
        if (ofLog >= 0 && count > most[ofLog]) {  // Below 0 the log does not have it.
            most[ofLog] = count;
            tie.threads[ofLog] = ofTrace;
        }
    }
    const auto isSame = [&trace](const auto& pair) {
        return trace.threads[pair.second].tid == pair.first;
    };
    tie.isSameNumbering = std::all_of(tie.threads.begin(), tie.threads.end(), isSame);
    const bool isSameProcess =
        std::any_of(trace.counters.begin(), trace.counters.end(),
                    [](const SchedCounter& one) { return one.group == one.process; }) ||
        std::any_of(tie.threads.begin(), tie.threads.end(), isSame);
    for (const auto& [thread, count] : most) {
        if (isSameProcess && trace.threads[tie.threads[thread]].tid != thread) {
            throw TieError(fmt::format(
                "its counters and the log are of the same process, but the log's lines of thread "
                "{} are\nthread {}'s in the trace: it is of another recording",
                thread, trace.threads[tie.threads[thread]].tid));
        }
    }
}

}  // namespace

void CountedLines::OnMessage(const Message& message, const Moment& moment) {
    switch (message.kind) {
        case MessageKind::FrameStart:
        case MessageKind::FrameEnd:
        case MessageKind::StageStart:
        case MessageKind::StageEnd:
            lines.push_back({moment.time, moment.process, moment.thread, message.stage,
                             static_cast<int32_t>(message.frame), message.kind});
            return;
        default:
            return;
    }
}

void CountedLines::OnClockSet(Micros /*step*/, const Moment& /*moment*/, const Place& /*place*/) {
    steps.push_back(lines.size());
}

CounterTable::CounterTable(const SchedTrace& schedTrace) : trace(schedTrace) {
    for (uint32_t i = 0; i < trace.counters.size(); ++i) {
        const SchedCounter& counter = trace.counters[i];
        byEvent[{counter.kind, counter.stage, counter.frame, counter.process}].push_back(i);
    }
}

std::span<const uint32_t> CounterTable::Of(const Line& line) const {
    const auto found = byEvent.find({line.kind, line.stage, line.frame, line.process});
    return found == byEvent.end() ? std::span<const uint32_t>() : found->second;
}

const SchedCounter* CounterTable::Nearest(const Line& line, Micros time) const {
    const std::span<const uint32_t> positions = Of(line);
    const auto nearest =
        std::min_element(positions.begin(), positions.end(), [&](uint32_t one, uint32_t other) {
            return std::abs(trace.counters[one].time - time) <
                   std::abs(trace.counters[other].time - time);
        });
    return nearest == positions.end() ? nullptr : &trace.counters[*nearest];
}

const SchedCounter* CounterTable::Beside(const Line& line) const {
    const SchedCounter* const counter = Nearest(line, line.time);
    const bool isNear = counter != nullptr && std::abs(counter->time - line.time) <= 2 * TOGETHER;
    return isNear ? counter : nullptr;
}

Tie TieClocks(SchedTrace& trace, const CounterTable& counters, const CountedLines& counted,
              Micros resolution) {
    const Lines lines = counted.All();
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
    RequireSameProcess(trace, lines);
    const Tying tying{trace, counters, resolution};
    const Fit whole = tying.Best(lines);
    if (whole.pairs == 0) {
        throw TieError(
            "none of its counters is of a frame of the log: the one ends before the other\n"
            "begins, or they are of two runs");
    }
    const Micros base = whole.knots.empty() ? 0 : whole.knots[0].trace - whole.knots[0].log;
    Tie tie;
    Fit all;
    States states(trace);  // By the trace's clock.
    for (const Lines& part : PartsOf(counted)) {
        Fit fit = tying.Match(part, base);
        if (!tying.IsGood(fit)) {
            fit = tying.Best(part);
        }
        if (fit.pairs < std::min<int64_t>(FEWEST, std::ssize(trace.counters))) {
            continue;  // Too few to show anything; no such part has a knot of its own.
        }
        const bool isBehind =
            all.knots.empty() || fit.knots.empty() || fit.knots[0].trace > all.knots.back().trace;
        if (!tying.IsGood(fit) || !isBehind) {
            tie.untied.push_back({part.front().time, part.back().time});
            continue;
        }
        if (!all.knots.empty()) {
            const Knot from = all.knots.back(), to = fit.knots.front();
            const Micros passed = to.trace - from.trace;
            // The clocks move apart in the middle between the two lines.
            const Micros near = std::max<Micros>(std::min(passed, to.log - from.log) / 2 - 1, 0);
            AddKnot(all.knots, from.log + near, from.trace - from.log);
            AddKnot(all.knots, to.log - near, to.trace - to.log);
            if (std::abs(passed - (to.log - from.log)) > SILENCE) {
                tie.breaks.push_back({{from.log, to.log}, passed, {}});
                for (const auto& [pair, count] : whole.threads) {
                    const Shares shares = states.SharesOf(pair.second, {from.trace, to.trace});
                    tie.breaks.back().threads[pair.second] = shares;
                }
            }
        }
        for (const Knot& knot : fit.knots) {
            AddKnot(all.knots, knot.log, knot.trace - knot.log);
        }
        all.apart.insert(all.apart.end(), fit.apart.begin(), fit.apart.end());
        for (const auto& [pair, count] : fit.threads) {
            all.threads[pair] += count;
        }
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
    TurnIntoLog(trace, all.knots);
    std::vector<Span> unknown = tie.untied;
    unknown.insert(unknown.end(), tie.breaks.begin(), tie.breaks.end());
    for (const Span part : unknown) {
        for (size_t cpu = 0; cpu < trace.switches.size(); ++cpu) {
            trace.holes.push_back({part.begin, part.end, static_cast<uint16_t>(cpu)});
        }
    }
    std::stable_sort(trace.holes.begin(), trace.holes.end(),
                     [](const auto& one, const auto& other) { return one.end < other.end; });
    return tie;
}

}  // namespace tools
