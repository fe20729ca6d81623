#include "tools/check/nodes.h"

#include <algorithm>
#include <map>
#include <utility>

#include "tools/session/session.h"

namespace tools {
namespace {

// What a line holds, in the terms of sessions.
const Operation NODE_LINE = {
    "a line of", {{std::string(), "node"}, {int32_t{}, "port"}, {int32_t{}, "times"}}, nullptr};

Finding MakeFinding(const char* check, Severity severity, uint32_t line, std::string message) {
    Finding finding;
    finding.check = check;
    finding.severity = severity;
    finding.place.line = line;
    finding.message = std::move(message);
    return finding;
}

// Why a node end leads to nothing, or to what it should not.
void CheckNode(const Configuration& table, const ReportedNode& node,
               std::vector<Finding>& findings) {
    const std::string name = "node " + Quoted(node.node);
    if (const auto near = NearMiss(table, node.node)) {
        findings.push_back(MakeFinding("near-miss", Severity::Warning, node.line,
                                       name + " ends no stage, but would end stage " +
                                           std::to_string(near->stage) + ", " + Quoted(near->node) +
                                           ", if neither case nor blanks mattered: they do"));
    }
    const auto own =
        std::find_if(table.stages.begin(), table.stages.end(),
                     [&node](const ConfiguredStage& stage) { return stage.stage == node.stage; });
    if (own != table.stages.end() &&
        !std::binary_search(own->ports.begin(), own->ports.end(), node.port)) {
        findings.push_back(MakeFinding(
            "port-through-other-stage", Severity::Warning, node.line,
            name + " ends stage " + std::to_string(node.stage) + " on port " +
                std::to_string(node.port) +
                ", which that stage does not list: a lower one does, and its name occurs in the "
                "node's, too"));
    }
}

}  // namespace

std::string DescribeNodesFormat() {
    return "A file of nodes has what the HAL reports, a line each: the node's name, in double\n"
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
            const std::vector<Value> values = ParseValues(NODE_LINE, text.substr(0, end));
            if (!values.empty()) {
                ReportedNode node{std::get<std::string>(values[0]), std::get<int32_t>(values[1]),
                                  std::get<int32_t>(values[2]), line};
                if (node.timesAFrame < 0) {
                    throw SessionError("times is below 0");
                }
                nodes.push_back(std::move(node));
            }
        } catch (const SessionError& error) {
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
                "with node " + Quoted(node.node) + " on port " + std::to_string(node.port) +
                    " stage " + std::to_string(node.stage) +
                    " is ended more than once a frame: " + OfSecondEnd(table, node.stage)));
        }
    }
    for (const ConfiguredStage& stage : table.stages) {
        if (!timesOf.contains(stage.stage)) {
            findings.push_back(MakeFinding("stage-not-hit", Severity::Error, 0,
                                           "no node ends stage " + std::to_string(stage.stage) +
                                               ", " + Quoted(stage.node) +
                                               ": no frame gets beyond it"));
        }
    }
    return findings;
}

}  // namespace tools
