#include "tools/output/naming.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <zlib.h>

#include <algorithm>
#include <functional>
#include <nlohmann/json.hpp>

#include "tools/base/text.h"

namespace tools {
namespace {

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
        for (size_t state = 0; state < THREAD_STATES; ++state) {
            if (ThreadState(state) != ThreadState::Gone) {
                row.push_back(Milliseconds(use.shares[state], MILLISECOND));
            }
        }
        table.push_back(row);
    }
    return table;
}

Rows WaitingOf(const SceneScheduling& scene) {
    Rows table = {{"threads", "how many", "p50", "p99"}};
    const char* const others =
        scene.isHandedKnown ? "of the pipeline, not handed" : "of the pipeline";
    for (const auto& [name, waiting] :
         {std::pair("handed to the service", &scene.handed), std::pair(others, &scene.others)}) {
        const Statistics& times = waiting->inside;
        table.push_back({name, std::to_string(waiting->threads),
                         times.count == 0 ? "-" : Milliseconds(times.p50, 1),
                         times.count == 0 ? "-" : Milliseconds(times.p99, 1)});
    }
    return table;
}

// "trace.txt: a scheduler trace of 1.559 s, 1082 counters of which tie it to the log, ...".
std::string TitleOf(const Scheduling& scheduling) {
    const SchedTrace& trace = scheduling.trace;
    std::string title = fmt::format(
        "{}: a scheduler trace of {:.3f} s, {} of which tie it to the log, nine of ten to within "
        "{:.2f} ms",
        trace.name, static_cast<double>(trace.to - trace.from) / 1e6,
        Counted(scheduling.tie.counters, "counter"),
        static_cast<double>(scheduling.tie.within) / 1000);
    if (trace.lost > 0) {
        title += fmt::format("; it lacks {} that the tracer lost", Counted(trace.lost, "event"));
    }
    if (!trace.damage.empty()) {
        title += "; it cannot be read to its end: " + trace.damage;
    }
    for (const std::string& note : scheduling.notes) {
        title += "; " + note;
    }
    return title;
}

// Why it is not known how long a scene lasted.
const std::map<Stop, const char*> WHY_NO_END = {
    {Stop::ProcessGone, "another process took over"},
    {Stop::NumbersRestart, "frame numbers started again after that"},
    {Stop::CaptureEnd, "its end is not in the capture"},
    {Stop::Looked, "its end is not in the capture"},
};

}  // namespace

std::string TitleOf(const Account& account, size_t scene) {
    const Scene& shown = account.scenes[scene];
    std::string title =
        fmt::format("scene {}: {}{}process {}", scene + 1,
                    shown.width > 0 ? fmt::format("{} wide, ", shown.width) : "",
                    shown.fps > 0 ? fmt::format("{} fps, ", shown.fps) : "", shown.process);
    if (const std::set<int32_t> cameras = CamerasOf(shown); !cameras.empty()) {
        title += fmt::format(", camera{} {}", cameras.size() == 1 ? "" : "s", Join(cameras));
    }
    return title + (shown.restartedAfter ? ", frame numbers started again" : "");
}

std::string HeadingOf(const Account& account, size_t scene) {
    const JudgedScene& shown = account.scenes[scene];
    std::string heading = TitleOf(account, scene);
    heading[0] = 'S';
    if (!shown.isStarted) {
        heading += ", not started";
    } else {
        const std::string length = Fixed(static_cast<double>(shown.end - shown.begin) / 1e6, 3);
        heading += shown.HasEnd() ? fmt::format(", lasted {} s", length)
                                  : fmt::format(", {} s to its last line; {}", length,
                                                WHY_NO_END.at(shown.stopped));
    }
    return heading + (shown.isBeginningMissing ? "; it had begun before the capture" : "");
}

std::string CaptureOf(const Account& account, const Scheduling* scheduling) {
    std::string text =
        fmt::format("{}: {}, {} of them the library's", fmt::join(account.inputs, ", "),
                    Counted(account.lines, "line"), account.libraryLines);
    if (!account.from.empty()) {
        text += fmt::format(", from {} to {}", account.from, account.to);
    }
    if (account.lost > 0) {
        text += fmt::format("; {} more are known to be lost", account.lost);
    }
    text += ".\n";
    if (!account.hasThreads && account.libraryLines != 0) {
        text +=
            "The capture has no thread ids: which line is whose is worked out from frames and "
            "nodes.\n";
    }
    return scheduling == nullptr ? text : text + TitleOf(*scheduling) + ".\n";
}

