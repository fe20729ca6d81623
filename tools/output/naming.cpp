#include "tools/output/naming.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

#include "tools/base/text.h"

namespace tools {
namespace {

// "camera 0", "cameras 0 and 2".
std::string Numbered(std::string_view one, std::string_view several,
                     const std::set<int32_t>& numbers) {
    std::vector<std::string> texts;
    texts.reserve(numbers.size());
    for (const int32_t number : numbers) {
        texts.push_back(std::to_string(number));
    }
    return fmt::format("{} {}", texts.size() == 1 ? one : several, Join(texts));
}

Rows ThreadsOf(const Scheduling& scheduling, const SceneScheduling& scene) {
    Rows table = {{"name", "thread", "stages", "handed", "ran", "waited for a CPU", "slept",
                   "blocked", "stopped", "not known"}};
    for (const ThreadUse& use : scene.threads) {
        const SchedThread& thread = scheduling.trace.threads[use.thread];
        const char* const handed = use.isHanded ? "yes" : "no";
        std::vector<std::string> row = {
            Printable(thread.name), std::to_string(thread.tid),
            use.stages.empty() ? "-" : fmt::format("{}", fmt::join(use.stages, " ")),
            scene.isHandedKnown ? handed : "?"};
        for (const ThreadState state :
             {ThreadState::Running, ThreadState::Runnable, ThreadState::Sleeping,
              ThreadState::Blocked, ThreadState::Stopped, ThreadState::Unknown}) {
            row.push_back(Milliseconds(use.shares[static_cast<size_t>(state)], MILLISECOND));
        }
        table.push_back(row);
    }
    return table;
}

Rows WaitingOf(const SceneScheduling& scene) {
    Rows table = {{"threads", "how many", "p50 in the scene", "p99 in the scene", "p50 outside",
                   "p99 outside"}};
    const auto add = [&table](const char* name, const Waiting& waiting) {
        if (waiting.threads == 0) {
            return;
        }
        std::vector<std::string> row = {name, std::to_string(waiting.threads)};
        for (const Statistics* figures : {&waiting.inside, &waiting.outside}) {
            row.push_back(figures->count == 0 ? "-" : Milliseconds(figures->p50, 1));
            row.push_back(figures->count == 0 ? "-" : Milliseconds(figures->p99, 1));
        }
        table.push_back(row);
    };
    add("handed to the service", scene.handed);
    add(!scene.isHandedKnown ? "of the pipeline" : "of the pipeline, not handed", scene.others);
    return table;
}

}  // namespace

std::string TitleOf(const Account& account, size_t scene) {
    const Scene& shown = account.scenes[scene];
    std::string title = fmt::format("scene {}: ", scene + 1);
    if (shown.width > 0) {
        title += fmt::format("{} wide, ", shown.width);
    }
    if (shown.fps > 0) {
        title += fmt::format("{} fps, ", shown.fps);
    }
    title += fmt::format("process {}", shown.process);
    const std::set<int32_t> cameras = CamerasOf(shown);
    title += cameras.empty() ? "" : ", " + Numbered("camera", "cameras", cameras);
    return title + (shown.restartedAfter ? ", frame numbers started again" : "");
}

const char* WhyNoEnd(const Scene& scene) {
    switch (scene.stopped) {
        case Stop::SceneEnd:
            return "";
        case Stop::ProcessGone:
            return "another process took over";
        case Stop::NumbersRestart:
            return "frame numbers started again after that";
        default:
            return "its end is not in the capture";
    }
}

std::string FramesByStatus(const JudgedScene& scene) {
    std::string text;
    for (size_t i = 0; i < FRAME_STATUSES; ++i) {
        if (scene.figures.statusCounts[i] != 0) {
            text += fmt::format("{}{} {}", text.empty() ? ": " : ", ",
                                scene.figures.statusCounts[i], NameOf(static_cast<FrameStatus>(i)));
        }
    }
    return text;
}

std::string StageTitleOf(const Scene& scene, size_t stage) {
    const bool isNamed = stage < scene.stageNames.size() && !scene.stageNames[stage].empty();
    return fmt::format("stage {}{}", stage,
                       isNamed ? ", " + Printable(scene.stageNames[stage]) : "");
}

std::string FigureTitleOf(const Scene& scene, size_t stage) {
    return StageTitleOf(scene, stage) + (stage == 0 ? ": since the frame before" : "");
}

std::string ToString(const Account& account, const Place& place) {
    if (place.line == 0) {
        return "";
    }
    return account.inputs.size() > 1 && place.input < account.inputs.size()
               ? fmt::format("{}:{}", account.inputs[place.input], place.line)
               : fmt::format("line {}", place.line);
}

const char* WordOf(const Fate& fate) {
    switch (fate.status) {
        case FrameStatus::Complete:
            return fate.isLate ? "late" : "";
        case FrameStatus::Open:
            if (fate.isUnknown) {
                return "unknown";
            }
            return fate.isNeverOut ? "never out" : NameOf(fate.status);
        default:
            return NameOf(fate.status);
    }
}

std::string DescriptionOf(const Fate& fate) {
    if (fate.status == FrameStatus::Complete) {
        return "";
    }
    if (fate.isUnknown) {
        return fmt::format("{}: what became of it is not known", fate.reason);
    }
    if (fate.status == FrameStatus::Open) {
        if (fate.isNeverOut && fate.stage >= 0) {
            return fmt::format("not seen to leave stage {}", fate.stage);
        }
        // Where a frame came out, a finding says that its end is missing.
        const bool hasNoEnd = fate.isOut && !fate.isEarly;
        return fate.isNeverOut || hasNoEnd ? "its end was never reported" : "in flight at the end";
    }
    return fate.status == FrameStatus::Error && fate.stage >= 0
               ? fmt::format("stage {}: {}", fate.stage, fate.reason)
               : fate.reason;
}

double RateOf(const JudgedScene& scene) {
    Micros passed = 0;
    int64_t count = 0;
    for (const Fate& fate : scene.columns.fates) {
        if (fate.interval != NO_TIME) {
            passed += fate.interval;
            ++count;
        }
    }
    return passed == 0 ? 0 : static_cast<double>(count) * 1e6 / static_cast<double>(passed);
}

bool Shown::Has(const JudgedScene& scene, size_t row) const {
    const int64_t number = scene.frames[row].number;
    const Fate& fate = scene.FateOf(row);
    if (fate.isSkipped) {
        return false;
    }
    if (range) {
        return number >= range->first && number <= range->second;
    }
    return isAll || fate.isLate || fate.status != FrameStatus::Complete;
}

std::vector<PlacedFinding> FindingsOf(const Account& account) {
    std::vector<PlacedFinding> all;
    for (const SceneFinding& finding : account.findings) {
        all.push_back({finding, {}});
    }
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        for (const SceneFinding& finding : account.scenes[i].findings) {
            all.push_back({finding, i});
        }
    }
    return all;
}

