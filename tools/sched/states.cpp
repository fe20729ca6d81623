#include "tools/sched/states.h"

#include <algorithm>
#include <utility>

namespace tools {
namespace {

// Follows all threads through the events. Kernels leave some events out: the traces that are named
// here are in tests/data/sched, and show such a case each.
class Tracker {
  public:
    explicit Tracker(const SchedTrace& schedTrace)
        : trace(schedTrace), holes(trace.holes), threads(trace.threads.size()) {
        std::ranges::sort(holes, {}, &SchedTrace::Hole::end);
        states.threads.resize(threads.size());
        for (uint32_t i = 0; i < threads.size(); ++i) {
            threads[i].now.begin = trace.from;
            threads[i].now.thread = i;
        }
    }

    States Follow() {
        auto hole = holes.begin();
        for (SchedEvent event : trace.events) {
            for (; hole != holes.end() && hole->end <= event.time; ++hole) {
                if (hole->cpu != SchedTrace::ALL_CPUS) {
                    cpus[hole->cpu].owner = cpus[hole->cpu].woken = {};
                }
            }
            FindOwner(event);
            if (event.kind == SchedEvent::Kind::Switch) {
                OnSwitch(event);
            } else {
                OnWaking(event, threads[event.thread]);
                threads[event.thread].isFirst = false;
            }
        }
        for (Thread& thread : threads) {
            thread.now.end = trace.to;
            Push(thread.now);
        }
        return std::move(states);
    }

  private:
    struct Thread {
        StateSpan now;
        bool isFirst = true;        // No event came before.
        bool hasCpu = false;        // Of a wait: its CPU is the one where the thread is to run.
        bool isWokenEarly = false;  // It was woken while it still had the CPU.
    };
    struct Owner {
        uint32_t thread = NO_THREAD;
        Priority priority = USUAL_PRIORITY;
    };
    struct Cpu {
        uint32_t thread = NO_THREAD;  // That came last; NO_THREAD before the first switch.
        Micros since = NO_TIME;
        Owner owner;  // The thread that has the CPU; none where events were lost since it came.
        Owner woken;  // The first thread that was woken since then to run there.
    };

    // Gives the event the thread that had the CPU, where it says WHO_HAS_THE_CPU.
    void FindOwner(SchedEvent& event) {
        Cpu& cpu = cpus[event.cpu];
        const bool isSwitch = event.kind == SchedEvent::Kind::Switch;
        if (isSwitch && event.thread == WHO_HAS_THE_CPU) {
            // An idle task could always go on, and leaves only for another thread. Where the event
            // says otherwise, the kernel left out that a thread came before.
            const uint32_t idle = cpu.owner.thread;
            if (idle != NO_THREAD && trace.threads[idle].tid == 0 &&
                (event.left != ThreadState::Runnable || event.other == idle)) {
                cpu.owner = cpu.woken;
            }
            event.thread = cpu.owner.thread;
            event.priority = cpu.owner.priority;
        }
        if (!isSwitch && event.other == WHO_HAS_THE_CPU) {
            const Owner& waker = cpus[static_cast<size_t>(event.otherPriority)].owner;
            event.other = waker.thread == NO_THREAD ? WHO_HAS_THE_CPU : waker.thread;
        }
        if (cpu.woken.thread == NO_THREAD && !isSwitch && event.kind != SchedEvent::Kind::Waking) {
            cpu.woken = {event.thread, event.priority};
        }
    }

    void OnSwitch(const SchedEvent& event) {
        Cpu& cpu = cpus[event.cpu];
        // Another thread leaves the CPU that this one had, so this one had left before, and the
        // kernel left that out: `none` at 29138.196436, thread 70.
        if (cpu.thread != NO_THREAD && cpu.thread != event.thread &&
            IsOn(threads[cpu.thread], event.cpu)) {
            threads[cpu.thread].now.state = ThreadState::Unknown;
        }
        if (event.thread != event.other) {
            if (event.thread != NO_THREAD) {
                OnSwitchOut(threads[event.thread], event, cpu);
            }
            OnSwitchIn(threads[event.other], event);
        }
        cpu = {event.other, event.time, {event.other, event.otherPriority}, {}};
    }

    void OnSwitchOut(Thread& thread, const SchedEvent& event, const Cpu& cpu) {
        if (!IsOn(thread, event.cpu)) {
            AddComing(thread, event, cpu);
        }
        Open(thread, event.time, event.left, event.cpu, event.priority);
        thread.hasCpu = true;
        thread.isFirst = false;
    }

    static bool IsOn(const Thread& thread, uint16_t cpu) {
        return thread.now.state == ThreadState::Running && thread.now.cpu == cpu;
    }

    void OnSwitchIn(Thread& thread, const SchedEvent& event) {
        StateSpan& now = thread.now;
        TakeEarlyWaking(thread);
        // The kernel left out that it left: `none` at 29138.199901, thread 70.
        now.state = now.state == ThreadState::Running ? ThreadState::Unknown : now.state;
        now.cpu = now.state == ThreadState::Runnable && !thread.hasCpu ? event.cpu : now.cpu;
        Open(thread, event.time, ThreadState::Running, event.cpu, event.otherPriority);
        thread.isWokenEarly = false;
        thread.isFirst = false;
    }

