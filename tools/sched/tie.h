// Ties the clock of a log and that of a scheduler trace together: the library writes most of its
// lines beside a counter, within microseconds.

#pragma once

#include <cstdint>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/log/capture.h"
#include "tools/sched/trace.h"

namespace tools {

// Keeps the lines that have a counter beside them.
class CountedLines : public MessageSink {
  public:
    struct Line {
        Micros time;
        int32_t process, thread, stage, frame;
        MessageKind kind;
    };
    void OnMessage(const Message& message, const Moment& moment) override;
    const std::vector<Line>& All() const { return lines; }

  private:
    std::vector<Line> lines;
};

// Why a trace and a log do not belong together.
class TieError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Tie {
  public:
    // Throws a TieError. `resolution`: of the log's times. The trace has to stay.
    Tie(const std::vector<CountedLines::Line>& lines, const SchedTrace& schedTrace,
        Micros resolution);

    int64_t Counters() const { return fit.counters; }  // How many tie the clocks.
    // Nine of ten of them agree to within this much.
    Micros Within() const { return fit.within; }
    Micros ToTrace(Micros time) const;
    Micros ToLog(Micros time) const;
    // The trace's thread of one that the log tells of; NO_THREAD where not known.
    uint32_t ThreadOf(int32_t tid) const;
    // Whether threads have the same numbers in both.
    bool IsSameNumbering() const { return isSameNumbering; }
    // The counter of an event that was told of at about that time of the trace; null for none.
    const SchedCounter* Find(MessageKind kind, int32_t stage, int32_t frame, Micros time,
                             int32_t process) const;

  private:
    struct Key {
        MessageKind kind;
        int32_t stage, frame, process;
        bool operator==(const Key&) const = default;
    };
    struct Hash {
        size_t operator()(const Key& key) const;
    };
    struct Knot {
        Micros time, ahead;  // The trace's clock is so much ahead of the log's.
    };
    // What a guess of how much the trace's clock is ahead leads to.
    struct Fit {
        std::vector<Knot> knots;
        std::unordered_map<int32_t, uint32_t> threads;
        int64_t counters = 0;
        Micros within = 0;
    };
    Fit Try(const std::vector<CountedLines::Line>& lines, int64_t guess) const;
    // The counters that a line may be beside, as positions.
    const std::vector<uint32_t>& CountersOf(const CountedLines::Line& line) const;
    // Of some counters, which are by time, the one that is nearest.
    uint32_t Nearest(const std::vector<uint32_t>& positions, Micros time) const;
    Fit Match(const std::vector<CountedLines::Line>& lines, Micros base) const;

    const SchedTrace& trace;
    std::unordered_map<Key, std::vector<uint32_t>, Hash> byKey;  // By time.
    Fit fit;
    bool isSameNumbering = true;
};

}  // namespace tools
