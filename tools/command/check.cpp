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
        Input in(path);
        file.checked = CheckConfiguration(in.ReadAll());
    } catch (const CommandError& error) {
        // Standard output is for configurations; a program is told in the form that it reads.
        Complain(error.what());
        if (isJson) {
            file.checked.findings.push_back({"unreadable", Severity::Error, error.what()});
        }
        file.checked.isReadable = false;
    }
    return file;
}

int StatusOf(const CheckedFile& file) {
    const auto isFault = [](const Finding& finding) { return finding.severity == Severity::Error; };
    const bool hasFault =
        std::any_of(file.checked.findings.begin(), file.checked.findings.end(), isFault) ||
        std::any_of(file.nodeFindings.begin(), file.nodeFindings.end(), isFault);
    return !file.checked.isReadable ? BAD_INPUT : hasFault ? FAULTS_FOUND : NOTHING_FOUND;
}

}  // namespace

int RunCheck(const CheckArguments& arguments) {
    std::vector<ReportedNode> nodes;
    std::vector<Finding> nodeErrors;
    std::string nodesName;
    if (!arguments.nodes.empty()) {
        Input in(arguments.nodes);
        nodesName = in.Name();
        nodes = ReadNodes(in.ReadAll(), nodeErrors);
    }
    int status = nodeErrors.empty() ? NOTHING_FOUND : BAD_INPUT;
    Output out("-", arguments.isJson ? Style() : StyleOf(STDOUT_FILENO));
    std::vector<CheckedFile> files;
    for (const std::string& path : arguments.configurations) {
        files.push_back(CheckFile(path, arguments.isJson));
        CheckedFile& file = files.back();
        if (!nodesName.empty() && file.checked.isReadable) {
            file.nodesName = nodesName;
            file.nodeFindings = nodeErrors;
            if (nodeErrors.empty()) {  // Of half a list nobody can tell which stages are not hit.
                file.nodes = nodes;
                file.nodeFindings = CheckNodes(file.checked.table, file.nodes);
            }
        }
        status = std::max(status, StatusOf(file));
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
