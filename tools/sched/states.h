// What threads did when, worked out from a scheduler trace.

#pragma once

#include <span>
#include <vector>

#include "tools/account/cause.h"
#include "tools/sched/trace.h"

namespace tools {

inline bool IsAsleep(ThreadState state) {
    return state == ThreadState::Sleeping || state == ThreadState::Blocked;
}

// A thread in one state.
struct StateSpan : Span {
    uint32_t thread = NO_THREAD;
    ThreadState state = ThreadState::Unknown;
    Priority priority = USUAL_PRIORITY;
    uint16_t cpu = 0;            // Where the thread ran, or waited to run.
    bool isWoken = false;        // Of a sleep: the trace has the waking that ended it,
    uint32_t waker = NO_THREAD;  // and its thread; NO_THREAD for an interrupt.
};

using StateSpans = std::vector<StateSpan>;

struct States {
    // Of each thread, one after another from the trace's begin to its end; idle tasks have none.
    std::vector<StateSpans> threads;
    // On each CPU, when threads ran, as positions in `threads`.
    struct Run {
        uint32_t thread, span;
    };
    std::vector<std::vector<Run>> cpus = std::vector<std::vector<Run>>(MOST_CPUS);

    // How long the thread was in each state.
    Shares SharesOf(uint32_t thread, Span span) const;
    // When threads ran on the CPU, as far as it overlaps `span`.
    StateSpans RunsOn(uint32_t cpu, Span span) const;
};

States StatesOf(const SchedTrace& trace);

// Those of the spans, which are in order, that overlap `span`.
std::span<const StateSpan> Within(const StateSpans& spans, Span span);

}  // namespace tools
