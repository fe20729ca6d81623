// The scheduler in recordings of Perfetto.

#include <algorithm>
#include <exception>
#include <map>
#include <utility>

#include "tools/base/cursor.h"
#include "tools/log/fields.h"
#include "tools/sched/trace.h"

namespace tools {
namespace {

using Task = SchedTraceMaker::Task;

constexpr uint32_t INTERRUPT_FLAGS = 8 | 16;  // Hard and soft.

Micros MicrosOf(uint64_t nanoseconds) {
    return static_cast<Micros>(nanoseconds) / 1000;
}

// The thread whose name, id and priority are the fields of these numbers.
Task TaskOf(const Fields<7>& event, size_t name, size_t tid, size_t priority) {
    return {event.Text(name), event.Number<int32_t>(tid), event.Number<Priority>(priority)};
}

// Columns of compact events: each list has one value of each event.
struct Lists {
    std::vector<uint64_t> times, states, tids, priorities, names, cpus, flags;

    // The event's value; 0 where the list has none of it.
    static uint64_t At(const std::vector<uint64_t>& list, size_t at) {
        return at < list.size() ? list[at] : 0;
    }
};

std::vector<uint64_t> ListOf(std::string_view packed) {
    const char* const end = packed.data() + packed.size();
    using Value = protozero::const_varint_iterator<uint64_t>;
    return {Value(packed.data(), end), Value(end, end)};
}

// Whether a kernel's release, such as "4.9.0", is an older one than 4.14.
bool IsBefore414(std::string_view release) {
    int major = 0, minor = 0;
    return TakeNumber(release, major) && Skip(release, ".") && TakeNumber(release, minor) &&
           (major < 4 || (major == 4 && minor < 14));
}

}  // namespace

// Events of one CPU.
struct SchedRecording::Bundle {
    uint32_t cpu = 0;
    uint64_t ahead = 0;  // How far the boot clock is ahead of the events' own.
    Micros first = NO_TIME, last = NO_TIME;

