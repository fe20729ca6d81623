// Ties the clock of a log and that of a scheduler trace together: the library writes most of its
// lines beside a counter, within microseconds.

#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <stdexcept>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "tools/account/cause.h"
#include "tools/log/capture.h"
#include "tools/sched/trace.h"

namespace tools {

// Keeps the lines that have a counter beside them, and where the log's clock was set.
class CountedLines : public MessageSink {
  public:
    struct Line {
        Micros time;
        int32_t process, thread, stage, frame;
        MessageKind kind;
    };
    void OnMessage(const Message& message, const Moment& moment) override;
    void OnClockSet(Micros step, const Moment& moment, const Place& place) override;

    const std::vector<Line>& All() const { return lines; }
    // Positions of lines before which the clock was set.
    const std::vector<size_t>& Steps() const { return steps; }

  private:
    std::vector<Line> lines;
    std::vector<size_t> steps;
};

// Why a trace and a log do not belong together.
class TieError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The library's counters in a trace, by the event that they are of. The trace has to stay.
class CounterTable {
  public:
    explicit CounterTable(const SchedTrace& schedTrace);

    // Those of the line's event, by time.
    std::span<const uint32_t> Of(const CountedLines::Line& line) const;
    // The one that is nearest to a time of the trace's clock; null for none.
    const SchedCounter* Nearest(const CountedLines::Line& line, Micros time) const;
    // The one that was written with the line, once the clocks are one; null for none.
    const SchedCounter* Beside(const CountedLines::Line& line) const;

  private:
    const SchedTrace& trace;
    // By kind, stage, frame and process: positions in SchedTrace::counters.
    std::map<std::tuple<MessageKind, int32_t, int32_t, int32_t>, std::vector<uint32_t>> byEvent;
};

// What tying the clocks showed.
struct Tie {
    int64_t counters = 0;  // That many tie them,
    Micros within = 0;     // and nine of ten of these agree to within this much.
    std::unordered_map<int32_t, uint32_t> threads;  // The trace's thread of each of the log's.
    bool isSameNumbering = true;                    // Threads have the same ids in both.
    // Where the log's times and the trace's move apart: its clock was set, or seemed so after a
    // long silence.
    struct Break : Span {   // From the last line before to the first one behind, by the log.
        Micros passed = 0;  // How much time went by as the trace has it,
        std::map<uint32_t, Shares> threads;  // and what the log's threads did then.
    };
    std::vector<Break> breaks;
    std::vector<Span> untied;  // Of the log: parts to which none of the trace's counters fits.
};

// Finds out how far the clocks are apart and turns all times of the trace into the log's. Throws a
// TieError. `resolution`: of the log's times.
Tie TieClocks(SchedTrace& trace, const CounterTable& counters, const CountedLines& counted,
              Micros resolution);

}  // namespace tools
