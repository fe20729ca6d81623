// What is wrong or surprising about a configuration, each with its consequence.

#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "tools/base/finding.h"
#include "tools/base/text.h"

namespace tools {

// The width that is boosted whatever is configured, as the library's source has it.
inline constexpr int32_t BOOST_WIDTH = 3840;

// A stage as the library understands it.
struct ConfiguredStage {
    int32_t stage = 0;
    std::string node;
    std::vector<int32_t> ports;  // Ascending, each once.

    bool operator==(const ConfiguredStage&) const = default;
};

// The library's configuration as it understands it: from a file, from the dump in its log, or as
// loaded.
struct Configuration {
    bool isEnabled = false;
    std::optional<int32_t> additionalWidth;  // Nothing where it is not known: the dump lacks it.
    std::vector<int32_t> modes;              // Ascending, each once.
    std::optional<int32_t> stageCount;       // As the store reports it; nothing where not known.
    std::vector<ConfiguredStage> stages;     // Those that could be loaded, ascending.

    // The highest stage whose node name occurs within `node`; null when there is none.
    const ConfiguredStage* StageOf(std::string_view node) const;
    // Whether any stage whose node name occurs within `node` lists `port`.
    bool IsStagePort(std::string_view node, int32_t port) const;

    bool operator==(const Configuration&) const = default;
};

// For a node that ends no stage: the highest stage whose node name would occur within `node` if
// neither case nor blanks mattered. Null when `node` does match a stage.
const ConfiguredStage* NearMiss(const Configuration& configuration, std::string_view node);

// What comes of a second node end that ends `stage` of the same frame.
const char* OfSecondEnd(const Configuration& configuration, int32_t stage);

// A mode as configurations have it: 0x8001, 0xFFFF8001.
std::string ModeText(int32_t mode);

struct CheckedConfiguration {
    std::vector<Finding> findings;  // In the order of their places.
    Configuration table;
    bool isReadable = true;    // False when it could not be read or parsed at all.
    bool endsProcess = false;  // Loading it ends the process.
};

// Checks TOML text.
CheckedConfiguration CheckConfiguration(std::string_view toml);
// Checks a table that no file has, as the dump in a log is one. The findings have no places.
std::vector<Finding> CheckConfiguration(const Configuration& configuration);

// The configuration as a file that the store would serve, with what `Configuration` does not know
// left out and marked in comments. What is read back from it is the same table.
std::string ToToml(const Configuration& configuration);

// ---- What a HAL really reports, held against a configuration ----

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

// --- How a configuration and what is found in it are written, for people and for programs.

// The configuration in words, for people: what is boosted, a row each of a name and a value.
Rows SummaryOf(const Configuration& configuration);

// Its stages, below a row of headings: number, node, ports, and which nodes' names match. Texts of
// the configuration are Printable.
Rows StagesOf(const Configuration& configuration);

// And as an object for programs.
nlohmann::ordered_json JsonOf(const Configuration& configuration);

struct CheckedFile {
    std::string name;
    CheckedConfiguration checked;  // With what was found about the nodes, last.
    std::string nodesName;         // What it was held against; empty for nothing.
    std::vector<ReportedNode> nodes;
};

// The findings, a line each, then the table in aligned text: for a person who knows the camera but
// not the library. A file that cannot be parsed has no table.
void WriteText(std::ostream& out, const CheckedFile& file);

// One object: `findings` of all files and `table`; for several files `tables`, a list.
void WriteJson(std::ostream& out, const std::vector<CheckedFile>& files);

}  // namespace tools
