// A trace alone as the source of frames: what its counters say, as the log's lines would.

#include <algorithm>
#include <map>
#include <set>

#include "tools/account/facts.h"
#include "tools/base/text.h"
#include "tools/sched/scheduling.h"

namespace tools {
namespace {

constexpr size_t PLACES = 16;  // Of frames in flight.

// Counters do not tell of scenes. Within one, frames that the service is told of have rising
// numbers, as the library refuses others.
void Tell(const SchedTrace& trace, Micros origin, FactsMaker& facts) {
    struct Process {
        int32_t newest = 0;
        Moment last;
        std::set<int32_t> inFlight;
    };
    std::map<int32_t, Process> processes;
    for (size_t i = 0; i < trace.counters.size(); ++i) {
        const SchedCounter& counter = trace.counters[i];
        Process& process = processes[counter.process];
        const Moment moment = {counter.time - origin, counter.process,
                               trace.threads[counter.thread].tid};
        Message message;
        message.place.line = counter.line;
        const auto tell = [&](MessageKind kind, const Moment& when) {
            message.kind = kind;
            facts.OnMessage(message, when);
        };
        // The oldest of sixteen is reported when it makes room, right behind the one that gets it.
        const auto makeRoom = [&](const SchedCounter& reported) {
            if (reported.kind == MessageKind::FrameInError && process.inFlight.size() >= PLACES &&
                *process.inFlight.begin() == reported.frame) {
                process.inFlight.erase(process.inFlight.begin());
                tell(MessageKind::TableFull, moment);
            }
        };
        if (counter.kind == MessageKind::FrameInError) {
            makeRoom(counter);
            continue;
        }
        if (counter.kind == MessageKind::FrameStart) {
            if (counter.frame <= process.newest) {
                tell(MessageKind::SceneEnd, process.last);
                message.flag = true;
                tell(MessageKind::SceneStart, {moment.time, moment.process, -1});
                process.inFlight.clear();
            }
            const bool isFull = process.inFlight.size() >= PLACES;  // Else none has to make room.
            const auto next =
                !isFull ? trace.counters.end()
                        : std::find_if(trace.counters.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                                       trace.counters.end(), [&counter](const SchedCounter& other) {
                                           return other.thread == counter.thread;
                                       });
            if (next != trace.counters.end()) {
                makeRoom(*next);
            }
            process.newest = counter.frame;
            process.inFlight.insert(counter.frame);
        } else if (counter.kind == MessageKind::FrameEnd) {
            process.inFlight.erase(counter.frame);
        }
        message.stage = counter.stage;
        message.frame = counter.frame;
        process.last = moment;
        tell(counter.kind, moment);
    }
}

// Nothing counts what becomes of a frame once it was reported as one in error, or pushed out.
void LeaveUntold(Account& account, const SchedTrace& trace, Micros origin) {
    std::map<std::pair<int32_t, int32_t>, std::vector<Micros>> reported;  // By process and frame.
    for (const SchedCounter& counter : trace.counters) {
        if (counter.kind == MessageKind::FrameInError) {
            reported[{counter.process, counter.frame}].push_back(counter.time - origin);
        }
    }
    for (Scene& scene : account.scenes) {
        for (Frame& row : scene.frames) {
            const auto found = reported.find({scene.process, static_cast<int32_t>(row.number)});
            row.isUntold =
                found != reported.end() && !row.isEnded &&
                std::any_of(found->second.begin(), found->second.end(),
                            [&](Micros time) { return time >= row.told && time <= scene.end; });
        }
    }
}

// Nobody says how stages are called, but threads have names.
void NameStages(Scene& scene, const std::map<int32_t, std::string>& names) {
    for (size_t i = 0; i < scene.passes.size(); ++i) {
        std::string& name = scene.stageNames[i % scene.stageNames.size()];
        const StagePass& pass = scene.passes[i];
        if (name.empty() && pass.HasLeft() && pass.thread < scene.threads.size()) {
            name = names.at(scene.threads[pass.thread]);
        }
    }
}

}  // namespace

Account AccountOf(const SchedTrace& trace, const std::string& name, const JudgeOptions& options) {
    if (trace.counters.empty()) {
        throw TieError(
            "it has none of the library's counters: were the trace tags camera or hal on, and the\n"
            "library's debug switch?");
    }
    const Micros origin = trace.counters.front().time;
    FactsMaker facts;
    Tell(trace, origin, facts);
    Account account = facts.Finish(NO_TIME);
    account.inputs = {name};
    const auto clock = [](Micros time) {
        return Fixed(static_cast<double>(time) / 1e6, 6) + " s of the trace's clock";
    };
    account.from = clock(trace.from);
    account.to = clock(trace.to);
    account.resolution = 1;
    account.lines = trace.lines;
    account.libraryLines = static_cast<int64_t>(trace.counters.size());
    std::map<int32_t, std::string> names;
    for (const SchedCounter& counter : trace.counters) {
        names[trace.threads[counter.thread].tid] = trace.threads[counter.thread].name;
    }
    for (Scene& scene : account.scenes) {
        NameStages(scene, names);
        scene.isOfCounters = true;
    }
    LeaveUntold(account, trace, origin);
    SceneFinding finding;
    finding.check = Check::TraceAlone;
    finding.message =
        "a trace alone: it tells of what the service was told of, and nothing of refused frames, "
        "of node ends that end no stage, of when scenes began and ended, and of the configuration";
    account.findings.push_back(finding);
    Judge(account, options);
    return account;
}

}  // namespace tools
