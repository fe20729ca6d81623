#include "tools/sched/states.h"

#include <algorithm>
#include <map>

namespace tools {
namespace {

// Where events were lost that may have changed it, the state is not known from there on.
void PushSpan(std::vector<StateSpan>& spans, const SchedTrace& trace, StateSpan span) {
    if (span.end <= span.begin) {
        return;
    }
    for (auto hole = std::partition_point(
             trace.holes.begin(), trace.holes.end(),
             [&](const SchedTrace::Hole& one) { return one.end <= span.begin; });
         hole != trace.holes.end() && hole->begin < span.end; ++hole) {
        const bool isTouched =
            hole->end > span.begin && (span.state != ThreadState::Running || span.cpu == hole->cpu);
        if (isTouched && span.state != ThreadState::Unknown) {
            StateSpan unknown = span;
            unknown.begin = std::max(hole->begin, span.begin);
            unknown.state = ThreadState::Unknown;
            unknown.isWoken = false;
            span.end = unknown.begin;
            if (span.end > span.begin) {
                span.isWoken = false;
                spans.push_back(span);
            }
            spans.push_back(unknown);
            return;
        }
    }
    spans.push_back(span);
}

constexpr uint32_t NO_EVENT = UINT32_MAX;

bool IsAsleep(ThreadState state) {
    return state == ThreadState::Sleeping || state == ThreadState::Blocked;
}

// Follows a thread through its events. Kernels leave some events out: the recordings named here are
// those of tests/data/sched, in which each such case stands.
class ThreadTracker {
  public:
    ThreadTracker(const SchedTrace& schedTrace, uint32_t ofThread)
        : trace(schedTrace), thread(ofThread) {
        now.begin = trace.from;
    }

    void OnEvent(uint32_t position) {
        const SchedEvent& event = trace.events[position];
        switch (event.kind) {
            case SchedEvent::Kind::Switch:
                if (event.thread == event.other) {
                    came = position;
                } else if (event.thread == thread) {
                    OnSwitchOut(position);
                } else {
                    OnSwitchIn(position);
                }
                break;
            case SchedEvent::Kind::Waking:
                OnWaking(position);
                break;
            case SchedEvent::Kind::Wakeup:
                OnWakeup(position);
                break;
            case SchedEvent::Kind::New:
                now.state = ThreadState::Gone;
                OnWaking(position);
                break;
        }
        isFirst = false;
    }

    std::vector<StateSpan> Finish() {
        CheckLeft(NO_EVENT);
        now.end = trace.to;
        PushSpan(spans, trace, now);
        return std::move(spans);
    }

  private:
    void OnSwitchOut(uint32_t position) {
        const SchedEvent& event = trace.events[position];
        const uint32_t before = SwitchBefore(position);
        if (now.state != ThreadState::Running || before != came) {
            AddComing(event, before);
        }
        Open(event.time, event.left, event.cpu, event.priority);
        hasCpu = true;
    }

    void OnSwitchIn(uint32_t position) {
        const SchedEvent& event = trace.events[position];
        TakeEarlyWaking();
        // Its leaving was left out: `none` at 29138.199901, thread 70.
        now.state = now.state == ThreadState::Running ? ThreadState::Unknown : now.state;
        now.cpu = now.state == ThreadState::Runnable && !hasCpu ? event.cpu : now.cpu;
        Open(event.time, ThreadState::Running, event.cpu, event.otherPriority);
        came = position;
        isWokenEarly = false;
    }

    void OnWaking(uint32_t position) {
        const SchedEvent& event = trace.events[position];
        CheckLeft(position);
        if (now.state == ThreadState::Running) {
            isWokenEarly = true;
            return;
        }
        if (now.state == ThreadState::Runnable) {
            return;
        }
        if (isFirst && event.kind != SchedEvent::Kind::New) {
            now.state = ThreadState::Sleeping;
        }
        now.isWoken = true;
        now.waker = event.other;
        Open(event.time, ThreadState::Runnable, event.cpu, event.priority);
        hasCpu = event.kind != SchedEvent::Kind::Waking;
        isWokenEarly = false;
    }

    void OnWakeup(uint32_t position) {
        const SchedEvent& event = trace.events[position];
        CheckLeft(position);
        if (now.state == ThreadState::Running) {
            // It was woken before it left the CPU and went on: `none` at 29138.200141, thread 70.
            isWokenEarly = false;
            return;
        }
        TakeEarlyWaking();
        if (now.state != ThreadState::Runnable) {
            return OnWaking(position);  // Traces may lack sched_waking.
        }
        now.cpu = event.cpu;
        hasCpu = true;
    }

    // A waking that the kernel noted just before the thread's leaving ended that sleep before it
    // began, unless another waking comes: `lock` at 29668.894991, thread 20603.
    void TakeEarlyWaking() {
        if (isWokenEarly && IsAsleep(now.state)) {
            now.state = ThreadState::Runnable;
            hasCpu = false;
            isWokenEarly = false;
        }
    }