std::string SummaryOf(const JudgedScene& scene) {
    const Figures& figures = scene.figures;
    std::string text = fmt::format("Frames: {}", figures.frameCount);
    if (figures.onlyOpened != 0) {
        text += fmt::format(" ({} only started)", figures.onlyOpened);
    }
    const char* separator = ": ";
    for (size_t i = 0; i < FRAME_STATUSES; ++i) {
        if (figures.statusCounts[i] != 0) {
            text += fmt::format("{}{} {}", std::exchange(separator, ", "), figures.statusCounts[i],
                                NameOf(static_cast<FrameStatus>(i)));
        }
    }
    text += ".\n";
    if (figures.unknown > 0) {
        text +=
            fmt::format("What became of {} of them is not known: lines of the log are missing.\n",
                        figures.unknown);
    }
    if (figures.interval.count > 0) {
        const double share = static_cast<double>(figures.late) /
                             static_cast<double>(std::max<int64_t>(figures.frameCount, 1));
        text += fmt::format(
            "Late: {} ({} %), that is more than {} ms after the frame before. Rate: {} fps{}.\n",
            figures.late, Fixed(100 * share, 2), LateText(scene.columns.lateThreshold),
            Fixed(RateOf(scene), 1), scene.fps > 0 ? fmt::format(" of {}", scene.fps) : "");
    }
    return text;
}

std::string StageTitleOf(const Scene& scene, size_t stage) {
    const bool isNamed = stage < scene.stageNames.size() && !scene.stageNames[stage].empty();
    return fmt::format("stage {}{}", stage,
                       isNamed ? ", " + Printable(scene.stageNames[stage]) : "");
}

CaptionedTable FigureTableOf(const Account& account, const JudgedScene& scene) {
    const Figures& figures = scene.figures;
    Rows rows = {{"times of", "n", "p50", "p90", "p95", "p99", "max"}};
    const auto add = [&](std::string name, const Statistics& times) {
        rows.push_back({std::move(name), std::to_string(times.count)});
        for (const Micros time : {times.p50, times.p90, times.p95, times.p99, times.max}) {
            rows.back().push_back(times.count == 0 ? "-" : Milliseconds(time, account.resolution));
        }
    };
    add("latency", figures.latency);
    add("output interval", figures.interval);
    for (size_t i = 0; i < figures.stages.size(); ++i) {
        const std::string title = StageTitleOf(scene, i);
        if (i == 0) {
            // How long stage 0 takes is not known: no line says when the sensor began.
            add(title + ": since the frame before", figures.works[i]);
            continue;
        }
        add(title, figures.stages[i]);
        if (figures.waits[i].max > 0) {  // Else all is work.
            add(title + ": waiting", figures.waits[i]);
            add(title + ": at work", figures.works[i]);
        }
    }
    const char* const exact = account.resolution >= MILLISECOND ? "1 ms" : "1 us";
    return {fmt::format("Milliseconds, as exact as the capture: {}", exact), std::move(rows)};
}

std::string ToString(const Account& account, const Place& place) {
    if (place.line == 0) {
        return "";
    }
    return account.inputs.size() > 1 && place.input < account.inputs.size()
               ? fmt::format("{}:{}", account.inputs[place.input], place.line)
               : fmt::format("line {}", place.line);
}

Json Milliseconds(Micros time) {
    return time == NO_TIME ? Json() : Json(static_cast<double>(time) / 1000);
}

std::string WordsOf(const Fate& fate) {
    return fmt::format("{}{}{}{}", NameOf(fate.status), fate.isLate ? ", late" : "",
                       fate.isNeverOut ? ", never out" : "",
                       fate.isUnknown ? ", lines missing" : "");
}

std::string DescriptionOf(const Fate& fate) {
    if (fate.isUnknown && fate.status != FrameStatus::Complete) {
        return fmt::format("{}: what became of it is not known", fate.reason);
    }
    if (fate.status == FrameStatus::Open) {
        return fate.isNeverOut && fate.stage >= 0
                   ? fmt::format("not seen to leave stage {}", fate.stage)
                   : "in flight at the end";
    }
    return fate.status == FrameStatus::Error && fate.stage >= 0
               ? fmt::format("stage {}: {}", fate.stage, fate.reason)
               : fate.reason;
}

Micros GoneOf(const JudgedScene& scene, size_t row) {
    const Frame& frame = scene.frames[row];
    if (frame.end != NO_TIME || frame.evicted != NO_TIME) {
        return frame.end != NO_TIME ? frame.end : frame.evicted;
    }
    const Fate& fate = scene.FateOf(row);
    const bool isGone = fate.isUnknown || (fate.isOut && !frame.isHeld);
    return isGone ? scene.LastOf(row).time : scene.stop;
}

