// How a scene is set up: stages that no node ends, nodes that end none, threads that the service
// was not handed.

#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "tools/account/cause.h"
#include "tools/account/limits.h"
#include "tools/base/text.h"

namespace tools {
void FindStageNeverHit(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    if (!columns.neverHit) {
        return;
    }
    const int32_t stage = *columns.neverHit;
    Cause cause{.what = Case::NeverHit,
                .span = {scene.begin, scene.stop},
                .stage = stage,
                .at = {scene.begin}};
    for (uint32_t row = 0; row < scene.frames.size(); ++row) {
        const Frame& frame = scene.frames[row];
        const bool hasCome = stage == 0 || scene.PassOf(row, stage - 1).HasLeft();
        // Frames that nobody starts are opened by stage 0.
        if ((frame.isStarted || stage == 0) && !frame.isEnded && hasCome) {
            cause.own.push_back(frame.number);
        }
    }
    if (!cause.own.empty()) {
        cause.at.place = scene.frames.front().place;
        cause.times = std::ssize(cause.own);
        causes.push_back(std::move(cause));
    }
}

// Threads that report stages' ends and are not among those that the service was handed.
void FindThreadsNotSet(const Scene& scene, const Columns& /*columns*/, std::vector<Cause>& causes) {
    if (scene.isBeginningMissing) {
        return;
    }
    std::map<int32_t, const Pass*> firstOf;  // By thread, its first node end.
    for (const Pass& pass : scene.passes) {
        if (pass.HasLeft() && pass.thread != -1 && pass.reporter < scene.reporters.size()) {
            firstOf.try_emplace(pass.thread, &pass);
        }
    }
    // A replay has one thread, which stands for all.
    if (firstOf.size() < 2) {
        return;
    }
    for (const auto& [tid, pass] : firstOf) {
        if (!scene.setThreads.contains(tid)) {
            const Reporter& reporter = scene.reporters[pass->reporter];
            causes.push_back({.what = Case::NotSet,
                              .stage = reporter.stage,
                              .at = {NO_TIME, pass->left.place},
                              .other = tid,
                              .why = Quoted(reporter.node)});
        }
    }
}

// "port 3 or 5", "no port".
static std::string PortsText(const ConfiguredStage& stage) {
    return stage.ports.empty() ? "no port" : "port " + Join(stage.ports, " or ");
}

// Node ends that end no stage, once for each node and port.
void FindIgnoredNodes(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    std::map<std::pair<std::string, int32_t>, Cause> ignored;
    for (const Reporter& reporter : scene.reporters) {
        if (reporter.counts != true) {
            const Cause first{.what = Case::Ignored, .at = {NO_TIME, reporter.place}, .times = 0};
            ignored.try_emplace({reporter.node, reporter.port}, first).first->second.times +=
                reporter.times;
        }
    }
    Configuration known;
    known.stages = scene.configured;
    std::vector<std::string> waiting;
    for (const ConfiguredStage& stage : known.stages) {
        waiting.push_back(fmt::format("stage {} waits for {} ({})", stage.stage, Quoted(stage.node),
                                      PortsText(stage)));
    }
    // In part of a scene the nodes of stages may be yet to come.
    bool isEnough = scene.HasEnd() && !scene.isBeginningMissing;
    for (auto& [reporter, cause] : ignored) {
        const auto& [node, port] = reporter;
        isEnough = isEnough || cause.times >= static_cast<int64_t>(limits::ENOUGH_FRAMES);
        cause.why = fmt::format("node {}, port {}, ends no stage; reported {}", Quoted(node), port,
                                Counted(cause.times, "time"));
        if (const ConfiguredStage* const own = known.StageOf(node)) {
            cause.stage = own->stage;
            cause.why += fmt::format("; stage {} expects {}", own->stage, PortsText(*own));
            const bool isHit = own->stage >= 0 && own->stage < columns.stages &&
                               !columns.order[own->stage].empty();
            cause.atLeast = isHit ? Severity::Note : Severity::Warning;
        } else if (const auto near = NearMiss(known, node)) {
            cause.stage = near->stage;
            cause.why += fmt::format("; stage {} expects {}, which differs in case or blanks",
                                     near->stage, Quoted(near->node));
            cause.atLeast = Severity::Warning;
        }
        causes.push_back(cause);
    }
    if (!ignored.empty() && isEnough && !scene.opener && scene.frames.empty()) {
        causes.push_back(
            {.what = Case::NoneHit,
             .at = {NO_TIME, scene.reporters.front().place},
             .why = waiting.empty() ? "the configured stages wait for others" : Join(waiting)});
    }
}

Cause RefusalOf(const Scene& scene, const Configuration* configuration) {
    Cause cause{
        .what = Case::ServiceRefused, .at = {scene.begin, scene.from}, .times = scene.refusals};
    if (scene.refusal == MessageKind::NoVideo) {
        cause.what = Case::NoVideo;
    } else if (scene.refusal == MessageKind::SceneDisabled) {
        cause.what = Case::Disabled;
        if (configuration != nullptr) {
            cause.what = configuration->isEnabled ? Case::OtherMode : Case::SwitchedOff;
        }
    } else if (scene.refusal == MessageKind::Video) {
        cause.what = Case::OtherVideo;
        std::string allowed = "60 fps are";
        if (scene.fps == 60) {
            allowed = fmt::format("width {}", BOOST_WIDTH);
            if (configuration == nullptr || !configuration->additionalWidth) {
                allowed += ", and that of additionalSupportedWidth, which the log does not tell,";
            } else if (*configuration->additionalWidth != 0) {
                allowed += fmt::format(" or {}", *configuration->additionalWidth);
            }
            allowed += " is";
        }
        cause.why = fmt::format("width {} at {} fps; only {}", scene.width, scene.fps, allowed);
    }
    return cause;
}

}  // namespace tools
