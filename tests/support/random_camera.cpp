#include "tests/support/random_camera.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>
#include <vector>

using tools::CameraNode;
using tools::Fault;
using tools::FaultKind;

tools::Camera RandomCamera(uint64_t seed) {
    constexpr std::array<const char*, 10> stageNames = {
        "SensorFrontEnd", "BayerProcessor", "MCTFE0_cam", "NoiseFilter",     "Demosaic",
        "ToneMapper",     "LensWarp",       "Sharpener",  "VideoStabilizer", "EncoderFeed"};
    constexpr std::array<const char*, 3> branchNames = {"FocusStatistics", "PreviewScaler",
                                                        "FaceFinder"};
    // Frames without a fault stay well within 1.5 periods of each other: the nodes' times vary by
    // at most 1.5 * maxSpreads together, and no node makes the next frame wait.
    constexpr tools::Micros maxSpreads = 4000;
    constexpr int64_t gap = 60;  // Frames between faults.

    uint64_t drawn = 0;
    const auto draw = [&](int64_t lowest, int64_t highest) {
        const auto range = static_cast<uint64_t>(highest - lowest + 1);
        return lowest + static_cast<int64_t>(tools::Hash(seed, 0, drawn++) % range);
    };
    tools::Camera camera;
    camera.seed = seed;
    camera.id = static_cast<int32_t>(draw(0, 3));
    camera.width = draw(0, 2) == 0 ? 4096 : 3840;
    const int64_t stages = draw(2, 7);
    auto firstName = static_cast<size_t>(draw(0, stageNames.size() - 1));
    size_t branches = 0;
    for (int64_t stage = 0; stage < stages; ++stage) {
        CameraNode node;
        node.name = stageNames[firstName++ % stageNames.size()] + std::to_string(camera.id);
        const int64_t ports = draw(1, 3);
        const auto port = static_cast<int32_t>(draw(0, 20));
        for (int32_t i = 0; i < ports; ++i) {
            node.ports.push_back(port + i);
        }
        node.median = draw(2000, 9000);
        node.spread = draw(100, maxSpreads / stages);
        camera.nodes.push_back(node);
        if (branches < branchNames.size() && draw(0, 3) == 0) {
            camera.nodes.push_back(
                {branchNames[branches++], {0}, true, draw(1000, 6000), draw(0, 1000)});
        }
    }
    camera.frames = draw(1, 4) * gap + gap / 2;
    const std::vector<CameraNode> nodes = camera.Stages();
    for (int64_t frame = gap / 2; frame < camera.frames - gap / 2; frame += gap) {
        Fault fault;
        fault.kind = static_cast<FaultKind>(draw(0, tools::FAULT_KINDS - 1));
        fault.frame = frame + draw(0, gap / 4);
        const auto stage = static_cast<int32_t>(draw(0, stages - 1));
        if (fault.kind == FaultKind::SecondPort &&
            nodes[static_cast<size_t>(stage)].ports.size() < 2) {
            fault.kind = FaultKind::Unreported;
        }
        fault.stage = stage;
        fault.amount = 1;
        // Drops the values that its kind does not have.
        fault = tools::ParseFault(ToString(fault));
        // Enough milliseconds to make a frame late; lines of more than one frame.
        fault.amount = fault.amount == 0 ? 0 : draw(30, 60);
        camera.faults.push_back(fault);
    }
    return camera;
}

tools::Configuration ConfigurationOf(const tools::Camera& camera) {
    tools::Configuration configuration;
    configuration.isEnabled = true;
    configuration.additionalWidth = camera.width;
    configuration.modes = {camera.mode.value_or(0x8001)};
    for (const CameraNode& node : camera.Stages()) {
        std::vector<int32_t> ports = node.ports;
        std::sort(ports.begin(), ports.end());
        configuration.stages.push_back(
            {static_cast<int32_t>(configuration.stages.size()), node.name, std::move(ports)});
    }
    configuration.stageCount = static_cast<int32_t>(configuration.stages.size());
    return configuration;
}
