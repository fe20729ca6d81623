#include "tools/account/summary.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "tools/base/text.h"
#include "tools/check/check.h"

namespace tools {
namespace {

SceneFinding NotUnderstoodOf(const Account& account, const CaptureSummary& summary) {
    const std::vector<NotUnderstood>& shown = summary.firstNotUnderstood;
    // Where a capture begins and where it ends, a line may be only half there.
    const auto isAtEdge = [&](const NotUnderstood& line) {
        return line.place.line == 1 ||
               (account.inputs.size() == 1 && line.place.line == summary.lines);
    };
    SceneFinding finding;
    finding.check = Check::NotUnderstood;
    finding.severity = static_cast<size_t>(summary.notUnderstood) == shown.size() &&
                               std::all_of(shown.begin(), shown.end(), isAtEdge)
                           ? Severity::Note
                           : Severity::Warning;
    finding.times = summary.notUnderstood;
    finding.message = fmt::format(
        "{} of the library's {} not understood:", Counted(summary.notUnderstood, "line"),
        summary.notUnderstood == 1 ? "was" : "were");
    for (const NotUnderstood& line : shown) {
        finding.message += fmt::format("\n    line {}: {}", line.place.line, line.text);
    }
    if (!shown.empty()) {
        finding.place = shown.front().place;
    }
    return finding;
}

}  // namespace

Account MakeAccount(FactsMaker& facts, const CaptureSummary& summary,
                    std::vector<std::string> inputs, const JudgeOptions& options) {
    Account account = facts.Finish(summary.last);
    account.inputs = std::move(inputs);
    account.from = summary.from;
    account.to = summary.to;
    account.resolution = summary.resolution;
    account.lines = summary.lines;
    account.libraryLines = summary.libraryLines;
    account.notUnderstood = summary.notUnderstood;
    account.lost = summary.lost;
    if (!summary.damage.empty()) {
        account.findings.push_back(
            {Check::LinesLost, Severity::Warning,
             "an input cannot be read to its end, what follows is missing: " + summary.damage});
    }
    if (summary.notUnderstood > 0) {
        account.findings.push_back(NotUnderstoodOf(account, summary));
    }
    for (LoadedConfiguration& loaded : account.configurations) {
        loaded.findings = CheckConfiguration(loaded.configuration);
    }
    Judge(account, options);
    return account;
}

}  // namespace tools
