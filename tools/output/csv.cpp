// The account as a table, a row a frame.

#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "tools/output/outputs.h"

namespace tools {

void WriteCsv(std::ostream& out, const Explained& explained) {
    const Account& account = explained.account;
    const Scheduling* const scheduling = explained.scheduling.get();
    int32_t stages = 0;
    for (const JudgedScene& scene : account.scenes) {
        stages = std::max(stages, scene.stageCount);
    }
    out << "scene,frame,status,reason,line,start_ms,end_ms,out_ms,latency_ms,interval_ms,late";
    for (int32_t stage = 0; stage < stages; ++stage) {
        out << fmt::format(",stage{0}_start_ms,stage{0}_end_ms,stage{0}_wait_ms,stage{0}_work_ms",
                           stage);
        if (scheduling != nullptr) {
            out << fmt::format(
                ",stage{0}_thread,stage{0}_ran_ms,stage{0}_cpu_wait_ms,stage{0}_slept_ms,"
                "stage{0}_blocked_ms",
                stage);
        }
    }
    out << '\n';

    std::string row;
    const auto add = [&row](Micros time) {
        row += time == NO_TIME ? "," : fmt::format(",{}", static_cast<double>(time) / 1000);
    };
    for (size_t s = 0; s < account.scenes.size(); ++s) {
        const JudgedScene& scene = account.scenes[s];
        for (size_t i = 0; i < scene.frames.size(); ++i) {
            const Frame& frame = scene.frames[i];
            const Fate& fate = scene.FateOf(i);
            if (fate.isSkipped) {
                continue;
            }
            // None of the reasons has a comma but is in quotes all the same: they are sentences.
            row = fmt::format("{},{},{},\"{}\",{}", s + 1, frame.number, NameOf(fate.status),
                              fate.reason, frame.place.line);
            add(Between(scene.begin, frame.start));
            add(Between(scene.begin, frame.end));
            add(Between(scene.begin, fate.isOut ? fate.output : NO_TIME));
            add(Between(frame.start, frame.end));
            add(fate.interval);
            row += fate.interval == NO_TIME ? "," : fmt::format(",{:d}", fate.isLate);
            for (int32_t stage = 0; stage < stages; ++stage) {
                const StageTimes times =
                    stage < scene.stageCount ? scene.TimesOf(i, stage) : StageTimes{};
                add(Between(scene.begin, times.start));
                add(Between(scene.begin, times.end));
                add(times.wait);
                add(times.work);
                if (scheduling == nullptr) {
                    continue;
                }
                const StageUse* const use = scheduling->scenes[s].UseOf(i, stage);
                row += ',';
                row += use == nullptr ? ""
                                      : std::to_string(scheduling->trace.threads[use->thread].tid);
                for (const ThreadState state : {ThreadState::Running, ThreadState::Runnable,
                                                ThreadState::Sleeping, ThreadState::Blocked}) {
                    add(use == nullptr ? NO_TIME : use->shares[static_cast<size_t>(state)]);
                }
            }
            out << row << '\n';
        }
    }
}

}  // namespace tools
