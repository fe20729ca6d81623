#include "tools/check/nodes.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <map>
#include <utility>

#include "tools/base/words.h"

namespace tools {
namespace {

// Reads a line of a file of nodes; nothing from an empty one.
std::optional<ReportedNode> ReadNode(std::string_view line, uint32_t number) {
    const std::vector<Word> words = SplitWords(line);
    if (words.empty()) {
        return std::nullopt;
    }
    RequireWords(words, 3, 3, "a line of node port times");
    return ReportedNode{words[0].text, ReadInteger<int32_t>(words[1], "port"),
                        ReadInteger<int32_t>(words[2], "times", 0), number};
}

Finding MakeFinding(const char* check, Severity severity, uint32_t line, std::string message) {
    return {check, severity, std::move(message), {0, line}};
}

// Why a node end leads to nothing, or to what it should not.
void CheckNode(const Configuration& table, const ReportedNode& node,
               std::vector<Finding>& findings) {
    const std::string name = Quoted(node.node);
    if (const auto near = NearMiss(table, node.node)) {
        findings.push_back(MakeFinding(
            "near-miss", Severity::Warning, node.line,
            fmt::format("node {} ends no stage, but would end stage {}, {}, if neither case nor "
                        "blanks mattered: they do",
                        name, near->stage, Quoted(near->node))));
    }
    const auto own =
        std::find_if(table.stages.begin(), table.stages.end(),
                     [&node](const ConfiguredStage& stage) { return stage.stage == node.stage; });
    if (own != table.stages.end() &&
        !std::binary_search(own->ports.begin(), own->ports.end(), node.port)) {
        findings.push_back(MakeFinding(
            "port-through-other-stage", Severity::Warning, node.line,
            fmt::format("node {} ends stage {} on port {}, which that stage does not list: a lower "
                        "one does, and its name occurs in the node's, too",
                        name, node.stage, node.port)));
    }
}

}  // namespace

std::string DescribeNodesFormat() {
    return "A file of nodes has what the HAL reports, a line each: the node's name, in double "
           "quotes where it has blanks, the port, and how often a frame it is reported, such as\n"
           "    SensorFrontEnd0 3 1\n"
           "A # begins a comment.\n";
}

std::vector<ReportedNode> ReadNodes(std::string_view text, std::vector<Finding>& errors) {
    std::vector<ReportedNode> nodes;
    uint32_t line = 0;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        ++line;
        try {
            if (auto node = ReadNode(text.substr(0, end), line)) {
                nodes.push_back(*std::move(node));
            }
        } catch (const LineError& error) {
            errors.push_back(MakeFinding("unreadable", Severity::Error, line, error.what()));
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return nodes;
}

std::vector<Finding> CheckNodes(const Configuration& table, std::vector<ReportedNode>& nodes) {
    std::vector<Finding> findings;
    std::map<int32_t, int64_t> timesOf;
    for (ReportedNode& node : nodes) {
        node.stage = table.IsStagePort(node.node, node.port) ? table.StageOf(node.node) : -1;
        CheckNode(table, node, findings);
        if (node.stage == -1 || node.timesAFrame == 0) {
            continue;
        }
        int64_t& times = timesOf[node.stage];
        const int64_t before = std::exchange(times, times + node.timesAFrame);
        if (times > 1 && before <= 1) {
            findings.push_back(MakeFinding(
                "hit-twice", Severity::Error, node.line,
                fmt::format("with node {} on port {} stage {} is ended more than once a frame: {}",
                            Quoted(node.node), node.port, node.stage,
                            OfSecondEnd(table, node.stage))));
        }
    }
    for (const ConfiguredStage& stage : table.stages) {
        if (!timesOf.contains(stage.stage)) {
            findings.push_back(
                MakeFinding("stage-not-hit", Severity::Error, 0,
                            fmt::format("no node ends stage {}, {}: no frame gets beyond it",
                                        stage.stage, Quoted(stage.node))));
        }
    }
    return findings;
}

}  // namespace tools
