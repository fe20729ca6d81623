// Compares how the checker and the library read a configuration.

#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "cameraframeboost/tarvocameraframeboostutils.h"
#include "host/desktop.h"
#include "tools/check/check.h"

// What differs between the table of `toml` and the configuration that the library loads of it, for
// `nodes` and the names in the table; empty when nothing does. Not for one that ends the process.
inline std::string Difference(const std::string& toml, std::vector<std::string> nodes) {
    const tools::CheckedConfiguration checked = tools::CheckConfiguration(toml);
    if (checked.isReadable == desktop::LoadConfiguration(toml, "same").has_value()) {
        return "readable";
    }
    const tools::Configuration& table = checked.table;
    if (tools::CheckConfiguration(tools::ToToml(table)).table != table) {
        return "written: " + tools::ToToml(table);
    }
    LocalConfig config;
    if (config.GetFrameboostSwitch() != table.isEnabled ||
        config.GetAdditionalSupportedWidth() != table.additionalWidth ||
        config.GetStageCount() != table.stageCount) {
        return "a single value";
    }
    std::vector<int32_t> modes = {-32767, -5, -1, 0, 1, 5, 9, 0x8001, 0x8005};
    modes.insert(modes.end(), table.modes.begin(), table.modes.end());
    for (const int32_t mode : modes) {
        if (config.IsModeSupported(mode) !=
            std::binary_search(table.modes.begin(), table.modes.end(), mode)) {
            return "mode " + std::to_string(mode);
        }
    }
    size_t loaded = 0;
    for (int32_t stage = -1; stage <= table.stageCount; ++stage) {
        NodePortInfo info;
        if (!config.GetNodePortByStage(stage, info)) {
            continue;
        }
        std::vector<int32_t> ports(info.nodePorts.begin(), info.nodePorts.end());
        std::sort(ports.begin(), ports.end());
        if (loaded == table.stages.size() ||
            table.stages[loaded++] != tools::ConfiguredStage{stage, info.nodeName, ports}) {
            return "stage " + std::to_string(stage);
        }
        nodes.push_back("x" + info.nodeName + "0");
    }
    if (loaded != table.stages.size()) {
        return "a stage too many";
    }
    for (const std::string& node : nodes) {
        const tools::ConfiguredStage* const stage = table.StageOf(node);
        if ((stage == nullptr ? -1 : stage->stage) != config.GetStageByNodeName(node)) {
            return "node " + node;
        }
        for (int32_t port = -2; port < 10; ++port) {
            if (table.IsStagePort(node, port) != config.IsStagePortVaild(node, port)) {
                return "port " + std::to_string(port) + " of " + node;
            }
        }
    }
    return "";
}
