// Any configuration file, and any file of nodes: what is printed is plain ASCII, and the table is
// the one that the library loads.

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "tests/fuzz/require.h"
#include "tests/support/same_table.h"
#include "tools/check/check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(data, data + size);
    LocalConfig::enable = false;
    tools::CheckedFile file{"name", tools::CheckConfiguration(text), "nodes", {}};
    auto& found = file.checked.findings;
    file.nodes = tools::ReadNodes(text, found);
    const auto findings = CheckNodes(file.checked.table, file.nodes);
    found.insert(found.end(), findings.begin(), findings.end());
    std::ostringstream shown;
    tools::WriteText(shown, file);
    const std::string lines = shown.str();
    Require(std::all_of(lines.begin(), lines.end(),
                        [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); }),
            "not for terminals: " + lines);
    std::ostringstream json;
    tools::WriteJson(json, {file});
    Require(nlohmann::json::accept(json.str()), json.str());
    if (!file.checked.endsProcess) {
        const std::string difference = Difference(text, {"", "MCTFE0_cam1", "ToneMapper "});
        Require(difference.empty(), "different: " + difference);
    }
    return 0;
}
