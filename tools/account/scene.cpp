// What is to be said of a scene as a whole: its stages, nodes, threads, table and clock.

#include <fmt/ranges.h>

#include <algorithm>
#include <map>

#include "cameraframeboost/tarvocameraframeboostutils.h"
#include "tools/account/wording.h"
#include "tools/base/text.h"

namespace tools {
namespace {

// Without so many frames it cannot be said that a stage is never hit.
constexpr size_t ENOUGH_FRAMES = 8;
constexpr size_t PLACES = FrameTracker::DEFAULT_MAX_FRAME_TRACKED;
// So many nodes are named in a sentence.
constexpr size_t MOST_NODES = 12;

// "port 3 or 5", "no port".
std::string PortsText(const ConfiguredStage& stage) {
    return stage.ports.empty() ? "no port" : fmt::format("port {}", fmt::join(stage.ports, " or "));
}

}  // namespace

void FindNeverHit(Judging& judging) {
    Scene& scene = judging.scene;
    const auto never = std::find_if(scene.order.begin(), scene.order.end(),
                                    [](const auto& left) { return left.empty(); });
    // Where no stage is reported at all, frames are all that the HAL reports.
    if (scene.frames.size() < ENOUGH_FRAMES || never == scene.order.end() ||
        judging.schedule.LastStage() < 0) {
        return;
    }
    const auto stage = static_cast<int32_t>(never - scene.order.begin());
    std::vector<int64_t> frames;
    const size_t number = judging.troubles.size();
    for (uint32_t frame = 0; frame < scene.frames.size(); ++frame) {
        const Frame& row = scene.frames[frame];
        const bool hasCome = stage == 0 || scene.PassOf(frame, stage - 1).HasLeft();
        // Frames that nobody starts are opened by stage 0.
        if ((row.isStarted || stage == 0) && !row.isEnded && hasCome) {
            frames.push_back(row.number);
            judging.Explain(frame, number);
        }
    }
    if (frames.empty()) {
        return;
    }
    judging.neverHit = stage;
    Trouble& trouble = judging.Raise(
        Check::StageNeverHit, Severity::Error, NO_INDEX, stage, scene.frames.front().place,
        scene.begin,
        fmt::format(wording::NEVER_HIT, fmt::arg("stage", judging.StageName(stage)),
                    fmt::arg("frames", Counted(static_cast<int64_t>(frames.size()), "frame"))));
    trouble.About(frames);
    trouble.finding.times = static_cast<int64_t>(frames.size());
}

// Of a scene without frames: its nodes are not those of the configuration.
void FindNoneHit(Judging& judging, const std::vector<ConfiguredStage>& configured) {
    const Scene& scene = judging.scene;
    std::vector<std::string> nodes, stages;
    int64_t most = 0;  // How often a node was reported.
    for (const Reporter& reporter : scene.reporters) {
        if (reporter.counts == true) {
            return;
        }
        most = std::max(most, reporter.times);
        std::string node = fmt::format("{} (port {})", Quoted(reporter.node), reporter.port);
        if (std::find(nodes.begin(), nodes.end(), node) == nodes.end()) {
            nodes.push_back(std::move(node));
        }
    }
    // In part of a scene the nodes of stages may be yet to come.
    const bool isWhole = scene.hasEnd && !scene.isBeginningMissing;
    if (nodes.empty() || !scene.frames.empty() ||
        (!isWhole && most < static_cast<int64_t>(ENOUGH_FRAMES))) {
        return;
    }
    if (nodes.size() > MOST_NODES) {
        const size_t more = nodes.size() - MOST_NODES;
        nodes.resize(MOST_NODES);
        nodes.push_back(fmt::format("{} more", more));
    }
    for (const ConfiguredStage& stage : configured) {
        stages.push_back(fmt::format("stage {} waits for {} ({})", stage.stage, Quoted(stage.node),
                                     PortsText(stage)));
    }
    judging.Raise(
        Check::StageNeverHit, Severity::Error, NO_INDEX, -1, scene.reporters.front().place, NO_TIME,
        fmt::format(wording::NONE_HIT, fmt::arg("nodes", Join(nodes)),
                    fmt::arg("were", nodes.size() == 1 ? "was" : "were"),
                    fmt::arg("stages", stages.empty() ? "the configured stages wait for others"
                                                      : Join(stages))));
}

// Frames that were pushed out of the table suffer from what held up the pipeline.
void FindEvictions(Judging& judging) {
    Scene& scene = judging.scene;
    std::vector<int64_t> unexplained;
    const Scene::Eviction* first = nullptr;
    for (const Scene::Eviction& eviction : scene.evictions) {
        if (!eviction.frame || judging.IsExplained(*eviction.frame) ||
            scene.frames[*eviction.frame].isUntold) {
            continue;
        }
        const Frame& row = scene.frames[*eviction.frame];
        Trouble* cause = nullptr;
        for (Trouble& trouble : judging.troubles) {
            const Check check = trouble.finding.check;
            const bool holdsUp = check == Check::SlowStage || check == Check::Stuck ||
                                 check == Check::FrameLost || check == Check::StageNeverHit ||
                                 check == Check::Standstill || check == Check::StageUnreported;
            // The latest before it; a slow stage rather than what may have come of that.
            const auto rank = [](const Trouble& one) {
                return std::pair(one.finding.check == Check::SlowStage, one.finding.time);
            };
            if (holdsUp && trouble.finding.time <= eviction.time &&
                (cause == nullptr || rank(trouble) >= rank(*cause))) {
                cause = &trouble;
            }
        }
        if (cause != nullptr) {
            cause->evicted.push_back(row.number);
            cause->finding.severity = Severity::Error;
            judging.Explain(*eviction.frame, static_cast<size_t>(cause - judging.troubles.data()));
            continue;
        }
        unexplained.push_back(row.number);
        first = first == nullptr ? &eviction : first;
        judging.Explain(*eviction.frame, judging.troubles.size());
    }
    if (first != nullptr) {
        const int32_t stage = judging.NextStage(*first->frame);
        Trouble& trouble = judging.Raise(
            Check::Evicted, Severity::Error, NO_INDEX, stage < scene.stageCount ? stage : -1,
            first->place, first->time,
            fmt::format(wording::PUSHED_OUT, fmt::arg("frames", FramesText(unexplained)),
                        fmt::arg("were", unexplained.size() == 1 ? "was" : "were")));
        trouble.cost = static_cast<int64_t>(unexplained.size());
        trouble.About(unexplained);
    }
    // Lost frames keep their places.
    std::vector<int64_t> held;
    for (uint32_t frame = 0; frame < scene.frames.size(); ++frame) {
        const Trouble* cause = judging.TroubleOf(frame);
        if (cause != nullptr && cause->finding.check == Check::FrameLost &&
            scene.frames[frame].isHeld) {
            held.push_back(scene.frames[frame].number);
        }
    }
    if (held.empty()) {
        return;
    }
    Trouble& trouble = judging.Raise(
        Check::SlotsHeld, 2 * held.size() >= PLACES ? Severity::Warning : Severity::Note, NO_INDEX,
        -1, scene.to, scene.end,
        fmt::format(wording::SLOTS_HELD,
                    fmt::arg("frames", Counted(static_cast<int64_t>(held.size()), "lost frame")),
                    fmt::arg("numbers", NumbersText(held)),
                    fmt::arg("their", held.size() == 1 ? "its place" : "their places"),
                    fmt::arg("places", PLACES)));
    trouble.finding.times = static_cast<int64_t>(held.size());
}

// Threads that report stages' ends and are not among those that the service was handed.
void FindThreads(Judging& judging) {
    const Scene& scene = judging.scene;
    if (!scene.hasThreads || scene.isBeginningMissing) {
        return;
    }
    std::map<uint16_t, const StagePass*> firstOf;  // By thread.
    for (const StagePass& pass : scene.passes) {
        if (pass.HasLeft() && (pass.seen & NODE_END) != 0 && pass.thread < scene.threads.size()) {
            firstOf.try_emplace(pass.thread, &pass);
        }
    }
    // A replay has one thread, which stands for all.
    if (firstOf.size() < 2) {
        return;
    }
    for (const auto& [thread, pass] : firstOf) {
        const int32_t tid = scene.threads[thread];
        if (tid == -1 || scene.setThreads.contains(tid) ||
            pass->reporter >= scene.reporters.size()) {
            continue;
        }
        const Reporter& reporter = scene.reporters[pass->reporter];
        judging.Raise(Check::ThreadNotSet, Severity::Note, NO_INDEX, reporter.stage, pass->place,
                      NO_TIME,
                      fmt::format(wording::THREAD_NOT_SET, fmt::arg("thread", tid),
                                  fmt::arg("node", Quoted(reporter.node))));
    }
}

// Node ends that end no stage.
void FindIgnored(Judging& judging, const std::vector<ConfiguredStage>& stages) {
    const Scene& scene = judging.scene;
    std::vector<Reporter> ignored;  // One for each node and port.
    for (const Reporter& reporter : scene.reporters) {
        if (reporter.counts == true) {
            continue;
        }
        const auto known =
            std::find_if(ignored.begin(), ignored.end(), [&reporter](const Reporter& other) {
                return other.node == reporter.node && other.port == reporter.port;
            });
        if (known == ignored.end()) {
            ignored.push_back(reporter);
        } else {
            known->times += reporter.times;
        }
    }
    for (const Reporter& reporter : ignored) {
        std::string text =
            fmt::format("node {}, port {}, ends no stage; reported {}", Quoted(reporter.node),
                        reporter.port, Counted(reporter.times, "time"));
        Severity severity = Severity::Note;
        int32_t stageNumber = -1;
        for (const ConfiguredStage& stage : stages) {
            const bool isNamed = reporter.node.find(stage.node) != std::string::npos;
            if (!isNamed && Folded(reporter.node).find(Folded(stage.node)) == std::string::npos) {
                continue;
            }
            const bool isHit = stage.stage >= 0 && stage.stage < scene.stageCount &&
                               !scene.order[static_cast<size_t>(stage.stage)].empty();
            stageNumber = stage.stage;
            text += fmt::format("; stage {} expects {}", stage.stage,
                                isNamed ? PortsText(stage)
                                        : Quoted(stage.node) + ", which differs in case or blanks");
            severity = !isHit || !isNamed ? Severity::Warning : Severity::Note;
            break;
        }
        Trouble& trouble = judging.Raise(Check::NodeIgnored, severity, NO_INDEX, stageNumber,
                                         reporter.place, NO_TIME, std::move(text));
        trouble.finding.times = reporter.times;
    }
}

void FindClockSteps(Judging& judging) {
    for (const auto& step : judging.scene.clockSteps) {
        const int64_t length = std::abs(step.amount);
        judging.Raise(
            Check::ClockJump, Severity::Warning, NO_INDEX, -1, step.place, step.time,
            fmt::format(
                wording::CLOCK_SET, fmt::arg("way", step.amount < 0 ? "back" : "forward"),
                fmt::arg("amount", length < 10 * SECOND
                                       ? fmt::format("{} ms", length / MILLISECOND)
                                       : fmt::format("{} s", (length + SECOND / 2) / SECOND))));
    }
}

}  // namespace tools
