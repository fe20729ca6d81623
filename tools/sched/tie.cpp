#include "tools/sched/tie.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>

#include "tools/base/statistics.h"
#include "tools/base/text.h"

namespace tools {
namespace {

// Numbers of frames tell which recording it is, so a coarse guess comes first.
constexpr Micros COARSE = SECOND;
// Clocks drift: what ties them is looked at so many lines at a time.
constexpr size_t AT_A_TIME = 64;
// A line and its counter are no further apart, unless a thread is stopped between them.
constexpr Micros TOGETHER = 5 * MILLISECOND;
// What nine of ten keep to. Two recordings of the same frames differ by more: nodes never take the
// same time twice.
constexpr Micros AGREEING = 600;
constexpr int64_t FEWEST = 8;

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

size_t Tie::Hash::operator()(const Key& key) const {
    return std::hash<uint64_t>()(static_cast<uint64_t>(static_cast<uint32_t>(key.frame)) ^
                                 static_cast<uint64_t>(static_cast<uint32_t>(key.process)) << 40U ^
                                 static_cast<uint64_t>(key.kind) << 58U ^
                                 static_cast<uint64_t>(static_cast<uint32_t>(key.stage + 1))
                                     << 32U);
}

Tie::Tie(const std::vector<CountedLines::Line>& lines, const SchedTrace& schedTrace,
         Micros resolution)
    : trace(schedTrace) {
    if (trace.counters.empty()) {
        throw TieError(
            "it has none of the library's counters: were the trace tags camera or hal on, and the\n"
            "library's debug switch?");
    }
    if (lines.empty()) {
        throw TieError(
            "the log has no times, or tells of no frame that the service was told of:\n"
            "nothing ties the two together");
    }
    std::set<int32_t> ofLog, ofTrace;
    for (const CountedLines::Line& line : lines) {
        ofLog.insert(line.process);
    }
    for (uint32_t i = 0; i < trace.counters.size(); ++i) {
        const SchedCounter& counter = trace.counters[i];
        ofTrace.insert(counter.process);
        byKey[{counter.kind, counter.stage, counter.frame, counter.process}].push_back(i);
    }
    if (std::none_of(ofLog.begin(), ofLog.end(),
                     [&](int32_t process) { return ofTrace.contains(process); })) {
        throw TieError(fmt::format(
            "its counters are of process {}, and the log is of process {}: they were not taken of\n"
            "the same run",
            *ofTrace.begin(), *ofLog.begin()));
    }
    std::map<int64_t, int64_t> votes;
    for (const CountedLines::Line& line : lines) {
        for (const uint32_t counter : CountersOf(line)) {
            ++votes[(trace.counters[counter].time - line.time) / COARSE];
        }
    }
    if (votes.empty()) {
        throw TieError(
            "none of its counters is of a frame of the log: the one ends before the other\n"
            "begins, or they are of two runs");
    }
    const auto bothOf = [&votes](int64_t guess) {
        const auto next = votes.find(guess + 1);
        return votes.at(guess) + (next == votes.end() ? 0 : next->second);
    };
    int64_t most = 0;
    for (const auto& [guess, count] : votes) {
        most = std::max(most, bothOf(guess));
    }
    // Scenes of the same frames look alike from afar: of all that it may be, the one that fits
    // best.
    for (const auto& [guess, count] : votes) {
        if (bothOf(guess) * 2 < most) {
            continue;
        }
        Fit other = Try(lines, guess);
        if (other.counters * 2 > fit.counters &&
            (fit.counters == 0 ||
             std::pair(other.within, -other.counters) < std::pair(fit.within, -fit.counters))) {
            fit = std::move(other);
        }
    }
    const auto isInLog = [&](const SchedCounter& counter) {
        return ofLog.contains(counter.process) && counter.time >= ToTrace(lines.front().time) &&
               counter.time <= ToTrace(lines.back().time);
    };
    const auto all = static_cast<int64_t>(trace.counters.size());
    if (fit.counters < std::min(FEWEST, all) ||
        fit.counters * 2 < std::count_if(trace.counters.begin(), trace.counters.end(), isInLog) ||
        fit.within > resolution / 2 + AGREEING) {
        throw TieError(
            fmt::format("its counters and the log tell of different times (another run, or another "
                        "boot): {} of\n"
                        "{} agree, to within {} ms",
                        fit.counters, Counted(all, "counter"),
                        Fixed(static_cast<double>(fit.within) / 1000, 1)));
    }
    isSameNumbering = std::all_of(fit.threads.begin(), fit.threads.end(), [this](const auto& pair) {
        return trace.threads[pair.second].tid == pair.first;
    });
}

const std::vector<uint32_t>& Tie::CountersOf(const CountedLines::Line& line) const {
    static const std::vector<uint32_t> NONE;
    const auto found = byKey.find({line.kind, line.stage, line.frame, line.process});
    return found == byKey.end() ? NONE : found->second;
}

Tie::Fit Tie::Try(const std::vector<CountedLines::Line>& lines, int64_t guess) const {
    std::vector<Micros> aheads;
    for (const CountedLines::Line& line : lines) {
        for (const uint32_t counter : CountersOf(line)) {
            const Micros ahead = trace.counters[counter].time - line.time;
            if (ahead / COARSE == guess || ahead / COARSE == guess + 1) {
                aheads.push_back(ahead);
            }
        }
    }
    return Match(lines, MedianOf(aheads, 0));
}

// Each line with the counter that is nearest, and how far they are apart by stretches.
Tie::Fit Tie::Match(const std::vector<CountedLines::Line>& lines, Micros base) const {
    struct Pair {
        const CountedLines::Line* line;
        const SchedCounter* counter;
        Micros Ahead() const { return counter->time - line->time; }
    };
    Fit found;
    Micros ahead = base;
    std::vector<Pair> pairs;
    std::vector<Micros> apart, values;
    // How often a thread of the log is one of the trace.
    std::map<std::pair<int32_t, uint32_t>, int64_t> counts;
    const auto settle = [&] {
        if (pairs.empty()) {
            return;
        }
        values.clear();
        for (const Pair& pair : pairs) {
            values.push_back(pair.Ahead());
        }
        ahead = MedianOf(values, 0);
        for (const Pair& pair : pairs) {
            if (std::abs(pair.Ahead() - ahead) <= TOGETHER) {
                apart.push_back(std::abs(pair.Ahead() - ahead));
                ++counts[{pair.line->thread, pair.counter->thread}];
            }
        }
        found.knots.push_back({pairs[pairs.size() / 2].line->time, ahead});
        pairs.clear();
    };
    for (const CountedLines::Line& line : lines) {
        const std::vector<uint32_t>& positions = CountersOf(line);
        if (positions.empty()) {
            continue;
        }
        const Pair pair{&line, &trace.counters[Nearest(positions, line.time + ahead)]};
        if (std::abs(pair.Ahead() - base) <= COARSE) {
            pairs.push_back(pair);
        }
        if (pairs.size() == AT_A_TIME) {
            settle();
        }
    }
    settle();
    found.counters = static_cast<int64_t>(apart.size());
    found.within = QuantileOf(apart, 0.9, 0);
    std::unordered_map<int32_t, int64_t> most;
    for (const auto& [pair, count] : counts) {
        const auto& [ofLog, ofTrace] = pair;
        if (ofLog >= 0 && count > most[ofLog]) {  // Below 0 the log does not tell it.
            most[ofLog] = count;
            found.threads[ofLog] = ofTrace;
        }
    }
    return found;
}

Micros Tie::ToTrace(Micros time) const {
    const std::vector<Knot>& knots = fit.knots;
    const auto next = std::partition_point(knots.begin(), knots.end(),
                                           [time](const Knot& knot) { return knot.time < time; });
    if (next == knots.begin() || next == knots.end()) {
        return time + (next == knots.end() ? knots.back() : *next).ahead;
    }
    const Knot& before = *std::prev(next);
    const Micros length = std::max<Micros>(next->time - before.time, 1);
    return time + before.ahead + (next->ahead - before.ahead) * (time - before.time) / length;
}

Micros Tie::ToLog(Micros time) const {
    // The knots' own differences change by far less than what is asked for.
    const Micros guess = time - fit.knots.front().ahead;
    return time - (ToTrace(guess) - guess);
}

uint32_t Tie::ThreadOf(int32_t tid) const {
    const auto found = fit.threads.find(tid);
    return found == fit.threads.end() ? NO_THREAD : found->second;
}

uint32_t Tie::Nearest(const std::vector<uint32_t>& positions, Micros time) const {
    const auto next = std::partition_point(
        positions.begin(), positions.end(),
        [&](uint32_t position) { return trace.counters[position].time < time; });
    if (next == positions.begin() ||
        (next != positions.end() &&
         trace.counters[*next].time - time < time - trace.counters[*std::prev(next)].time)) {
        return *next;
    }
    return *std::prev(next);
}

const SchedCounter* Tie::Find(MessageKind kind, int32_t stage, int32_t frame, Micros time,
                              int32_t process) const {
    const std::vector<uint32_t>& positions = CountersOf({time, process, -1, stage, frame, kind});
    if (positions.empty()) {
        return nullptr;
    }
    const SchedCounter& counter = trace.counters[Nearest(positions, time)];
    return std::abs(counter.time - time) <= 2 * TOGETHER ? &counter : nullptr;
}

}  // namespace tools