    void OnWaking(const SchedEvent& event, Thread& thread) {
        const bool isWakeup = event.kind == SchedEvent::Kind::Wakeup;
        const bool isNew = event.kind == SchedEvent::Kind::New;
        StateSpan& now = thread.now;
        if (isNew) {
            now.state = ThreadState::Gone;
        }
        if (now.state == ThreadState::Running) {
            // With a wakeup it was woken before it left the CPU and went on: `none` at
            // 29138.200141, thread 70.
            thread.isWokenEarly = !isWakeup;
            return;
        }
        if (isWakeup) {
            TakeEarlyWaking(thread);
        }
        if (now.state != ThreadState::Runnable) {
            if (thread.isFirst && !isNew) {
                now.state = ThreadState::Sleeping;
            }
            now.isWoken = event.other != WHO_HAS_THE_CPU;
            now.waker = event.other;
            Open(thread, event.time, ThreadState::Runnable, event.cpu, event.priority);
            thread.hasCpu = isWakeup || isNew;
            thread.isWokenEarly = false;
        } else if (isWakeup) {
            now.cpu = event.cpu;
            thread.hasCpu = true;
        }
    }

    // A waking that the kernel noted just before the thread's leaving ended that sleep before it
    // began, unless another waking comes: `lock` at 29668.894991, thread 20603.
    static void TakeEarlyWaking(Thread& thread) {
        if (thread.isWokenEarly && IsAsleep(thread.now.state)) {
            thread.now.state = ThreadState::Runnable;
            thread.hasCpu = false;
            thread.isWokenEarly = false;
        }
    }

    // For a thread that leaves a CPU and did not come to it: `none` lacks that wherever the CPU was
    // idle before, as at 29136.699863; `pinned` lacks some others, as at 29811.640101.
    void AddComing(Thread& thread, const SchedEvent& event, const Cpu& cpu) {
        StateSpan& now = thread.now;
        TakeEarlyWaking(thread);
        if (cpu.thread == NO_THREAD) {  // The trace may begin while it runs.
            now.state = thread.isFirst ? ThreadState::Running : ThreadState::Unknown;
            now.cpu = event.cpu;
            now.priority = event.priority;
        } else if (now.state == ThreadState::Runnable) {
            // It waited until the thread before it came to the CPU at least; an idle CPU it had
            // at once.
            const bool wasIdle = trace.threads[cpu.thread].tid == 0;
            now.cpu = thread.hasCpu ? now.cpu : event.cpu;
            Open(thread, std::max(now.begin, cpu.since),
                 wasIdle ? ThreadState::Running : ThreadState::Unknown, event.cpu, event.priority);
        } else {
            now.state = ThreadState::Unknown;
        }
    }

    void Open(Thread& thread, Micros time, ThreadState state, uint16_t cpu, Priority priority) {
        thread.now.end = time;
        Push(thread.now);
        thread.now = {{time, time}, thread.now.thread, state, priority, cpu};
    }

    // Where events were lost that may have changed it, the state is not known from there on.
    void Push(StateSpan span) {
        auto hole = std::ranges::upper_bound(holes, span.begin, {}, &SchedTrace::Hole::end);
        for (; hole != holes.end() && hole->begin < span.end; ++hole) {
            if (span.state != ThreadState::Running || hole->cpu == span.cpu ||
                hole->cpu == SchedTrace::ALL_CPUS) {
                StateSpan known = span;
                known.end = std::max(hole->begin, span.begin);
                known.isWoken = false;
                Keep(known);
                span = {{known.end, span.end}, span.thread};
                break;
            }
        }
        Keep(span);
    }

    void Keep(const StateSpan& span) {
        if (span.Length() == 0 || trace.threads[span.thread].tid == 0) {
            return;
        }
        StateSpans& spans = states.threads[span.thread];
        if (span.state == ThreadState::Running) {
            states.cpus[span.cpu].push_back({span.thread, static_cast<uint32_t>(spans.size())});
        }
        spans.push_back(span);
    }

    const SchedTrace& trace;
    std::vector<SchedTrace::Hole> holes;  // By their ends.
    States states;
    std::vector<Thread> threads;
    std::vector<Cpu> cpus = std::vector<Cpu>(MOST_CPUS);
};

}  // namespace

States StatesOf(const SchedTrace& trace) {
    return Tracker(trace).Follow();
}

std::span<const StateSpan> Within(const StateSpans& spans, Span span) {
    const auto first = std::ranges::upper_bound(spans, span.begin, {}, &StateSpan::end);
    return {first, std::ranges::lower_bound(first, spans.end(), span.end, {}, &StateSpan::begin)};
}

StateSpans States::RunsOn(uint32_t cpu, Span span) const {
    const auto spanOf = [this](Run run) -> const StateSpan& {
        return threads[run.thread][run.span];
    };
    StateSpans runs;
    auto run = std::ranges::upper_bound(cpus[cpu], span.begin, {},
                                        [&](Run one) { return spanOf(one).end; });
    for (; run != cpus[cpu].end() && spanOf(*run).begin < span.end; ++run) {
        runs.push_back(spanOf(*run));
    }
    return runs;
}

Shares States::SharesOf(uint32_t thread, Span span) const {
    Shares shares{};
    shares[ThreadState::Unknown] = span.Length();  // Less what the trace shows of it.
    for (const StateSpan& one : Within(threads[thread], span)) {
        const Micros length = Cut(one, span).Length();
        shares[ThreadState::Unknown] -= length;
        shares[one.state] += length;
    }
    return shares;
}

}  // namespace tools
