// cameraframeboost check: says what is wrong or surprising about configurations.

#include "tools/check/check.h"

#include <algorithm>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tools/command/command.h"
#include "tools/command/subcommands.h"

namespace tools {

int RunCheck(const CheckArguments& arguments) {
    std::vector<ReportedNode> nodes;
    std::vector<Finding> nodeErrors;
    const std::optional<NamedText> nodesFile = ReadOption(arguments.nodes);
    if (nodesFile) {
        nodes = ReadNodes(nodesFile->text, nodeErrors);
    }
    int status = nodeErrors.empty() ? NOTHING_FOUND : BAD_INPUT;
    std::vector<CheckedFile> files;
    std::ostringstream text;
    for (const std::string& path : arguments.configurations) {
        CheckedFile file;
        file.name = NameOfInput(path);
        std::vector<Finding>& findings = file.checked.findings;
        try {
            file.checked = CheckConfiguration(ReadFile(path).text);
        } catch (const CommandError& error) {
            Complain(error.what());
            if (arguments.isJson) {  // A program gets the error in the form that it reads.
                findings.push_back({"unreadable", Severity::Error, error.what()});
            }
            file.checked.isReadable = false;
        }
        if (nodesFile && file.checked.isReadable) {
            file.nodesName = nodesFile->name;
            std::vector<Finding> found = nodeErrors;
            if (nodeErrors.empty()) {  // Half a list does not show which stages are not hit.
                file.nodes = nodes;
                found = CheckNodes(file.checked.table, file.nodes);
            }
            findings.insert(findings.end(), found.begin(), found.end());
        }
        if (!file.checked.isReadable) {
            status = BAD_INPUT;
        } else if (std::any_of(findings.begin(), findings.end(), [](const Finding& finding) {
                       return finding.severity == Severity::Error;
                   })) {
            status = std::max(status, FAULTS_FOUND);
        }
        text << (files.empty() ? "" : "\n");
        WriteText(text, file);
        files.push_back(std::move(file));
    }
    if (arguments.isJson) {
        WriteFile("-", [&files](std::ostream& out) { WriteJson(out, files); });
    } else {
        Show(text.str());
    }
    return status;
}

}  // namespace tools