    // A thread whose CPU another one has left since had left, too: that was left out. `none` at
    // 29138.196436, thread 70.
    void CheckLeft(uint32_t position) {
        if (now.state == ThreadState::Running && SwitchBehind(came) < position) {
            now.state = ThreadState::Unknown;
        }
    }

    // For a thread that leaves a CPU and did not come to it: `none` lacks that wherever the CPU was
    // idle before, as at 29136.699863; `pinned` lacks some others, as at 29811.640101.
    void AddComing(const SchedEvent& event, uint32_t before) {
        TakeEarlyWaking();
        if (before == NO_EVENT) {  // The trace may begin while it runs.
            now.state = isFirst ? ThreadState::Running : ThreadState::Unknown;
            now.cpu = event.cpu;
            now.priority = event.priority;
        } else if (now.state == ThreadState::Runnable) {
            // It waited until the thread before it came to the CPU at least; an idle CPU it had
            // at once.
            const SchedEvent& last = trace.events[before];
            const bool wasIdle = trace.threads[last.other].tid == 0;
            now.cpu = hasCpu ? now.cpu : event.cpu;
            Open(std::max(now.begin, last.time),
                 wasIdle ? ThreadState::Running : ThreadState::Unknown, event.cpu, event.priority);
        } else {
            now.state = ThreadState::Unknown;
        }
    }

    void Open(Micros time, ThreadState state, uint16_t cpu, Priority priority) {
        now.end = time;
        PushSpan(spans, trace, now);
        now = {};
        now.begin = time;
        now.state = state;
        now.cpu = cpu;
        now.priority = priority;
    }

    // Of that event's CPU; NO_EVENT for none.
    uint32_t SwitchBefore(uint32_t position) const {
        const std::vector<uint32_t>& switches = trace.switches[trace.events[position].cpu];
        const auto next = std::lower_bound(switches.begin(), switches.end(), position);
        return next == switches.begin() ? NO_EVENT : *std::prev(next);
    }
    uint32_t SwitchBehind(uint32_t position) const {
        const std::vector<uint32_t>& switches = trace.switches[trace.events[position].cpu];
        const auto next = std::upper_bound(switches.begin(), switches.end(), position);
        return next == switches.end() ? NO_EVENT : *next;
    }

    const SchedTrace& trace;
    const uint32_t thread;
    std::vector<StateSpan> spans;
    StateSpan now;
    uint32_t came = NO_EVENT;   // The switch by which it got the CPU.
    bool isFirst = true;        // No event came before.
    bool hasCpu = false;        // Of a wait: its CPU is the one where the thread is to run.
    bool isWokenEarly = false;  // It was woken while it still had the CPU.
};

}  // namespace

std::vector<StateSpan> StatesOf(const SchedTrace& trace, uint32_t thread) {
    ThreadTracker tracker(trace, thread);
    for (const uint32_t position : trace.threads[thread].events) {
        tracker.OnEvent(position);
    }
    return tracker.Finish();
}

std::span<const StateSpan> States::Within(uint32_t thread, Span span) {
    const auto [found, isNew] = known.try_emplace(thread);
    std::vector<StateSpan>& all = found->second;
    if (isNew) {
        all = StatesOf(trace, thread);
    }
    const auto first = std::partition_point(
        all.begin(), all.end(), [&](const StateSpan& one) { return one.end <= span.begin; });
    const auto last = std::partition_point(
        first, all.end(), [&](const StateSpan& one) { return one.begin < span.end; });
    return {first, last};
}

Shares States::SharesOf(uint32_t thread, Span span) {
    Shares shares{};
    Micros covered = 0;
    for (const StateSpan& one : Within(thread, span)) {
        const Micros length = Cut(one, span).Length();
        shares[static_cast<size_t>(one.state)] += length;
        covered += length;
    }
    // What is outside of the trace.
    shares[static_cast<size_t>(ThreadState::Unknown)] +=
        std::max<Micros>(span.end - span.begin - covered, 0);
    return shares;
}

std::map<uint32_t, Micros> States::RanOn(uint16_t cpu, Span span) {
    if (cpus.empty()) {
        cpus.resize(std::max<size_t>(trace.switches.size(), 1));
        for (uint32_t thread = 0; thread < trace.threads.size(); ++thread) {
            for (const StateSpan& one : Within(thread, {trace.from, trace.to})) {
                if (one.state == ThreadState::Running && trace.threads[thread].tid != 0) {
                    cpus[one.cpu].emplace_back(one, thread);
                }
            }
        }
        for (auto& ran : cpus) {
            std::sort(ran.begin(), ran.end(), [](const auto& one, const auto& other) {
                return one.first.begin < other.first.begin;
            });
        }
    }
    std::map<uint32_t, Micros> ran;
    if (cpu < cpus.size()) {
        for (auto next =
                 std::partition_point(cpus[cpu].begin(), cpus[cpu].end(),
                                      [&](const auto& one) { return one.first.end <= span.begin; });
             next != cpus[cpu].end() && next->first.begin < span.end; ++next) {
            ran[next->second] += Cut(next->first, span).Length();
        }
    }
    return ran;
}

}  // namespace tools
