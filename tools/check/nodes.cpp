#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <utility>

#include "tools/base/words.h"
#include "tools/check/check.h"

namespace tools {
std::string DescribeNodesFormat() {
    return "A file of nodes has what the HAL reports, a line each: the node's name, in double "
           "quotes where it has blanks, the port, and how often a frame it is reported, such as\n"
           "    SensorFrontEnd0 3 1\n"
           "A # begins a comment.\n";
}

std::vector<ReportedNode> ReadNodes(const std::string& text, std::vector<Finding>& errors) {
    std::vector<ReportedNode> nodes;
    std::istringstream in(text);
    uint32_t number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        try {
            const std::vector<Word> words = SplitWords(line);
            if (!words.empty()) {
                RequireWords(words, 3, 3, "a line of node port times");
                nodes.push_back({words[0].text, ReadInteger<int32_t>(words[1], "port"),
                                 ReadInteger<int32_t>(words[2], "times", 0), number});
            }
        } catch (const LineError& error) {
            errors.push_back({"unreadable", Severity::Error, error.what(), {NODES_INPUT, number}});
        }
    }
    return nodes;
}

std::vector<Finding> CheckNodes(const Configuration& table, std::vector<ReportedNode>& nodes) {
    std::vector<Finding> findings;
    const auto add = [&findings](const char* check, Severity severity, uint32_t line,
                                 std::string message) {
        findings.push_back({check, severity, std::move(message), {NODES_INPUT, line}});
    };
    std::map<int32_t, int64_t> timesOf;
    for (ReportedNode& node : nodes) {
        const std::string name = Quoted(node.node);
        if (const auto near = NearMiss(table, node.node)) {
            add("near-miss", Severity::Warning, node.line,
                fmt::format("node {} ends no stage, but would end stage {}, {}, if neither case "
                            "nor blanks mattered: they do",
                            name, near->stage, Quoted(near->node)));
        }
        if (!table.IsStagePort(node.node, node.port)) {
            continue;
        }
        const ConfiguredStage* const own = table.StageOf(node.node);
        node.stage = own->stage;
        if (!std::binary_search(own->ports.begin(), own->ports.end(), node.port)) {
            add("port-through-other-stage", Severity::Warning, node.line,
                fmt::format("node {} ends stage {} on port {}, which that stage does not list: a "
                            "lower one does, and its name occurs in the node's, too",
                            name, node.stage, node.port));
        }
        if (node.timesAFrame == 0) {
            continue;
        }
        int64_t& times = timesOf[node.stage];
        const int64_t before = std::exchange(times, times + node.timesAFrame);
        if (times > 1 && before <= 1) {
            add("hit-twice", Severity::Error, node.line,
                fmt::format("with node {} on port {} stage {} is ended more than once a frame: {}",
                            name, node.port, node.stage, OfSecondEnd(table, node.stage)));
        }
    }
    for (const ConfiguredStage& stage : table.stages) {
        if (!timesOf.contains(stage.stage)) {
            add("stage-not-hit", Severity::Error, 0,
                fmt::format("no node ends stage {}, {}: no frame gets beyond it", stage.stage,
                            Quoted(stage.node)));
        }
    }
    return findings;
}

}  // namespace tools
