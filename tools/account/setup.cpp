// How a scene is set up: stages that no node ends, nodes that end none, threads that the service
// was not handed.

#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "tools/account/cause.h"
#include "tools/account/limits.h"
#include "tools/base/text.h"

namespace tools {
namespace {

void FindNeverHit(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    if (!columns.neverHit) {
        return;
    }
    const int32_t stage = *columns.neverHit;
    Cause cause{.what = Case::NeverHit, .span = {scene.begin, scene.stop}, .stage = stage};
    for (uint32_t row = 0; row < scene.frames.size(); ++row) {
        const Frame& frame = scene.frames[row];
        const bool hasCome = stage == 0 || scene.PassOf(row, stage - 1).HasLeft();
        // Frames that nobody starts are opened by stage 0.
        if ((frame.isStarted || stage == 0) && !frame.isEnded && hasCome) {
            cause.own.push_back(frame.number);
        }
    }
    if (!cause.own.empty()) {
        cause.place = scene.frames.front().place;
        cause.time = scene.begin;
        causes.push_back(std::move(cause));
    }
}

// Threads that report stages' ends and are not among those that the service was handed.
void FindThreads(const Scene& scene, std::vector<Cause>& causes) {
    if (!scene.hasThreads || scene.isBeginningMissing) {
        return;
    }
    std::map<int32_t, const Pass*> firstOf;  // By thread.
    for (const Pass& pass : scene.passes) {
        if (pass.HasLeft() && (pass.seen & NODE_END) != 0) {
            firstOf.try_emplace(pass.thread, &pass);
        }
    }
    // A replay has one thread, which stands for all.
    if (firstOf.size() < 2) {
        return;
    }
    for (const auto& [tid, pass] : firstOf) {
        if (tid != -1 && !scene.setThreads.contains(tid) &&
            pass->reporter < scene.reporters.size()) {
            const Reporter& reporter = scene.reporters[pass->reporter];
            causes.push_back({.what = Case::NotSet,
                              .stage = reporter.stage,
                              .place = pass->place,
                              .other = tid,
                              .why = Quoted(reporter.node)});
        }
    }
}

constexpr size_t MOST_NODES = 12;  // So many are named in a sentence.

// "port 3 or 5", "no port".
std::string PortsText(const ConfiguredStage& stage) {
    std::string text;
    for (size_t i = 0; i < stage.ports.size(); ++i) {
        const char* const comma = i + 1 == stage.ports.size() ? " or " : ", ";
        text += (i == 0 ? "" : comma) + fmt::to_string(stage.ports[i]);
    }
    return text.empty() ? "no port" : "port " + text;
}

// Nodes that end no stage, once for each port.
std::vector<Reporter> IgnoredOf(const Scene& scene) {
    std::vector<Reporter> ignored;
    for (const Reporter& reporter : scene.reporters) {
        const auto known =
            std::find_if(ignored.begin(), ignored.end(), [&reporter](const Reporter& other) {
                return other.node == reporter.node && other.port == reporter.port;
            });
        if (reporter.counts == true) {
            continue;
        }
        if (known == ignored.end()) {
            ignored.push_back(reporter);
        } else {
            known->times += reporter.times;
        }
    }
    return ignored;
}

// A scene without frames: its nodes are not those of the configuration.
void FindNoneHit(const Scene& scene, const std::vector<Reporter>& ignored,
                 std::vector<Cause>& causes) {
    // In part of a scene the nodes of stages may be yet to come.
    const bool isWhole = scene.HasEnd() && !scene.isBeginningMissing;
    const bool isEnough =
        isWhole || std::any_of(ignored.begin(), ignored.end(), [](const Reporter& one) {
            return one.times >= static_cast<int64_t>(limits::ENOUGH_FRAMES);
        });
    const bool hasOthers =
        std::any_of(scene.reporters.begin(), scene.reporters.end(),
                    [](const Reporter& reporter) { return reporter.counts == true; });
    if (ignored.empty() || hasOthers || !scene.frames.empty() || !isEnough) {
        return;
    }
    std::vector<std::string> nodes, stages;
    for (size_t i = 0; i < std::min(ignored.size(), MOST_NODES); ++i) {
        nodes.push_back(fmt::format("{} (port {})", Quoted(ignored[i].node), ignored[i].port));
    }
    if (ignored.size() > MOST_NODES) {
        nodes.push_back(fmt::format("{} more", ignored.size() - MOST_NODES));
    }
    for (const ConfiguredStage& stage : scene.configured) {
        stages.push_back(fmt::format("stage {} waits for {} ({})", stage.stage, Quoted(stage.node),
                                     PortsText(stage)));
    }
    causes.push_back(
        {.what = Case::NoneHit,
         .place = ignored.front().place,
         .why =
             fmt::format("{} {} reported, and {}", Join(nodes), nodes.size() == 1 ? "was" : "were",
                         stages.empty() ? "the configured stages wait for others" : Join(stages))});
}

// Node ends that end no stage.
void FindIgnored(const Scene& scene, const Columns& columns, const std::vector<Reporter>& ignored,
                 std::vector<Cause>& causes) {
    for (const Reporter& reporter : ignored) {
        Cause cause{.what = Case::Ignored, .place = reporter.place, .count = reporter.times};
        cause.why =
            fmt::format("node {}, port {}, ends no stage; reported {}", Quoted(reporter.node),
                        reporter.port, Counted(reporter.times, "time"));
        for (const ConfiguredStage& stage : scene.configured) {
            const bool isNamed = reporter.node.find(stage.node) != std::string::npos;
            if (!isNamed && Folded(reporter.node).find(Folded(stage.node)) == std::string::npos) {
                continue;
            }
            const bool isHit = stage.stage >= 0 && stage.stage < columns.stages &&
                               !columns.order[stage.stage].empty();
            cause.stage = stage.stage;
            cause.why +=
                fmt::format("; stage {} expects {}", stage.stage,
                            isNamed ? PortsText(stage)
                                    : Quoted(stage.node) + ", which differs in case or blanks");
            cause.atLeast = isHit && isNamed ? Severity::Note : Severity::Warning;
            break;
        }
        causes.push_back(std::move(cause));
    }
}

}  // namespace

void FindSetUp(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    FindNeverHit(scene, columns, causes);
    FindThreads(scene, causes);
    const std::vector<Reporter> ignored = IgnoredOf(scene);
    FindNoneHit(scene, ignored, causes);
    FindIgnored(scene, columns, ignored, causes);
}

Cause RefusalOf(const Scene& scene, const Configuration* configuration) {
    Cause cause{.what = Case::NotBoosted,
                .place = scene.from,
                .time = scene.begin,
                .count = scene.refusals};
    const bool isKnown = configuration != nullptr && configuration->additionalWidth.has_value();
    const int32_t extra = isKnown ? *configuration->additionalWidth : 0;
    switch (scene.refusal) {
        case Refusal::NoVideo:
            cause.why = "the scene was described as no video; only video is boosted";
            break;
        case Refusal::Description:
            cause.atLeast = Severity::Warning;
            cause.why = fmt::format("the scene was described as video of width {} at {} fps; only ",
                                    scene.width, scene.fps);
            if (scene.fps != 60) {
                cause.why += "60 fps are boosted";
            } else if (extra != 0) {
                cause.why += fmt::format("width {} or {} is boosted", BOOST_WIDTH, extra);
            } else {
                cause.why += fmt::format("width {} is boosted", BOOST_WIDTH);
                cause.why += isKnown ? ""
                                     : ", and that of additionalSupportedWidth, which the log does "
                                       "not tell";
            }
            break;
        case Refusal::Disabled:
            cause.atLeast = Severity::Error;
            if (configuration == nullptr) {
                cause.why =
                    "boosting is switched off, or the operation mode is not supported; the "
                    "capture lacks the configuration that would tell which";
            } else {
                cause.why = configuration->isEnabled
                                ? "its operation mode is not in SupportOperationModeList"
                                : "boosting is switched off (cameraFrameBoostEnable)";
            }
            break;
        default:
            cause.atLeast = Severity::Error;
            cause.why = "the boost service refused the scene";
    }
    return cause;
}

}  // namespace tools
