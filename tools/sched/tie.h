// Ties the clock of a log and that of a scheduler trace together: the library writes most of its
// lines beside a counter, within microseconds.

#pragma once

#include <cstdint>
#include <map>
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

// Keeps such lines.
struct CountedLines : MessageSink {
    void OnMessage(const Message& message, const Moment& moment) override;
    void OnClockSet(Micros /*step*/, const Moment& /*moment*/, const Place& /*place*/) override {
        isBehindStep = true;
    }

    bool isOn = true;  // Else such lines are not kept.
    std::vector<CountedLine> all;
    bool isBehindStep = false;  // The clock was set behind the last line.
};

// What tying the clocks showed.
struct Tie {
    int64_t counters = 0;  // How many counters tie them,
    Micros within = 0;     // and within how much nine of ten of these agree.
    // The trace's thread of each thread of the log, by the counters that it wrote; of any thread
    // of the trace, where log and trace number threads alike.
    std::map<int32_t, uint32_t> threads;
    // Where the log's times and the trace's move apart: its clock was set, or seemed so after a
    // long silence.
    struct Break : Span {  // From the last line before to the first one behind, by the log.
        Micros passed;     // By the trace's clock.
    };
    std::vector<Break> breaks;
    std::vector<Span> untied;  // Parts of the log to which none of the trace's counters fits.
    std::vector<Knot> knots;   // With these ToTrace turns times of the log back into the trace's.
};

// Finds out how far the clocks are apart and turns all times of the trace into the log's. Throws a
// CommandError where they do not belong together. `clocks`: how far a recording's own clocks are
// apart, which counts where there are no counters; empty where that is not known. `resolution`: of
// the log's times.
Tie TieClocks(SchedTrace& trace, std::vector<Knot> clocks, const std::vector<CountedLine>& counted,
              Micros resolution);

// A line and its counter are no further apart, unless a thread is stopped between them.
inline constexpr Micros TOGETHER = 10 * MILLISECOND;

// The counter of an event that is nearest to a time, which is the line's once the clocks are one;
// null where none is near.
const SchedCounter* CounterBeside(const SchedTrace& trace, const CountedEvent& event, Micros time,
                                  Micros within = TOGETHER);

}  // namespace tools
