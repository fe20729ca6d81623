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

// A line that has a counter beside it.
struct CountedLine : CountedEvent {
    Micros time;
    int32_t thread;
    bool isBehindStep;  // The log's clock was set before it.
};

// Keeps such lines.
struct CountedLines : MessageSink {
    void OnMessage(const Message& message, const Moment& moment) override;
    void OnClockSet(Micros /*step*/, const Moment& /*moment*/, const Place& /*place*/) override {
        isBehindStep = true;
    }

    bool isOn = true;  // Else all lines are left alone.
    std::vector<CountedLine> all;
    bool isBehindStep = false;  // The clock was set behind the last line.
};

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
    // How far the trace's clock is ahead of the log's at a time of the log, and from there on.
    std::map<Micros, Micros> ahead;
};

// Finds out how far the clocks are apart and turns all times of the trace into the log's. Throws a
// TieError. `resolution`: of the log's times; `origin`: what its clock showed at time 0. Where no
// counter ties them, a recording's own clocks do.
Tie TieClocks(SchedTrace& trace, const CountedLines& counted, Micros resolution, Micros origin);

// A line and its counter are no further apart, unless a thread is stopped between them.
inline constexpr Micros TOGETHER = 10 * MILLISECOND;

// The counter of an event that is nearest to a time, which is the line's once the clocks are one;
// null where none is near.
const SchedCounter* CounterBeside(const SchedTrace& trace, const CountedEvent& event, Micros time,
                                  Micros within = TOGETHER);

}  // namespace tools
