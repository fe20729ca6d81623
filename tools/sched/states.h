// What threads did when, worked out from a scheduler trace.

#pragma once

#include <map>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/account/cause.h"
#include "tools/sched/trace.h"

namespace tools {

// A thread in one state.
struct StateSpan : Span {
    ThreadState state = ThreadState::Unknown;
    Priority priority = USUAL_PRIORITY;
    uint16_t cpu = 0;            // Where the thread ran, or waited to run.
    bool isWoken = false;        // Of a sleep: the trace has the waking that ended it,
    uint32_t waker = NO_THREAD;  // and its thread; NO_THREAD for an interrupt.
};

// The states of a thread, one after another, from the trace's beginning to its end.
std::vector<StateSpan> StatesOf(const SchedTrace& trace, uint32_t thread);

// The states of threads, each worked out when first asked for. The trace has to stay.
class States {
  public:
    explicit States(const SchedTrace& schedTrace) : trace(schedTrace) {}

    const SchedTrace& Trace() const { return trace; }
    // Those that overlap a span.
    std::span<const StateSpan> Within(uint32_t thread, Span span);
    // How long the thread was in each state.
    Shares SharesOf(uint32_t thread, Span span);
    // Threads that ran on a CPU, and for how long. Idle time is left out, and times of which the
    // trace lacks events.
    std::map<uint32_t, Micros> RanOn(uint16_t cpu, Span span);

  private:
    const SchedTrace& trace;
    std::unordered_map<uint32_t, std::vector<StateSpan>> known;
    std::vector<std::vector<std::pair<Span, uint32_t>>> cpus;  // Threads that ran on each, by time.
};

}  // namespace tools
