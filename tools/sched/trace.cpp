#include "tools/sched/trace.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "tools/base/cursor.h"

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
    } else if (trace.threads[found->second].name != task.name && task.name != NO_NAME) {
        trace.threads[found->second].name = task.name;
    }
    return found->second;
}

void SchedTraceMaker::OnSwitch(Micros time, uint32_t cpu, const Task& left, ThreadState state,
                               const Task& comes) {
    trace.events.push_back({time, ThreadOf(left, cpu), ThreadOf(comes, cpu), left.priority,
                            comes.priority, static_cast<uint16_t>(cpu), SchedEvent::Kind::Switch,
                            left.tid == 0 ? ThreadState::Runnable : state});
    if (isInOrder && state == ThreadState::Gone) {
        threads.erase(left.tid);  // Its id may be used again.
    }
}

void SchedTraceMaker::OnSwitchTo(Micros time, uint32_t cpu, ThreadState state, const Task& comes) {
    trace.events.push_back({time, WHO_HAS_THE_CPU, ThreadOf(comes, cpu), USUAL_PRIORITY,
                            comes.priority, static_cast<uint16_t>(cpu), SchedEvent::Kind::Switch,
                            state});
}

void SchedTraceMaker::OnWaking(SchedEvent::Kind kind, Micros time, uint32_t cpu, const Task& woken,
                               uint32_t waker, uint32_t wakerCpu) {
    if (isInOrder && kind == SchedEvent::Kind::New) {
        threads.erase(woken.tid);
    }
    trace.hasFlags = trace.hasFlags || waker == NO_THREAD;
    trace.events.push_back({time, ThreadOf(woken, cpu), waker, woken.priority,
                            static_cast<Priority>(wakerCpu), static_cast<uint16_t>(cpu), kind,
                            ThreadState::Runnable});
}

void SchedTraceMaker::OnTime(uint32_t cpu, Micros time) {
    trace.from = trace.from == NO_TIME ? time : std::min(trace.from, time);
    trace.to = std::max(trace.to, time);
    Cpu& known = cpus[cpu];
    if (known.hasLost) {
        const Micros since = known.last == NO_TIME ? trace.from : known.last;
        trace.holes.push_back({{since, time}, static_cast<uint16_t>(cpu)});
    }
    known = {known.first == NO_TIME ? time : std::min(known.first, time), time, false};
}

void SchedTraceMaker::OnLost(uint32_t cpu, int64_t count) {
    trace.lost += count;
    cpus[cpu].hasLost = true;
}

// "C|3635|TcfbtNotifyStageEnd1|121": process, name with the stage, and the frame.
void SchedTraceMaker::OnMark(Micros time, uint32_t cpu, const Task& writer, std::string_view text) {
    text.remove_prefix(std::min(text.find("C|"), text.size()));
    int32_t process = 0;
    if (!Skip(text, "C|") || !TakeNumber(text, process) || !Skip(text, "|TcfbtNotify")) {
        return;
    }
    for (const auto& [kind, name] : COUNTER_NAMES) {
        int32_t stage = -1, frame = 0;
        std::string_view value = text;
        if (Skip(value, name) && (name.front() == 'F' || TakeNumber(value, stage)) &&
            Skip(value, "|") && TakeNumber(value, frame) && frame != 0) {
            trace.counters.push_back({{kind, stage, frame, process}, time, ThreadOf(writer, cpu)});
        }
    }
}

SchedTrace SchedTraceMaker::Finish() {
    for (SchedThread& thread : trace.threads) {
        const auto name = names.find(thread.tid);
        if (thread.name == NO_NAME && name != names.end()) {
            thread.name = name->second;
        }
    }
    std::ranges::sort(trace.counters, {}, [](const SchedCounter& counter) {
        return std::pair<CountedEvent, Micros>(counter, counter.time);
    });
    trace.events.shrink_to_fit();  // There are millions, and what follows takes memory, too.
    std::ranges::stable_sort(trace.events, {}, &SchedEvent::time);
    // In a recording the CPUs begin at different times; which thread had one before is not known.
    for (uint16_t cpu = 0; !isInOrder && cpu < MOST_CPUS; ++cpu) {
        if (cpus[cpu].first > trace.from) {
            trace.holes.push_back({{trace.from, cpus[cpu].first}, cpu});
        }
    }
    return std::move(trace);
}

}  // namespace tools
