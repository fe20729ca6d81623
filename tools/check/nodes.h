// What a HAL really reports, held against a configuration.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/check/check.h"

namespace tools {

// The input of findings about a file of nodes; that of the configuration is 0.
inline constexpr uint32_t NODES_INPUT = 1;

// Node ends as a HAL reports them.
struct ReportedNode {
    std::string node;
    int32_t port = 0;
    int32_t timesAFrame = 1;
    uint32_t line = 0;
    int32_t stage = -1;  // The one that they end; -1 for none. Filled in by CheckNodes.
};

// What a file of nodes holds, for people.
std::string DescribeNodesFormat();

// Reads a file of nodes. Lines that are none are left out and added to `errors`.
std::vector<ReportedNode> ReadNodes(const std::string& text, std::vector<Finding>& errors);

// Finds out which stages the nodes end. All findings are about the file of nodes.
std::vector<Finding> CheckNodes(const Configuration& table, std::vector<ReportedNode>& nodes);

}  // namespace tools
