// cameraframeboost check: says what is wrong or surprising about configurations.

#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tools/check/report.h"
#include "tools/command/command.h"
#include "tools/command/subcommands.h"

namespace tools {
namespace {

CheckedFile CheckFile(const std::string& path, bool isJson) {
    CheckedFile file;
    file.name = NameOfInput(path);
    try {
        file.checked = CheckConfiguration(ReadFile(path).text);
    } catch (const CommandError& error) {
        // Standard output is for configurations; a program gets the error in the form that it
        // reads.
        Complain(error.what());
        if (isJson) {
            file.checked.findings.push_back({"unreadable", Severity::Error, error.what()});
        }
        file.checked.isReadable = false;
    }
    return file;
}

int StatusOf(const CheckedConfiguration& checked) {
    if (!checked.isReadable) {
        return BAD_INPUT;
    }
    const bool hasFault =
        std::any_of(checked.findings.begin(), checked.findings.end(),
                    [](const Finding& finding) { return finding.severity == Severity::Error; });
    return hasFault ? FAULTS_FOUND : NOTHING_FOUND;
}

}  // namespace

int RunCheck(const CheckArguments& arguments) {
    std::vector<ReportedNode> nodes;
    std::vector<Finding> nodeErrors;
    const std::optional<NamedText> nodesFile = ReadOption(arguments.nodes);
    if (nodesFile) {
        nodes = ReadNodes(nodesFile->text, nodeErrors);
    }
    int status = nodeErrors.empty() ? NOTHING_FOUND : BAD_INPUT;
    Output out("-", arguments.isJson ? Style() : StyleOf(STDOUT_FILENO));
    std::vector<CheckedFile> files;
    for (const std::string& path : arguments.configurations) {
        files.push_back(CheckFile(path, arguments.isJson));
        CheckedFile& file = files.back();
        if (nodesFile && file.checked.isReadable) {
            file.nodesName = nodesFile->name;
            std::vector<Finding> found = nodeErrors;
            if (nodeErrors.empty()) {  // Half a list does not show which stages are not hit.
                file.nodes = nodes;
                found = CheckNodes(file.checked.table, file.nodes);
            }
            auto& findings = file.checked.findings;
            findings.insert(findings.end(), found.begin(), found.end());
        }
        status = std::max(status, StatusOf(file.checked));
        if (!arguments.isJson) {
            out << (files.size() > 1 ? "\n" : "");
            WriteText(out, file);
        }
    }
    if (arguments.isJson) {
        WriteJson(out, files);
    }
    out.Close();
    return status;
}

}  // namespace tools
