// The account as text for people.

#include "tools/base/text.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tools/check/check.h"
#include "tools/output/outputs.h"

namespace tools {
namespace {

constexpr size_t ROWS = 40;  // Of the table of frames, unless all are asked for.

void WriteConfigurations(std::ostream& out, const Account& account) {
    const std::vector<SharedConfiguration> all = ConfigurationsOf(account);
    if (all.empty()) {
        out << "\nConfiguration: not in the capture, which begins after the library was loaded.\n";
    }
    for (const SharedConfiguration& one : all) {
        out << '\n' << one.title << ":\n";
        WriteTable(out, SummaryOf(one.configuration), Cells::Text);
        if (!one.configuration.stages.empty()) {
            out << '\n';
            WriteTable(out, StagesOf(one.configuration), Cells::Text);
        }
        for (const Finding& finding : one.findings) {
            if (finding.severity != Severity::Note) {
                out << fmt::format("  {}: {} [{}]\n", NameOf(finding.severity), finding.message,
                                   finding.check);
            }
        }
        const auto notes = std::ranges::count(one.findings, Severity::Note, &Finding::severity);
        if (notes > 0) {
            out << fmt::format("  {} more: cameraframeboost check shows {}\n",
                               Counted(notes, "note"), notes == 1 ? "it" : "them");
        }
    }
}

std::vector<std::string> RowOf(const Account& account, const JudgedScene& scene, size_t index) {
    const Frame& frame = scene.frames[index];
    const Fate& fate = scene.FateOf(index);
    std::vector<std::string> row = {std::to_string(frame.number), std::to_string(frame.place.line),
                                    NameOf(fate.status)};
    const auto add = [&](Micros time) {
        row.push_back(time == NO_TIME ? "-" : Milliseconds(time, account.resolution));
    };
    add(Between(scene.begin, frame.start));
    add(Between(scene.begin, frame.end));
    add(Between(frame.start, frame.end));
    add(fate.interval);
    for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
        const StageTimes times = scene.TimesOf(index, stage);
        add(Between(times.start, times.end));
    }
    const std::string description = DescriptionOf(fate);
    row.push_back(fmt::format("{}{}{}", fate.isLate ? "late" : "",
                              fate.isLate && !description.empty() ? "; " : "", description));
    return row;
}

void WriteFrames(std::ostream& out, const Account& account, const JudgedScene& scene,
                 const Shown& shown) {
    std::vector<size_t> frames;
    for (size_t i = 0; i < scene.frames.size(); ++i) {
        if (shown.Has(scene, i)) {
            frames.push_back(i);
        }
    }
    if (frames.empty()) {
        if (shown.range) {
            out << fmt::format("\nNo frame from {} to {}.\n", shown.range->first,
                               shown.range->second);
        }
        return;
    }
    const bool isChosen = shown.isAll || shown.range;
    out << "\nFrames" << (isChosen ? "" : " that were not complete, or late");
    if (!isChosen && frames.size() > ROWS) {
        out << ", the first " << ROWS << " of " << frames.size() << " (--all shows every frame)";
        frames.resize(ROWS);
    }
    out << "; milliseconds from the scene's start:\n";
    Rows table = {{"frame", "line", "status", "start", "end", "latency", "interval"}};
    for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
        table[0].push_back(fmt::format("stage{}", stage));
    }
    table[0].emplace_back("");
    for (const size_t frame : frames) {
        table.push_back(RowOf(account, scene, frame));
    }
    WriteTable(out, table, Cells::Figures);
}

}  // namespace

void WriteText(std::ostream& out, const Explained& explained) {
    const Account& account = explained.account;
    const Scheduling* const scheduling = explained.scheduling.get();
    out << VerdictOf(account) << "\n\n";
    out << CaptureOf(account, scheduling);
    WriteConfigurations(out, account);
    if (!account.findings.empty()) {
        out << '\n';
    }
    const auto writeFindings = [&](const JudgedScene* scene, const auto& findings) {
        for (const SceneFinding& finding : findings) {
            out << LineOf(account, scene, finding) << '\n';
        }
    };
    writeFindings(nullptr, account.findings);
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        const JudgedScene& scene = account.scenes[i];
        out << '\n' << HeadingOf(account, i) << '\n';
        writeFindings(&scene, scene.findings);
        if (scene.isStarted) {
            out << '\n' << SummaryOf(scene);
            if (scene.figures.interval.count > 0) {
                const auto& [caption, rows] = FigureTableOf(account, scene);
                out << caption << ".\n";
                WriteTable(out, rows, Cells::Figures);
            }
            for (const auto& [caption, rows] : ThreadTablesOf(scheduling, i)) {
                out << '\n' << caption << ":\n";
                WriteTable(out, rows, Cells::Figures);
            }
            WriteFrames(out, account, scene, explained.shown);
        }
    }
}

void WriteKinds(std::ostream& out) {
    out << "| finding | what happened | what to do |\n|---|---|---|\n";
    for (const KindRow& kind : KINDS) {
        out << fmt::format("| `{}` | {} | {} |\n", kind.name, kind.what, kind.remedy);
    }
}

}  // namespace tools
