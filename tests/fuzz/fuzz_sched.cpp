// Any bytes as a scheduler trace, and any events in any order: what threads did adds up, it is read
// in pieces as at once, and all outputs can be written.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/fuzz/outputs.h"
#include "tools/account/account.h"
#include "tools/account/reader.h"
#include "tools/sched/scheduling.h"
#include "tools/sched/trace.h"

namespace {

tools::SchedTrace Read(const std::string& text, size_t piece) {
    tools::SchedReader reader;
    ReadInPieces(reader, text, piece);
    return reader.Finish();
}

std::string Explain(const std::string& text, size_t piece) {
    tools::SchedTrace trace = Read(text, piece);
    RequireSums(trace);
    if (trace.counters.empty()) {
        return "";
    }
    // A log that says what the counters say, a little earlier.
    tools::SceneReader scenes;
    tools::CountedLines lines;
    std::vector<tools::SchedCounter> counters = trace.counters;
    std::stable_sort(counters.begin(), counters.end(),
                     [](const auto& one, const auto& other) { return one.time < other.time; });
    for (const tools::SchedCounter& counter : counters) {
        tools::Message message;
        message.kind = counter.kind;
        message.stage = counter.stage;
        message.frame = counter.frame;
        const tools::Moment moment = {counter.time - 5, counter.process,
                                      trace.threads[counter.thread].tid};
        scenes.OnMessage(message, moment);
        lines.OnMessage(message, moment);
    }
    tools::Account account = tools::Judge(scenes.Finish(trace.to), {}, {"name"}, {});
    std::unique_ptr<tools::Scheduling> made;
    try {
        made =
            std::make_unique<tools::Scheduling>(MakeScheduling(account, std::move(trace), lines));
    } catch (const tools::CommandError&) {
        return "";
    }
    tools::MakeFindings(account, {});
    return OutputsOf(std::move(account), std::move(made));
}

// Makes lines of a trace from the bytes, mostly of a few threads on two CPUs.
std::string LinesOf(const uint8_t* data, size_t size) {
    std::string text;
    size_t at = 0;
    const auto next = [&] { return at < size ? data[at++] : uint8_t{0}; };
    uint64_t time = 1'000'000;
    int frame = 1;
    while (at < size) {
        const int kind = next();
        const auto number = [&next](int most) { return std::to_string(next() % most); };
        time += next() * uint64_t{40};
        const std::string cpu = number(2);
        text += "     t-" + number(5) + "  (   9) [00" + cpu + "] d..2. " +
                std::to_string(time / 1'000'000) + '.' +
                std::to_string(1'000'000 + time % 1'000'000).substr(1) + ": ";
        static constexpr const char* COUNTERS[] = {"StageEnd0", "StageStart1", "StageEnd1",
                                                   "FrameEnd"};
        if (kind < 100) {
            text += "sched_switch: prev_comm=a prev_pid=" + number(5) +
                    " prev_prio=1 prev_state=" + "RSDXZ"[next() % 5] +
                    " ==> next_comm=b next_pid=" + number(5) + " next_prio=1\n";
        } else if (kind < 150) {
            text += std::string(kind % 2 == 0 ? "sched_waking" : "sched_wakeup_new") +
                    ": comm=a pid=" + number(5) + " prio=1 target_cpu=00" + cpu + '\n';
        } else if (kind < 200) {
            text +=
                "tracing_mark_write: C|9|TcfbtNotifyFrameStart|" + std::to_string(frame++) + '\n';
        } else if (kind < 250) {
            text += std::string("tracing_mark_write: C|9|TcfbtNotify") + COUNTERS[kind % 4] + '|' +
                    std::to_string(frame - next() % 4) + '\n';
        } else {
            text += "sched_wakeup: \nCPU:" + cpu + " [LOST 3 EVENTS]\n";
        }
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    RequireSameInPieces(data, size, LinesOf, Explain);
    return 0;
}
