#include "tools/sched/trace.h"

#include <algorithm>
#include <utility>

namespace tools {

std::span<const SchedCounter> SchedTrace::CountersOf(const CountedEvent& event) const {
    const auto [first, last] = std::equal_range(
        counters.begin(), counters.end(), event,
        [](const CountedEvent& one, const CountedEvent& other) { return one < other; });
    return {first, last};
}

uint32_t SchedTraceMaker::ThreadOf(const Task& task, uint32_t cpu) {
    const int64_t key = task.tid == 0 ? -1 - static_cast<int64_t>(cpu) : task.tid;
    const auto [found, isNew] =
        threads.try_emplace(key, static_cast<uint32_t>(trace.threads.size()));
    if (isNew) {
        trace.threads.push_back({task.tid, std::string(task.name)});
    } else if (trace.threads[found->second].name != task.name && task.name != "<...>") {
        trace.threads[found->second].name = task.name;
    }
    return found->second;
}

void SchedTraceMaker::OnSwitch(Micros time, uint32_t cpu, const Task& left, ThreadState state,
                               const Task& comes) {
    trace.events.push_back({time, ThreadOf(left, cpu), ThreadOf(comes, cpu), left.priority,
                            comes.priority, static_cast<uint16_t>(cpu), SchedEvent::Kind::Switch,
                            left.tid == 0 ? ThreadState::Runnable : state});
    if (state == ThreadState::Gone) {
        threads.erase(left.tid);  // Its id may be used again.
    }
}

void SchedTraceMaker::OnWaking(SchedEvent::Kind kind, Micros time, uint32_t cpu, const Task& woken,
                               uint32_t waker) {
    if (kind == SchedEvent::Kind::New) {
        threads.erase(woken.tid);
    }
    trace.events.push_back({time, ThreadOf(woken, cpu), waker, woken.priority, USUAL_PRIORITY,
                            static_cast<uint16_t>(cpu), kind, ThreadState::Runnable});
}

void SchedTraceMaker::OnTime(uint32_t cpu, Micros time) {
    trace.from = trace.from == NO_TIME ? time : std::min(trace.from, time);
    trace.to = std::max(trace.to, time);
    Cpu& known = cpus[cpu];
    if (known.hasLost) {
        const Micros since = known.last == NO_TIME ? trace.from : known.last;
        trace.holes.push_back({{since, time}, static_cast<uint16_t>(cpu)});
    }
    known = {time, false};
}

void SchedTraceMaker::OnLost(uint32_t cpu, int64_t count) {
    trace.lost += count;
    cpus[cpu].hasLost = true;
}

SchedTrace SchedTraceMaker::Finish() {
    std::ranges::sort(trace.counters, {}, [](const SchedCounter& counter) {
        return std::pair<CountedEvent, Micros>(counter, counter.time);
    });
    std::ranges::stable_sort(trace.events, {}, &SchedEvent::time);
    return std::move(trace);
}

}  // namespace tools
