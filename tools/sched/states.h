// What threads did when, worked out from a scheduler trace.

#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/account/account.h"
#include "tools/sched/trace.h"

namespace tools {

// A thread in one state.
struct StateSpan : Span {
    ThreadState state = ThreadState::Unknown;
    uint16_t cpu = 0;            // Where it ran, or waited to run;
    uint16_t next = 0;           // of a wait, where it ran then.
    bool isWoken = false;        // Of a sleep: its end is told,
    uint32_t waker = NO_THREAD;  // and by whom; NO_THREAD for an interrupt.
};

// How long each state took.
using Shares = std::array<Micros, THREAD_STATES>;

// The states of threads, each worked out when first asked for. The trace has to stay.
class States {
  public:
    explicit States(const SchedTrace& schedTrace) : trace(schedTrace) {}

    const SchedTrace& Trace() const { return trace; }
    // Those that overlap a span.
    std::span<const StateSpan> Within(uint32_t thread, Span span);
    Shares SharesOf(uint32_t thread, Span span);
    // Who ran on a CPU, and for how long, as far as that is told; longest first. Nobody is not told
    // of.
    std::vector<std::pair<uint32_t, Micros>> RanOn(uint16_t cpu, Span span);

  private:
    const SchedTrace& trace;
    // Of each thread: one after another, from the trace's beginning to its end.
    std::unordered_map<uint32_t, std::vector<StateSpan>> known;
};

}  // namespace tools