std::map<Micros, int64_t> InFlightOf(const JudgedScene& scene) {
    std::map<Micros, int64_t> counts;
    for (size_t row = 0; row < scene.frames.size(); ++row) {
        if (const Micros start = scene.frames[row].start; start != NO_TIME) {
            ++counts[start];
            --counts[std::max(GoneOf(scene, row), start)];
        }
    }
    int64_t count = 0;
    for (auto& [time, change] : counts) {
        change = count += change;
    }
    return counts;
}

double RateOf(const JudgedScene& scene) {
    Micros passed = 0;
    for (const Fate& fate : scene.columns.fates) {
        passed += fate.interval == NO_TIME ? 0 : fate.interval;
    }
    const auto count = static_cast<double>(scene.figures.interval.count);
    return passed == 0 ? 0 : count * 1e6 / static_cast<double>(passed);
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
    const auto add = [&all](const std::vector<SceneFinding>& findings,
                            std::optional<size_t> scene) {
        for (size_t i = 0; i < findings.size(); ++i) {
            all.push_back({&findings[i], scene, i});
        }
    };
    add(account.findings, {});
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        add(account.scenes[i].findings, i);
    }
    std::ranges::stable_sort(all, std::greater(),
                             [](const PlacedFinding& one) { return SeverityOf(*one.finding); });
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
        const Configuration& now = loaded.configuration;
        auto same = std::ranges::find_if(all, [&now](const SharedConfiguration& other) {
            return Completed(now, other.configuration) == Completed(other.configuration, now);
        });
        if (same == all.end()) {
            same = all.insert(same, {loaded, {}, {}});
        } else if (Completed(same->configuration, now) != same->configuration) {
            same->configuration = Completed(same->configuration, now);
            same->findings = loaded.findings;
        }
        same->processes.insert(loaded.process);
    }
    for (SharedConfiguration& one : all) {
        one.title = "Configuration";
        if (all.size() > 1 && *one.processes.begin() >= 0) {
            one.title += fmt::format(" of process{} {}", one.processes.size() == 1 ? "" : "es",
                                     Join(one.processes));
        }
    }
    return all;
}

std::vector<DrawnThread> DrawnThreadsOf(const Account& account, const Scheduling* scheduling,
                                        size_t scene, Span span) {
    std::vector<DrawnThread> drawn;
    if (scheduling == nullptr) {
        return drawn;
    }
    const std::vector<SchedThread>& known = scheduling->trace.threads;
    std::map<int32_t, int32_t> stages;  // By the ids of threads.
    for (const SceneFinding& finding : account.scenes[scene].findings) {
        for (const CauseLink& link : finding.chain) {
            stages[link.thread] = -1;
        }
    }
    for (const ThreadUse& use : scheduling->scenes[scene].threads) {
        if (!use.stages.empty()) {
            stages[known[use.thread].tid] = use.stages.front();
        }
    }
    for (size_t thread = 0; thread < known.size(); ++thread) {
        const auto stage = stages.find(known[thread].tid);
        if (stage == stages.end()) {
            continue;
        }
        StateSpans& awake = drawn.emplace_back(DrawnThread{stage->second, known[thread], {}}).awake;
        for (StateSpan one : Within(scheduling->states.threads[thread], span)) {
            if (one.state != ThreadState::Sleeping && one.state < ThreadState::Gone) {
                static_cast<Span&>(one) = Cut(one, span);
                awake.push_back(one);
            }
        }
    }
    return drawn;
}

std::vector<CaptionedTable> ThreadTablesOf(const Scheduling* scheduling, size_t scene) {
    if (scheduling == nullptr || scheduling->scenes[scene].threads.empty()) {
        return {};
    }
    return {{"Threads, in milliseconds from the scene's first line to its last",
             ThreadsOf(*scheduling, scheduling->scenes[scene])},
            {"Waited for a CPU in each frame period, all threads together, milliseconds",
             WaitingOf(scheduling->scenes[scene])}};
}

std::string Packed(const std::string& bytes, int level) {
    uLongf size = compressBound(bytes.size());
    std::string packed(size, '\0');
    // Bytes of any type are the same to zlib.
    if (compress2(reinterpret_cast<Bytef*>(packed.data()), &size,
                  reinterpret_cast<const Bytef*>(bytes.data()), bytes.size(), level) != Z_OK) {
        throw std::bad_alloc();
    }
    packed.resize(size);
    return packed;
}

}  // namespace tools
