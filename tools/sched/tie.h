// Ties the clock of a log and that of a scheduler trace together: the library writes most of its
// lines beside a counter, within microseconds.

#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <vector>

#include "tools/account/cause.h"
#include "tools/log/capture.h"
#include "tools/sched/trace.h"

namespace tools {

// A moment of the log, and how far the trace's clock is ahead then.
struct Knot {
    Micros log, ahead;
    Micros Trace() const { return log + ahead; }
};

// A time of the log by the trace's clock; the same where there are no knots.
Micros ToTrace(const std::vector<Knot>& knots, Micros time);

// A line that has a counter beside it.
struct CountedLine : CountedEvent {
    Micros time;
    int32_t thread;
    bool isBehindStep;  // The log's clock was set before it.
};

// Keeps such lines, and what a recording's own clocks say.
struct CountedLines : MessageSink {
    void OnMessage(const Message& message, const Moment& moment) override;
    void OnClockSet(Micros /*step*/, const Moment& /*moment*/, const Place& /*place*/) override {
        isBehindStep = true;
    }

    bool isOn = true;  // Else such lines are left alone.
    std::vector<CountedLine> all;
    // From when to when the clocks were so far apart. `ahead` is NO_TIME where nobody knows.
    std::vector<Knot> clocks;
    bool isBehindStep = false;  // The clock was set behind the last line.
};

// How far a recording's clocks are apart by their snapshots. Where that is not known there are
// holes in its trace from then on. Empty for other captures.
std::vector<Knot> KnotsOf(const CountedLines& counted, SchedTrace& trace);

// Why a trace and a log do not belong together.
class TieError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// What tying the clocks showed.
struct Tie {
    int64_t counters = 0;  // That many tie them,
    Micros within = 0;     // and nine of ten of these agree to within this much.
    // The trace's thread of each of the log's, by the counters that it wrote; where both number
    // threads alike, of any thread of the trace.
    std::map<int32_t, uint32_t> threads;
    // Where the log's times and the trace's move apart: its clock was set, or seemed so after a
    // long silence.
    struct Break : Span {  // From the last line before to the first one behind, by the log.
        Micros passed;     // By the trace's clock.
    };
    std::vector<Break> breaks;
    std::vector<Span> untied;  // Of the log: parts to which none of the trace's counters fits.
    std::vector<Knot> knots;   // By which ToTrace turns back what was turned.
};

// Finds out how far the clocks are apart and turns all times of the trace into the log's. Throws a
// TieError. `resolution`: of the log's times. Where there are no counters, a recording's own clocks
// tie them.
Tie TieClocks(SchedTrace& trace, const CountedLines& counted, Micros resolution);

// A line and its counter are no further apart, unless a thread is stopped between them.
inline constexpr Micros TOGETHER = 10 * MILLISECOND;

// The counter of an event that is nearest to a time, which is the line's once the clocks are one;
// null where none is near.
const SchedCounter* CounterBeside(const SchedTrace& trace, const CountedEvent& event, Micros time,
                                  Micros within = TOGETHER);

}  // namespace tools
