// How a configuration and what is found in it are written: for people, for programs, as TOML.

#include "tools/check/report.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>

namespace tools {
namespace {

// More stages than this are not made up to fill a gap.
constexpr int32_t MOST_FILLED = 1000;

// A text as TOML has it: as JSON has it, but for one character.
std::string TomlText(const std::string& text) {
    const auto replace = nlohmann::json::error_handler_t::replace;
    std::string quoted = nlohmann::json(text).dump(-1, ' ', false, replace);
    for (size_t at = 0; (at = quoted.find('\x7F', at)) != std::string::npos;) {
        quoted.replace(at, 1, "\\u007F");
    }
    return quoted;
}

using Json = nlohmann::ordered_json;
using Rows = std::vector<std::vector<std::string>>;

// In columns, each as wide as its widest text.
void WriteRows(std::ostream& out, const Rows& rows) {
    std::vector<size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            line += "  " + row[i];
            line += i + 1 < row.size() ? std::string(widths[i] - row[i].size(), ' ') : "";
        }
        out << line << '\n';
    }
}

template <typename Values, typename ToText>
std::string Joined(const Values& values, const char* separator, const char* none, ToText toText) {
    std::string text;
    for (const auto& value : values) {
        text += (text.empty() ? "" : separator) + toText(value);
    }
    return text.empty() ? none : text;
}

std::string Pattern(const ConfiguredStage& stage) {
    return stage.node.empty() ? "*" : "*" + Printable(stage.node) + "*";
}

// Which of the names that a HAL reports are the stage's.
std::string MatchesOf(const ConfiguredStage& stage, const Configuration& table) {
    const int32_t winner = table.StageOf(stage.node);
    if (winner != stage.stage) {
        return "none: they are stage " + std::to_string(winner) + "'s";
    }
    constexpr size_t longest = 200;
    std::string text = Pattern(stage);
    for (const ConfiguredStage& other : table.stages) {
        const bool isOther =
            other.stage > stage.stage && other.node.find(stage.node) != std::string::npos;
        if (isOther && text.size() > longest) {
            return text + " ...";
        }
        if (isOther) {
            text += ", but " + Pattern(other) + " is stage " + std::to_string(other.stage) + "'s";
        }
    }
    return text;
}

void WriteSummary(std::ostream& out, const Configuration& table) {
    const int32_t width = table.additionalWidth.value_or(0);
    const auto count = static_cast<size_t>(table.stageCount.value_or(0));
    const size_t loaded = table.stages.size();
    const auto modeText = [](int32_t mode) {
        return ModeText(mode) + " (" + std::to_string(mode) + ")";
    };
    WriteRows(out,
              {{"boosting", table.isEnabled ? "on" : "off"},
               {"accepted widths", width == 0      ? "3840, 0 (none is configured)"
                                   : width == 3840 ? "3840"
                                                   : "3840, " + std::to_string(width)},
               {"operation modes", Joined(table.modes, ", ", "none", modeText)},
               {"stages",
                std::to_string(count) +
                    (count == loaded ? "" : ", " + std::to_string(loaded) + " of them loaded")}});
}

void WriteStages(std::ostream& out, const Configuration& table) {
    if (table.stages.empty()) {
        return;
    }
    Rows rows = {{"stage", "node", "ports", "names that match"}};
    for (const ConfiguredStage& stage : table.stages) {
        const auto portText = [](int32_t port) { return std::to_string(port); };
        rows.push_back({std::to_string(stage.stage), Quoted(stage.node),
                        Joined(stage.ports, " ", "none", portText), MatchesOf(stage, table)});
    }
    out << '\n';
    WriteRows(out, rows);
    out << "  A * stands for any text. Where several names match, the highest stage's counts.\n";
}

void WriteNodes(std::ostream& out, const Configuration& table,
                const std::vector<ReportedNode>& nodes) {
    if (nodes.empty()) {
        return;
    }
    Rows rows = {{"reported node", "port", "a frame", "ends"}};
    for (const ReportedNode& node : nodes) {
        const int32_t stage = table.StageOf(node.node);
        rows.push_back(
            {Quoted(node.node), std::to_string(node.port), std::to_string(node.timesAFrame),
             node.stage != -1 ? "stage " + std::to_string(node.stage)
             : stage == -1
                 ? "nothing: no stage's name occurs in it"
                 : "nothing: stage " + std::to_string(stage) + " does not list the port"});
    }
    out << '\n';
    WriteRows(out, rows);
}

