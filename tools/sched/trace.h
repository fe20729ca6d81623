// What a scheduler trace holds: which thread ran on which CPU when, which thread woke which, and
// the library's counters among that. Readers of a trace's forms fill it; nothing behind them knows
// which form it was.

#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/account/cause.h"
#include "tools/base/times.h"
#include "tools/log/capture.h"
#include "tools/log/message.h"

namespace tools {

inline constexpr uint32_t NO_THREAD = std::numeric_limits<uint32_t>::max();
// Stands for the thread that has the CPU: the event does not say which it is.
inline constexpr uint32_t WHO_HAS_THE_CPU = NO_THREAD - 1;

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
    uint32_t thread;         // The thread that leaves the CPU or is woken; may be WHO_HAS_THE_CPU.
    uint32_t other;          // The thread that comes, or wakes it; NO_THREAD for an interrupt,
                             // WHO_HAS_THE_CPU for the thread that has the CPU.
    Priority priority;       // Of `thread`,
    Priority otherPriority;  // and of a thread that comes; of a waking, the CPU it comes from.
    uint16_t cpu;            // Where it happened; of a wakeup, where the thread is to run.
    Kind kind;
    ThreadState left;  // Of a switch: the state of `thread` from there on.
};

// An event of a frame, or of a stage, that the library both logs and shows as a counter.
struct CountedEvent {
    MessageKind kind;  // FrameStart, FrameEnd, StageStart, StageEnd.
    int32_t stage;     // -1 where it is of a frame.
    int32_t frame;
    int32_t process;  // As the process itself knows its id.

    auto operator<=>(const CountedEvent&) const = default;  // NOLINT(modernize-use-nullptr): its 0.
};

// The counters' names, behind "TcfbtNotify". Those of stages have the stage's number behind that.
inline constexpr std::pair<MessageKind, std::string_view> COUNTER_NAMES[] = {
    {MessageKind::FrameStart, "FrameStart"},
    {MessageKind::FrameEnd, "FrameEnd"},
    {MessageKind::StageStart, "StageStart"},
    {MessageKind::StageEnd, "StageEnd"}};

// A counter of the library that rose to a frame's number.
struct SchedCounter : CountedEvent {
    Micros time;
    uint32_t thread;
};

struct SchedThread {
    int32_t tid = 0;
    std::string name;  // The last one that it had.
};

struct SchedTrace {
    std::string name{};                  // What messages call its file.
    std::vector<SchedThread> threads;    // Number 0 of each CPU is one: the idle task.
    std::vector<SchedEvent> events;      // By time.
    std::vector<SchedCounter> counters;  // By event, those of one by time.
    static constexpr uint16_t ALL_CPUS = UINT16_MAX;
    struct Hole : Span {
        uint16_t cpu;
    };
    std::vector<Hole> holes;  // Where events were lost: between the CPU's last one and its next.
    int64_t lost = 0;         // Events that the tracer says it lost.
    Micros from = NO_TIME, to = NO_TIME;
    bool hasFlags = false;  // Wakings have flags that show interrupts.
    std::string damage;     // Why the file could not be read to its end.

    // The event's counters, by time.
    std::span<const SchedCounter> CountersOf(const CountedEvent& event) const;
};

inline constexpr uint32_t MOST_CPUS = 4096;

// An event's name of a thread that the tracer does not know.
inline constexpr std::string_view NO_NAME = "<...>";

// Puts a trace together, for readers of all forms. CPUs are below MOST_CPUS, and times the trace's.
class SchedTraceMaker {
  public:
    struct Task {
        std::string_view name;
        int32_t tid = 0;
        Priority priority = USUAL_PRIORITY;
    };

    // The thread of a task. Each CPU has an idle task of its own, of id 0.
    uint32_t ThreadOf(const Task& task, uint32_t cpu);
    // The trace has an event of the CPU at this time.
    void OnTime(uint32_t cpu, Micros time);
    // Between the last such time of the CPU and the next, so many events are lost.
    void OnLost(uint32_t cpu, int64_t count);
    // `left` gives the CPU to `comes`, and is in `state` from there on.
    void OnSwitch(Micros time, uint32_t cpu, const Task& left, ThreadState state,
                  const Task& comes);
    // The same where the event does not say which thread leaves the CPU.
    void OnSwitchTo(Micros time, uint32_t cpu, ThreadState state, const Task& comes);
    // `woken` is to run on `cpu`. `waker`: NO_THREAD for an interrupt, WHO_HAS_THE_CPU for the
    // thread that has `wakerCpu`.
    void OnWaking(SchedEvent::Kind kind, Micros time, uint32_t cpu, const Task& woken,
                  uint32_t waker, uint32_t wakerCpu = 0);
    // `writer` has put a mark into the trace, which may be a counter.
    void OnMark(Micros time, uint32_t cpu, const Task& writer, std::string_view text);
    // What was read, given away. To be called once, last.
    SchedTrace Finish();

    SchedTrace trace;       // Readers set the members themselves that no function here sets.
    bool isInOrder = true;  // Events are passed by time; else an id stays with its first thread.
    std::map<int32_t, std::string> names;  // Of threads by id, where their events have NO_NAME.

  private:
    struct Cpu {
        Micros first = NO_TIME, last = NO_TIME;
        bool hasLost = false;
    };
    std::unordered_map<int64_t, uint32_t> threads;  // By id; the idle tasks by -1 - CPU.
    std::vector<Cpu> cpus = std::vector<Cpu>(MOST_CPUS);
};

// Reads the scheduler's events from the packets of a recording.
class SchedRecording {
  public:
    explicit SchedRecording(SchedTraceMaker& traceMaker) : maker(traceMaker) {}
    void TakePacket(std::string_view packet);

  private:
    struct Bundle;

    void TakeBundle(std::string_view bytes);
    void TakeEvent(std::string_view bytes, Bundle& bundle);
    void TakeCompact(std::string_view bytes, Bundle& bundle);
    void TakeNames(std::string_view tree);
    ThreadState StateOf(uint64_t bits) const;

    SchedTraceMaker& maker;
    bool isOldKernel = false;
    uint64_t rawAhead = 0;  // How far the boot clock is ahead of the raw monotonic one.
};

// Reads recordings of Perfetto, and the text of the kernel's tracer, ftrace, as a kernel, atrace,
// systrace (in HTML) and Perfetto's converter write it. Lines that are none of a trace's are
// skipped, so that HTML needs nothing else.
class SchedReader : public TextSink {
  public:
    void Read(std::string_view bytes) override;
    void End() override;
    bool TakeDamage(const char* reason) override;
    // A packet of a recording that another reader reads.
    void TakePacket(std::string_view packet) { recording.TakePacket(packet); }
    // What was read, given away. To be called once, last.
    SchedTrace Finish();

  private:
    SchedTraceMaker maker;
    SchedRecording recording{maker};
    PacketReader packets{[this](std::string_view packet) { TakePacket(packet); }};
    std::string unfinished;  // A line that is not whole yet.
    std::string damage;
};

}  // namespace tools
