// Reads the kernel's scheduler traces: which thread ran on which CPU when, which thread woke which,
// and the library's counters among that. The text is ftrace's, as a kernel, atrace, systrace (in
// HTML) and Perfetto's converter write it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tools/account/cause.h"
#include "tools/base/times.h"
#include "tools/log/capture.h"

namespace tools {

inline constexpr uint32_t NO_THREAD = std::numeric_limits<uint32_t>::max();

// As the kernel counts: below 100 of real time, the lower the sooner; from 100 on of nice values.
using Priority = int16_t;
inline constexpr Priority USUAL_PRIORITY = 120;  // Nice 0.
inline constexpr Priority REAL_TIME = 100;       // Priorities below are.

struct SchedEvent {
    enum class Kind : uint8_t {
        Switch,
        Waking,  // A thread is being woken,
        Wakeup,  // and this is the CPU where it is to run.
        New,     // The thread begins.
    };
    Micros time;             // By the trace's clock, until TieClocks has turned it into the log's.
    uint32_t thread;         // The thread that leaves the CPU, or is woken.
    uint32_t other;          // The thread that comes, or wakes it; NO_THREAD for an interrupt.
    Priority priority;       // Of `thread`,
    Priority otherPriority;  // and of a thread that comes.
    uint16_t cpu;            // Where it happened; of a wakeup, where the thread is to run.
    Kind kind;
    ThreadState left;  // Of a switch: the state of `thread` from there on.
};

// A counter of the library that rose to a frame's number.
struct SchedCounter {
    Micros time;
    uint32_t thread;
    int32_t group;    // The process's id in the trace; -1 where that is not known.
    int32_t process;  // As the process itself knows its id.
    int32_t stage;    // -1 where it is of a frame.
    int32_t frame;
    MessageKind kind;  // FrameStart, FrameEnd, StageStart, StageEnd.
};

struct SchedThread {
    int32_t tid = 0;
    std::string name;  // The last one that it had.
    // Its events, as positions in SchedTrace::events.
    std::vector<uint32_t> events;
};

struct SchedTrace {
    std::vector<SchedThread> threads;  // Number 0 of each CPU is one: the idle task.
    std::vector<SchedEvent> events;    // By time.
    std::vector<SchedCounter> counters;
    std::vector<std::vector<uint32_t>> switches;  // Of each CPU, as positions in `events`.
    struct Hole {
        Micros begin, end;
        uint16_t cpu;
    };
    std::vector<Hole> holes;  // Where events were lost: between the CPU's last one and its next.
    int64_t traceLines = 0;   // Those that are a trace's.
    int64_t lost = 0;         // Events that the tracer says it lost.
    int64_t disordered = 0;   // Events whose time is before that of the line above.
    Micros from = NO_TIME, to = NO_TIME;
    bool hasFlags = false;  // It has marks of interrupts.
    std::string damage;     // Why the file could not be read to its end.
};

// Whether a file that begins like that is a trace.
bool IsTrace(std::string_view beginning);

// Takes a trace. Lines that are none of a trace's are left alone, so that HTML needs nothing else.
class TraceReader : public TextSink {
  public:
    void Read(std::string_view bytes) override;
    void End() override;
    bool TakeDamage(const char* reason) override;
    // What was read, given away. To be called once, last.
    SchedTrace Finish();

  private:
    struct Line;
    struct Cpu {
        Micros last = NO_TIME;
        bool hasLost = false;
    };

    void TakeLine(std::string_view text);
    void TakeSwitch(const Line& line);
    void TakeWakeup(const Line& line);
    void TakeMark(const Line& line);
    void TakeLost(std::string_view text);
    void TakeComment(std::string_view text);
    Cpu& CpuOf(uint32_t cpu);
    void NoteCpu(uint32_t cpu, Micros time);
    uint32_t ThreadOf(int32_t tid, std::string_view name, uint32_t cpu);
    void Add(const SchedEvent& event);
    friend bool IsTrace(std::string_view beginning);

    SchedTrace trace;
    std::string unfinished;                         // A line that is not whole yet.
    std::unordered_map<int64_t, uint32_t> threads;  // By id; the idle tasks by -1 - CPU.
    std::vector<Cpu> cpus;
};

}  // namespace tools
