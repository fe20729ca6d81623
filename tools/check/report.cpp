// How a configuration and what is found in it are written: for people, for programs, as TOML.

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "tools/check/check.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

// A text as TOML has it: as JSON has it, but for one character.
std::string TomlText(const std::string& text) {
    const auto replace = Json::error_handler_t::replace;
    std::string quoted = Json(text).dump(-1, ' ', false, replace);
    for (size_t at = 0; (at = quoted.find('\x7F', at)) != std::string::npos;) {
        quoted.replace(at, 1, "\\u007F");
    }
    return quoted;
}

std::string Pattern(const ConfiguredStage& stage) {
    return stage.node.empty() ? "*" : "*" + Printable(stage.node) + "*";
}

// Which of the names that a HAL reports are the stage's.
std::string MatchesOf(const ConfiguredStage& stage, const Configuration& table) {
    const ConfiguredStage& winner = *table.StageOf(stage.node);
    if (winner != stage) {
        return fmt::format("none: they are stage {}'s", winner.stage);
    }
    constexpr size_t longest = 200;
    std::string text = Pattern(stage);
    for (const ConfiguredStage& other : table.stages) {
        if (other.stage <= stage.stage || other.node.find(stage.node) == std::string::npos) {
            continue;
        }
        if (text.size() > longest) {
            return text + " ...";
        }
        text += fmt::format(", but {} is stage {}'s", Pattern(other), other.stage);
    }
    return text;
}

void WriteNodes(std::ostream& out, const Configuration& table,
                const std::vector<ReportedNode>& nodes) {
    Rows rows = {{"reported node", "port", "a frame", "ends"}};
    for (const ReportedNode& node : nodes) {
        const ConfiguredStage* const stage = table.StageOf(node.node);
        std::string ends = fmt::format("stage {}", node.stage);
        if (node.stage == -1) {
            ends = stage == nullptr
                       ? "nothing: no stage's name occurs in it"
                       : fmt::format("nothing: stage {} does not list the port", stage->stage);
        }
        rows.push_back(
            {Quoted(node.node), std::to_string(node.port), std::to_string(node.timesAFrame), ends});
    }
    out << '\n';
    WriteTable(out, rows, Cells::Text);
}

const std::string& NameOfInput(const CheckedFile& file, const Finding& finding) {
    return finding.place.input == NODES_INPUT ? file.nodesName : file.name;
}

Json JsonOf(const CheckedFile& file, const Finding& finding) {
    Json json = {{"file", NameOfInput(file, finding)},
                 {"line", finding.place.line},
                 {"column", finding.column},
                 {"severity", NameOf(finding.severity)},
                 {"check", finding.check},
                 {"message", finding.message}};
    if (finding.place.input == NODES_INPUT) {
        json["configuration"] = file.name;
    }
    return json;
}

Json TableOf(const CheckedFile& file) {
    Json json = {{"file", file.name}, {"endsProcess", file.checked.endsProcess}};
    json.update(JsonOf(file.checked.table));
    if (!file.nodesName.empty()) {
        json["nodes"] = Json::array();
    }
    for (const ReportedNode& node : file.nodes) {
        json["nodes"].push_back({{"node", node.node},
                                 {"port", node.port},
                                 {"timesAFrame", node.timesAFrame},
                                 {"stage", node.stage == -1 ? Json() : Json(node.stage)}});
    }
    return json;
}

}  // namespace

Rows SummaryOf(const Configuration& configuration) {
    const auto width = configuration.additionalWidth;
    const size_t loaded = configuration.stages.size();
    const auto count = configuration.stageCount.value_or(static_cast<int32_t>(loaded));
    std::string modes;
    for (const int32_t mode : configuration.modes) {
        modes += fmt::format("{}{} ({})", modes.empty() ? "" : ", ", ModeText(mode), mode);
    }
    std::string widths = std::to_string(BOOST_WIDTH);
    if (!width) {
        widths += ", and another if one is configured";
    } else if (*width != BOOST_WIDTH) {
        widths += fmt::format(", {}{}", *width, *width == 0 ? " (none is configured)" : "");
    }
    return {{"boosting", configuration.isEnabled ? "on" : "off"},
            {"accepted widths", widths},
            {"operation modes", modes.empty() ? "none" : modes},
            {"stages", std::to_string(count) + (count == static_cast<int64_t>(loaded)
                                                    ? ""
                                                    : fmt::format(", {} of them loaded", loaded))}};
}

