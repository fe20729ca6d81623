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
            StateSpan untold = span;
            untold.begin = std::max(hole->begin, span.begin);
            untold.state = ThreadState::Unknown;
            untold.isWoken = false;
            span.end = untold.begin;
            if (span.end > span.begin) {
                span.isWoken = false;
                spans.push_back(span);
            }
            spans.push_back(untold);
            return;
        }
    }
    spans.push_back(span);
}

// Who, by what is told, had the CPU right before that event of it: NO_THREAD before its first.
uint32_t Before(const SchedTrace& trace, uint32_t position) {
    const std::vector<uint32_t>& switches = trace.switches[trace.events[position].cpu];
    const auto next = std::lower_bound(switches.begin(), switches.end(), position);
    return next == switches.begin() ? NO_THREAD : trace.events[*std::prev(next)].other;
}

std::vector<StateSpan> Walk(const SchedTrace& trace, uint32_t thread) {
    std::vector<StateSpan> spans;
    StateSpan now;
    now.begin = trace.from;
    bool isFirst = true, hasCpu = false;
    const SchedEvent* early = nullptr;  // It was woken before it had left the CPU.
    const auto change = [&](Micros time, ThreadState state, uint16_t cpu) {
        now.end = time;
        PushSpan(spans, trace, now);
        now = {};
        now.begin = time;
        now.state = state;
        now.cpu = cpu;
    };
    for (const uint32_t position : trace.threads[thread].events) {
        const SchedEvent& event = trace.events[position];
        const bool isSwitch = event.kind == SchedEvent::Kind::Switch;
        if (isSwitch && event.thread == event.other) {
            continue;
        }
        if (isSwitch && event.thread == thread) {
            // Who leaves has run; the trace may begin with that. Some kernels leave out who comes
            // to a CPU that has nobody: a thread that was woken for that did not wait.
            if (now.state != ThreadState::Running) {
                const uint32_t before = Before(trace, position);
                const bool hasRun = before == NO_THREAD ? isFirst
                                                        : now.state == ThreadState::Runnable &&
                                                              trace.threads[before].tid == 0;
                now.state = hasRun ? ThreadState::Running : ThreadState::Unknown;
                now.cpu = event.cpu;
            }
            const bool isSleep =
                event.left == ThreadState::Sleeping || event.left == ThreadState::Blocked;
            change(event.time, isSleep && early != nullptr ? ThreadState::Runnable : event.left,
                   event.cpu);
            hasCpu = early == nullptr;
            early = nullptr;
        } else if (isSwitch) {
            now.next = event.cpu;
            if (now.state == ThreadState::Runnable && !hasCpu) {
                now.cpu = event.cpu;
            } else if (now.state == ThreadState::Running) {
                now.state = ThreadState::Unknown;  // That it left is not told.
            }
            change(event.time, ThreadState::Running, event.cpu);
        } else if (now.state == ThreadState::Runnable) {
            if (event.kind == SchedEvent::Kind::Wakeup) {
                now.cpu = event.cpu;
                hasCpu = true;
            }
        } else if (now.state == ThreadState::Running) {
            early = &event;
        } else {
            now.state = !isFirst                              ? now.state
                        : event.kind == SchedEvent::Kind::New ? ThreadState::Gone
                                                              : ThreadState::Sleeping;
            now.isWoken = true;
            now.waker = event.other;
            change(event.time, ThreadState::Runnable, event.cpu);
            hasCpu = event.kind != SchedEvent::Kind::Waking;
        }
        isFirst = false;
    }
    now.end = trace.to;
    PushSpan(spans, trace, now);
    return spans;
}

}  // namespace

std::span<const StateSpan> States::Within(uint32_t thread, Span span) {
    const auto [found, isNew] = known.try_emplace(thread);
    std::vector<StateSpan>& all = found->second;
    if (isNew) {
        all = Walk(trace, thread);
    }
    const auto first = std::partition_point(
        all.begin(), all.end(), [&](const StateSpan& one) { return one.end <= span.begin; });
    const auto last = std::partition_point(
        first, all.end(), [&](const StateSpan& one) { return one.begin < span.end; });
    return {first, last};
}

Shares States::SharesOf(uint32_t thread, Span span) {
    Shares shares{};
    Micros told = 0;
    for (const StateSpan& one : Within(thread, span)) {
        const Micros length = Cut(one, span).Length();
        shares[static_cast<size_t>(one.state)] += length;
        told += length;
    }
    // What is outside of the trace.
    shares[static_cast<size_t>(ThreadState::Unknown)] +=
        std::max<Micros>(span.end - span.begin - told, 0);
    return shares;
}

std::vector<std::pair<uint32_t, Micros>> States::RanOn(uint16_t cpu, Span span) {
    std::map<uint32_t, Micros> ran;
    if (cpu < trace.switches.size()) {
        const std::vector<uint32_t>& switches = trace.switches[cpu];
        auto next = std::partition_point(switches.begin(), switches.end(), [&](uint32_t position) {
            return trace.events[position].time <= span.begin;
        });
        // Up to each switch the one that leaves has run, and behind the last one who came. Where
        // the one that leaves is not the one that came before, a switch between the two is missing.
        uint32_t came = next == switches.begin() ? NO_THREAD : trace.events[*std::prev(next)].other;
        Micros from = span.begin;
        for (; next != switches.end() && from < span.end; ++next) {
            const SchedEvent& event = trace.events[*next];
            Micros since = from;
            if (event.thread != came) {  // Since when it is known to have run.
                const auto then = Within(event.thread, {event.time - 1, event.time});
                const bool hasRun = !then.empty() && then[0].state == ThreadState::Running;
                since = hasRun ? std::max(from, then[0].begin) : event.time;
            }
            ran[event.thread] += std::max<Micros>(std::min(event.time, span.end) - since, 0);
            from = event.time;
            came = event.other;
        }
        if (from < span.end && came != NO_THREAD) {
            ran[came] += span.end - from;
        }
    }
    std::erase_if(ran, [this](const auto& one) {
        return trace.threads[one.first].tid == 0 || one.second == 0;
    });
    std::vector<std::pair<uint32_t, Micros>> sorted(ran.begin(), ran.end());
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const auto& one, const auto& other) { return one.second > other.second; });
    return sorted;
}

}  // namespace tools