    Micros TimeOf(uint64_t time) {
        const Micros micros = MicrosOf(time + ahead);
        first = first == NO_TIME ? micros : std::min(first, micros);
        last = std::max(last, micros);
        return micros;
    }
};

void SchedRecording::TakePacket(std::string_view packet) {
    maker.isInOrder = false;
    ForEachField(packet, [this](uint32_t field, std::string_view content) {
        if (field == 1) {
            TakeBundle(content);
        } else if (field == 2) {
            TakeNames(content);
        } else if (field == 6) {
            std::map<uint64_t, uint64_t> clocks = ClocksOf(content);
            rawAhead = clocks[BOOTTIME] - clocks[MONOTONIC_RAW];
        } else if (field == 45) {
            isOldKernel = IsBefore414(Fields<3>(Fields<1>(content).Text(1)).Text(3));
        }
    });
}

void SchedRecording::TakeNames(std::string_view tree) {
    ForEachField(tree, [this](uint32_t field, std::string_view content) {
        if (field == 2) {
            const Fields<2> thread(content);
            maker.names[thread.Number<int32_t>(1)] = thread.Text(2);
        }
    });
}

void SchedRecording::TakeBundle(std::string_view bytes) {
    constexpr uint64_t MONO_RAW = 4;
    Bundle bundle;
    const Fields<7> all(bytes);
    const uint64_t cpu = all.Number(1), clock = all.Number(5), boot = all.Number(7);
    if (cpu >= MOST_CPUS) {
        return;
    }
    bundle.cpu = static_cast<uint32_t>(cpu);
    if (clock == MONO_RAW) {
        bundle.ahead = rawAhead;
    } else if (clock != 0 && boot != 0) {
        bundle.ahead = boot - all.Number(6);
    }
    if (all.Number(3) != 0) {
        maker.OnLost(bundle.cpu, 1);  // At least one; the recording has no number.
    }
    std::exception_ptr damage;  // Kept, as the times of the events before it still count.
    try {
        ForEachField(bytes, [&](uint32_t field, std::string_view content) {
            if (field == 2) {
                TakeEvent(content, bundle);
            } else if (field == 4) {
                TakeCompact(content, bundle);
            }
        });
    } catch (const protozero::exception&) {
        damage = std::current_exception();
    }
    if (bundle.first != NO_TIME) {
        maker.OnTime(bundle.cpu, bundle.first);
        maker.OnTime(bundle.cpu, bundle.last);
    }
    if (damage) {
        std::rethrow_exception(damage);
    }
}

ThreadState SchedRecording::StateOf(uint64_t bits) const {
    if ((bits & 0x30U) != 0 || (isOldKernel && (bits & 0x40U) != 0)) {
        return ThreadState::Gone;
    }
    if ((bits & 0x0CU) != 0) {
        return ThreadState::Stopped;
    }
    if ((bits & 0x02U) != 0) {
        return ThreadState::Blocked;
    }
    // Sleeping, idle or parked. All other bits are of threads that could go on.
    return (bits & 0x2C1U) != 0 ? ThreadState::Sleeping : ThreadState::Runnable;
}

void SchedRecording::TakeEvent(std::string_view bytes, Bundle& bundle) {
    const Fields<5> head(bytes);
    if (head.Number(1) == 0) {
        return;  // It has no time.
    }
    const Micros time = bundle.TimeOf(head.Number(1));
    const Task writer{NO_NAME, head.Number<int32_t>(2)};
    uint32_t what = 0;
    std::string_view payload;
    ForEachField(bytes, [&](uint32_t field, std::string_view content) {
        what = field;
        payload = content;
    });
    const bool isInterrupt = (head.Number(5) & INTERRUPT_FLAGS) != 0;
    const Fields<7> event(payload);
    constexpr std::pair<uint32_t, SchedEvent::Kind> WAKINGS[] = {{17, SchedEvent::Kind::Wakeup},
                                                                 {20, SchedEvent::Kind::Waking},
                                                                 {114, SchedEvent::Kind::New}};
    for (const auto& [number, kind] : WAKINGS) {
        if (what == number && event.Number(5) < MOST_CPUS) {
            maker.OnWaking(kind, time, event.Number<uint32_t>(5), TaskOf(event, 1, 2, 3),
                           isInterrupt ? NO_THREAD : maker.ThreadOf(writer, bundle.cpu));
        }
    }
    if (what == 3) {
        maker.OnMark(time, bundle.cpu, writer, event.Text(2));
    } else if (what == 4) {
        maker.OnSwitch(time, bundle.cpu, TaskOf(event, 1, 2, 3), StateOf(event.Number(4)),
                       TaskOf(event, 5, 6, 7));
    }
}

// Each time is the step from the event before. A switch has only the thread that comes; the thread
// that leaves is the one that had the CPU.
void SchedRecording::TakeCompact(std::string_view bytes, Bundle& bundle) {
    std::vector<std::string_view> texts;
    Lists switches, wakings;
    std::vector<uint64_t>* const lists[] = {&switches.times,      &switches.states, &switches.tids,
                                            &switches.priorities, nullptr,          &switches.names,
                                            &wakings.times,       &wakings.tids,    &wakings.cpus,
                                            &wakings.priorities,  &wakings.names,   &wakings.flags};
    ForEachField(bytes, [&](uint32_t field, std::string_view content) {
        if (field == 5) {
            texts.push_back(content);
        } else if (field <= std::size(lists)) {
            *lists[field - 1] = ListOf(content);
        }
    });
    const auto task = [&texts](const Lists& columns, size_t at) {
        const uint64_t name = Lists::At(columns.names, at);
        return Task{name < texts.size() ? texts[name] : NO_NAME,
                    static_cast<int32_t>(Lists::At(columns.tids, at)),
                    static_cast<Priority>(Lists::At(columns.priorities, at))};
    };
    uint64_t time = 0;
    for (size_t i = 0; i < switches.times.size(); ++i) {
        time += switches.times[i];
        maker.OnSwitchTo(bundle.TimeOf(time), bundle.cpu, StateOf(Lists::At(switches.states, i)),
                         task(switches, i));
    }
    time = 0;
    for (size_t i = 0; i < wakings.times.size(); ++i) {
        time += wakings.times[i];
        const bool isInterrupt = (Lists::At(wakings.flags, i) & INTERRUPT_FLAGS) != 0;
        const uint64_t cpu = Lists::At(wakings.cpus, i);
        const Micros micros = bundle.TimeOf(time);
        if (cpu < MOST_CPUS) {
            maker.OnWaking(SchedEvent::Kind::Waking, micros, static_cast<uint32_t>(cpu),
                           task(wakings, i), isInterrupt ? NO_THREAD : WHO_HAS_THE_CPU, bundle.cpu);
        }
    }
}

}  // namespace tools