Rows StagesOf(const Configuration& configuration) {
    Rows rows = {{"stage", "node", "ports", "names that match"}};
    for (const ConfiguredStage& stage : configuration.stages) {
        const std::string ports = fmt::format("{}", fmt::join(stage.ports, " "));
        rows.push_back({std::to_string(stage.stage), Quoted(stage.node),
                        ports.empty() ? "none" : ports, MatchesOf(stage, configuration)});
    }
    return rows;
}

Json JsonOf(const Configuration& configuration) {
    // What is not known is null.
    const auto& [isEnabled, width, modes, stageCount, stages] = configuration;
    Json json = {{"isEnabled", isEnabled},
                 {"acceptedWidths", width ? Json(std::set<int32_t>{BOOST_WIDTH, *width}) : Json()},
                 {"modes", Json::array()},
                 {"stageCount", stageCount ? Json(*stageCount) : Json()},
                 {"stages", Json::array()}};
    for (const int32_t mode : modes) {
        json["modes"].push_back({{"mode", mode}, {"hexadecimal", ModeText(mode)}});
    }
    for (const auto& [stage, node, ports] : stages) {
        json["stages"].push_back({{"stage", stage}, {"node", node}, {"ports", ports}});
    }
    return json;
}

std::string ToToml(const Configuration& configuration) {
    std::string text = fmt::format("[TarvoCameraFrameBoostConfig]\ncameraFrameBoostEnable = {}\n",
                                   configuration.isEnabled);
    if (!configuration.additionalWidth) {
        text += "# additionalSupportedWidth: not known\n";
    } else if (*configuration.additionalWidth != 0) {
        text += fmt::format("additionalSupportedWidth = {}\n", *configuration.additionalWidth);
    }
    text += "SupportOperationModeList = [";
    for (const int32_t mode : configuration.modes) {
        text += (text.back() == '[' ? "" : ", ") + ModeText(mode);
    }
    text += "]\n\n[TarvoCameraFrameBoostConfig.stage]\n";

    // Null for those that count and could not be loaded: no more than 1,000 of these.
    std::map<int32_t, const ConfiguredStage*> numbered;
    const int32_t last = configuration.stages.empty() ? -1 : configuration.stages.back().stage;
    for (int32_t i = 0; i < std::min(configuration.stageCount.value_or(last), 1000); ++i) {
        numbered[i] = nullptr;
    }
    for (const ConfiguredStage& stage : configuration.stages) {
        numbered[stage.stage] = &stage;
    }
    for (const auto& [number, stage] : numbered) {
        text += fmt::format("{} = [", number);
        if (stage != nullptr) {
            text += TomlText(stage->node);
            for (const int32_t port : stage->ports) {
                text += fmt::format(", \"{}\"", port);
            }
        }
        text += "]\n";
    }
    if (!configuration.stageCount) {
        text += "# How many stages there are in all: not known\n";
    }
    return text;
}

void WriteText(std::ostream& out, const CheckedFile& file) {
    for (const Finding& finding : file.checked.findings) {
        out << ToString(finding, NameOfInput(file, finding)) << '\n';
    }
    if (!file.checked.isReadable) {
        return;
    }
    const Configuration& table = file.checked.table;
    out << (file.checked.findings.empty() ? "" : "\n") << file.name
        << ", as the library reads it:\n";
    if (file.checked.endsProcess) {
        out << "  It ends the process. Without that:\n";
    }
    WriteTable(out, SummaryOf(table), Cells::Text);
    if (!table.stages.empty()) {
        out << '\n';
        WriteTable(out, StagesOf(table), Cells::Text);
        out << "  A * stands for any text. Where several names match, the highest stage's "
               "counts.\n";
    }
    if (!file.nodes.empty()) {
        WriteNodes(out, table, file.nodes);
    }
}

void WriteJson(std::ostream& out, const std::vector<CheckedFile>& files) {
    Json findings = Json::array();
    Json tables = Json::array();
    for (const CheckedFile& file : files) {
        for (const Finding& finding : file.checked.findings) {
            findings.push_back(JsonOf(file, finding));
        }
        tables.push_back(file.checked.isReadable ? TableOf(file) : Json());
    }
    Json json = {{"findings", findings}};
    json.update(files.size() == 1 ? Json{{"table", tables[0]}} : Json{{"tables", tables}});
    out << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

}  // namespace tools