Configuration Completed(Configuration configuration, const Configuration& other) {
    if (!configuration.additionalWidth) {
        configuration.additionalWidth = other.additionalWidth;
    }
    if (!configuration.stageCount) {
        configuration.stageCount = other.stageCount;
    }
    return configuration;
}

std::vector<SharedConfiguration> ConfigurationsOf(const Account& account) {
    std::vector<SharedConfiguration> all;
    for (const LoadedConfiguration& loaded : account.configurations) {
        auto same = std::find_if(all.begin(), all.end(), [&loaded](const auto& other) {
            return Completed(loaded.configuration, other.configuration) ==
                   Completed(other.configuration, loaded.configuration);
        });
        if (same == all.end()) {
            same = all.insert(all.end(), {loaded.configuration, loaded.findings, {}});
        } else if (Configuration both = Completed(same->configuration, loaded.configuration);
                   both != same->configuration) {
            same->configuration = std::move(both);
            same->findings = loaded.findings;
        }
        same->processes.insert(loaded.process);
    }
    return all;
}

std::string TitleOf(const std::vector<SharedConfiguration>& all, const SharedConfiguration& one) {
    if (all.size() == 1 || *one.processes.begin() < 0) {
        return "Configuration";
    }
    return "Configuration of " + Numbered("process", "processes", one.processes);
}

std::string TitleOf(const Scheduling& scheduling) {
    const SchedTrace& trace = scheduling.trace;
    std::string text = fmt::format(
        "{}: a scheduler trace of {} s, {} of which tie it to the log, nine of ten "
        "to within {} ms",
        scheduling.name, Fixed(static_cast<double>(trace.to - trace.from) / 1e6, 3),
        Counted(scheduling.tie.counters, "counter"),
        Fixed(static_cast<double>(scheduling.tie.within) / 1000, 2));
    if (trace.lost > 0) {
        text += fmt::format("; it lacks {} that the tracer lost", Counted(trace.lost, "event"));
    }
    if (!trace.damage.empty()) {
        text += "; it cannot be read to its end: " + trace.damage;
    }
    for (const std::string& note : scheduling.notes) {
        text += "; " + note;
    }
    return text;
}

StateSpans AwakeOf(const Scheduling& scheduling, uint32_t thread, Span span) {
    StateSpans all;
    for (StateSpan one : Within(scheduling.states.threads[thread], span)) {
        if (one.state == ThreadState::Running || one.state == ThreadState::Runnable ||
            one.state == ThreadState::Blocked || one.state == ThreadState::Stopped) {
            static_cast<Span&>(one) = Cut(one, span);
            all.push_back(one);
        }
    }
    return all;
}

std::vector<CaptionedTable> ThreadTablesOf(const Scheduling* scheduling, size_t scene) {
    if (scheduling == nullptr || scheduling->scenes[scene].threads.empty()) {
        return {};
    }
    return {{"Threads", "Threads, in milliseconds from the scene's first line to its last",
             ThreadsOf(*scheduling, scheduling->scenes[scene])},
            {"Waiting", "Waited for a CPU in each frame period, all threads together, milliseconds",
             WaitingOf(scheduling->scenes[scene])}};
}

}  // namespace tools