Json JsonOf(const Finding& finding, const std::string& file) {
    return {{"file", file},
            {"line", finding.place.line},
            {"column", finding.column},
            {"severity", NameOf(finding.severity)},
            {"check", finding.check},
            {"message", finding.message}};
}

Json TableOf(const CheckedFile& file) {
    const Configuration& table = file.checked.table;
    Json json = {{"file", file.name},
                 {"endsProcess", file.checked.endsProcess},
                 {"isEnabled", table.isEnabled},
                 {"acceptedWidths", std::set<int32_t>{3840, table.additionalWidth.value_or(0)}},
                 {"modes", Json::array()},
                 {"stageCount", table.stageCount.value_or(0)},
                 {"stages", Json::array()}};
    for (const int32_t mode : table.modes) {
        json["modes"].push_back({{"mode", mode}, {"hexadecimal", ModeText(mode)}});
    }
    for (const ConfiguredStage& stage : table.stages) {
        json["stages"].push_back(
            {{"stage", stage.stage}, {"node", stage.node}, {"ports", stage.ports}});
    }
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

std::string ToToml(const Configuration& configuration) {
    std::string text = "[TarvoCameraFrameBoostConfig]\ncameraFrameBoostEnable = ";
    text += configuration.isEnabled ? "true\n" : "false\n";
    if (!configuration.additionalWidth) {
        text += "# additionalSupportedWidth: not known\n";
    } else if (*configuration.additionalWidth != 0) {
        text += "additionalSupportedWidth = " + std::to_string(*configuration.additionalWidth);
        text += '\n';
    }
    text += "SupportOperationModeList = [";
    for (const int32_t mode : configuration.modes) {
        text += (text.back() == '[' ? "" : ", ") + ModeText(mode);
    }
    text += "]\n\n[TarvoCameraFrameBoostConfig.stage]\n";

    // An empty list is what counts as a stage and is not loaded.
    int64_t next = 0;
    const auto fillTo = [&text, &next](int64_t end) {
        for (int32_t filled = 0; next < end && filled < MOST_FILLED; ++filled) {
            text += std::to_string(next++) + " = []\n";
        }
    };
    for (const ConfiguredStage& stage : configuration.stages) {
        fillTo(stage.stage);
        text += std::to_string(stage.stage) + " = [" + TomlText(stage.node);
        for (const int32_t port : stage.ports) {
            text += ", \"" + std::to_string(port) + '"';
        }
        text += "]\n";
        next = int64_t{stage.stage} + 1;
    }
    if (configuration.stageCount) {
        fillTo(*configuration.stageCount);
    } else {
        text += "# How many stages there are in all: not known\n";
    }
    return text;
}

void WriteText(std::ostream& out, const CheckedFile& file) {
    for (const Finding& finding : file.checked.findings) {
        out << ToString(finding, file.name) << '\n';
    }
    for (const Finding& finding : file.nodeFindings) {
        out << ToString(finding, file.nodesName) << '\n';
    }
    if (!file.checked.isReadable) {
        return;
    }
    const Configuration& table = file.checked.table;
    out << (file.checked.findings.empty() && file.nodeFindings.empty() ? "" : "\n") << file.name
        << ", as the library reads it:\n";
    if (file.checked.endsProcess) {
        out << "  It ends the process. Without that:\n";
    }
    WriteSummary(out, table);
    WriteStages(out, table);
    WriteNodes(out, table, file.nodes);
}

void WriteJson(std::ostream& out, const std::vector<CheckedFile>& files) {
    Json json;
    json["findings"] = Json::array();
    Json tables = Json::array();
    for (const CheckedFile& file : files) {
        for (const Finding& finding : file.checked.findings) {
            json["findings"].push_back(JsonOf(finding, file.name));
        }
        for (const Finding& finding : file.nodeFindings) {
            json["findings"].push_back(JsonOf(finding, file.nodesName));
            json["findings"].back()["configuration"] = file.name;
        }
        tables.push_back(file.checked.isReadable ? TableOf(file) : Json());
    }
    if (files.size() == 1) {
        json["table"] = tables[0];
    } else {
        json["tables"] = std::move(tables);
    }
    out << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

}  // namespace tools
