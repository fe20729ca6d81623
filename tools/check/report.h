// How a configuration and what is found in it are written, for people and for programs.

#pragma once

#include <nlohmann/json_fwd.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "tools/base/table.h"
#include "tools/check/check.h"

namespace tools {

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
