#include "tools/sched/trace.h"

#include <algorithm>
#include <tuple>
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
    Cpu& known = CpuOf(cpu);
    if (known.hasLost) {
        const Micros since = known.last == NO_TIME ? trace.from : known.last;
        trace.holes.push_back({{since, time}, static_cast<uint16_t>(cpu)});
    }
    known = {time, false};
}

SchedTraceMaker::Cpu& SchedTraceMaker::CpuOf(uint32_t cpu) {
    cpus.resize(std::max<size_t>(cpus.size(), cpu + size_t{1}));
    return cpus[cpu];
}

SchedTrace SchedTraceMaker::Finish() {
    std::sort(trace.counters.begin(), trace.counters.end(),
              [](const SchedCounter& one, const SchedCounter& other) {
                  const CountedEvent &event = one, &otherEvent = other;
                  return std::tie(event, one.time) < std::tie(otherEvent, other.time);
              });
    std::stable_sort(
        trace.events.begin(), trace.events.end(),
        [](const SchedEvent& one, const SchedEvent& other) { return one.time < other.time; });
    return std::move(trace);
}

}  // namespace tools
