// Everything that a configuration store may answer, right or wrong, and what the library has to
// make of it.

#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "cameraframeboost/tarvocameraframeboostutils.h"
#include "host/desktop.h"

struct StoreContents {
    // A list: how long the store says it is, whether it can be read, and the slots that the store
    // fills, of those that there is room for, whether it can or not.
    template <typename Value>
    struct List {
        int32_t count = 0;
        int32_t status = -1;
        std::vector<Value> values;
    };
    using Text = std::optional<std::string>;  // A slot that is left null has none.

    std::optional<int32_t> width;
    std::optional<uint32_t> flag;
    int32_t valueStatus = 0;  // Of these two.
    List<uint32_t> modes;
    int32_t stageCount = 0;
    std::vector<List<Text>> stages;  // For any other stage the store fails.

    // Lets the store answer so.
    void Serve() const {
        using desktop::StoreFunction;
        desktop::LoadConfiguration("", "contents");
        desktop::SetStoreScript([contents = *this](desktop::StoreAnswer& answer) {
            const auto number = answer.localeKey.empty()
                                    ? contents.stages.size()
                                    : std::stoul(std::string(answer.localeKey));
            const List<Text> list =
                number < contents.stages.size() ? contents.stages[number] : List<Text>();
            const auto room = [&answer](const auto& values) {
                return std::min(values.size(), static_cast<size_t>(answer.length));
            };
            switch (answer.function) {
                case StoreFunction::GetInteger:
                    *answer.integer = contents.width.value_or(*answer.integer);
                    answer.result = contents.valueStatus;
                    break;
                case StoreFunction::GetBoolean:
                    *answer.numbers = contents.flag.value_or(*answer.numbers);
                    answer.result = contents.valueStatus;
                    break;
                case StoreFunction::GetValuesCount:
                    answer.result = contents.modes.count;
                    break;
                case StoreFunction::GetUIntegerList:
                    std::copy_n(contents.modes.values.begin(), room(contents.modes.values),
                                answer.numbers);
                    answer.result = contents.modes.status;
                    break;
                case StoreFunction::GetLocaleKeyCount:
                    answer.result = contents.stageCount;
                    break;
                case StoreFunction::GetLocaleKeyValuesCount:
                    answer.result = list.count;
                    break;
                case StoreFunction::GetLocaleStringList:
                    for (size_t i = 0; i < room(list.values); ++i) {
                        answer.texts[i] =
                            list.values[i] ? desktop::NewStoreText(*list.values[i]) : nullptr;
                    }
                    answer.result = list.status;
                    break;
            }
        });
    }

    // The stage table that is to come of it; nothing when the process has to end.
    std::optional<std::map<int32_t, NodePortInfo>> Table() const {
        std::map<int32_t, NodePortInfo> table;
        const auto last = std::clamp<int64_t>(stageCount, 0, int64_t(stages.size()));
        for (int32_t stage = 0; stage < last; ++stage) {
            const auto& [count, status, values] = stages[static_cast<size_t>(stage)];
            if (status != 0) {
                break;
            }
            const size_t filled = std::min(values.size(), static_cast<size_t>(std::max(count, 0)));
            if (filled == 0 || !values[0]) {
                continue;
            }
            NodePortInfo& info = table[stage];
            info.nodeName = values[0]->substr(0, values[0]->find('\0'));
            for (size_t i = 1; i < filled; ++i) {
                try {
                    if (values[i]) {
                        info.nodePorts.insert(std::stoi(*values[i]));
                    }
                } catch (const std::logic_error&) {
                    return std::nullopt;
                }
            }
        }
        return table;
    }

    // What is wrong with the configuration that was loaded from it; nothing when all is right.
    std::string Compare(LocalConfig& config, const std::vector<std::string>& nodes) const {
        const bool isOff = modes.count > 0 && modes.status != 0;
        if (config.GetFrameboostSwitch() != (flag.value_or(0) != 0 && !isOff) ||
            config.GetAdditionalSupportedWidth() != width.value_or(0) ||
            config.GetStageCount() != stageCount) {
            return "a single value";
        }
        std::set<uint32_t> known;
        if (modes.count > 0 && modes.status == 0) {
            const size_t filled = std::min(modes.values.size(), static_cast<size_t>(modes.count));
            known.insert(modes.values.begin(), std::next(modes.values.begin(), long(filled)));
            if (static_cast<size_t>(modes.count) > filled) {
                known.insert(0);  // What the store leaves alone.
            }
        }
        std::set<uint32_t> asked(modes.values.begin(), modes.values.end());
        asked.insert({0, 1, 0x8001});
        for (const uint32_t mode : asked) {
            if (config.IsModeSupported(static_cast<int32_t>(mode)) != (known.count(mode) != 0)) {
                return "mode " + std::to_string(mode);
            }
        }

        const std::map<int32_t, NodePortInfo> table = *Table();
        for (int32_t stage = -1; stage <= int32_t(stages.size()); ++stage) {
            NodePortInfo info;
            const auto expected = table.find(stage);
            if (config.GetNodePortByStage(stage, info) != (expected != table.end()) ||
                (expected != table.end() && (info.nodeName != expected->second.nodeName ||
                                             info.nodePorts != expected->second.nodePorts))) {
                return "stage " + std::to_string(stage);
            }
        }
        for (const std::string& node : nodes) {
            int32_t stage = -1;
            std::set<int32_t> ports;
            for (const auto& [number, info] : table) {
                if (node.find(info.nodeName) != std::string::npos) {
                    stage = number;
                    ports.insert(info.nodePorts.begin(), info.nodePorts.end());
                }
            }
            if (config.GetStageByNodeName(node) != stage ||
                config.IsNodeNameMatch(node) != (stage != -1)) {
                return "node " + node;
            }
            for (const int32_t port : {0, 1, 2, 3, 4}) {
                if (config.IsStagePortVaild(node, port) != (ports.count(port) != 0)) {
                    return "port " + std::to_string(port) + " of node " + node;
                }
            }
        }
        return "";
    }
};
