// A trace alone as the source of frames: what its counters say, as the log's lines would.

#include <algorithm>
#include <map>

#include "tools/account/facts.h"
#include "tools/base/text.h"
#include "tools/sched/scheduling.h"

namespace tools {
namespace {

// Counters do not tell of scenes. Within one, frames that the service is told of have rising
// numbers, as the library refuses others.
void Tell(const SchedTrace& trace, Micros origin, FactsMaker& facts) {
    struct Process {
        int32_t newest = 0;
        Moment last;
    };
    std::map<int32_t, Process> processes;
    for (const SchedCounter& counter : trace.counters) {
        Process& process = processes[counter.process];
        Message message;
        message.place.line = counter.line;
        if (counter.kind == MessageKind::FrameStart && counter.frame <= process.newest) {
            message.kind = MessageKind::SceneEnd;
            facts.OnMessage(message, process.last);
            message.kind = MessageKind::SceneStart;
            message.flag = true;
            facts.OnMessage(message, {counter.time - origin, counter.process, -1});
        }
        process.newest = counter.kind == MessageKind::FrameStart ? counter.frame : process.newest;
        message.kind = counter.kind;
        message.stage = counter.stage;
        message.frame = counter.frame;
        process.last = {counter.time - origin, counter.process, trace.threads[counter.thread].tid};
        facts.OnMessage(message, process.last);
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
    }
    SceneFinding finding;
    finding.check = Check::TraceAlone;
    finding.message =
        "a trace alone: it tells of what the service was told of, and nothing of refused frames, "
        "of "
        "node ends that end no stage, of when scenes began and ended, and of the configuration";
    account.findings.push_back(finding);
    Judge(account, options);
    return account;
}

}  // namespace tools
