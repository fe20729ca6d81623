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

void WriteCapture(std::ostream& out, const Account& account) {
    out << fmt::format("{}{}{}, {} of them the library's", fmt::join(account.inputs, ", "),
                       account.inputs.empty() ? "" : ": ", Counted(account.lines, "line"),
                       account.libraryLines);
    if (!account.from.empty()) {
        out << ", from " << account.from << " to " << account.to;
    }
    if (account.lost > 0) {
        out << "; " << account.lost << " more are known to be lost";
    }
    out << ".\n";
    if (!account.hasThreads && account.libraryLines != 0) {
        out << "The capture has no thread ids: which line is whose is worked out from "
               "frames and nodes.\n";
    }
}

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

void WriteFigures(std::ostream& out, const Account& account, const JudgedScene& scene) {
    out << "\nFrames: " << scene.figures.frameCount << FramesByStatus(scene) << ".\n";
    if (scene.figures.unknown > 0) {
        out << "What became of " << scene.figures.unknown
            << " of them is not known: lines of the log are missing.\n";
    }
    if (scene.figures.interval.count == 0) {
        return;
    }
    const double share = static_cast<double>(scene.figures.late) /
                         static_cast<double>(std::max<int64_t>(scene.figures.frameCount, 1));
    out << fmt::format(
        "Late: {} ({} %), that is more than {} ms after the frame before. Rate: {} fps{}.\n"
        "Milliseconds, as exact as the capture: {}.\n",
        scene.figures.late, Fixed(100 * share, 2), LateText(scene.columns.lateThreshold),
        Fixed(RateOf(scene), 1), scene.fps > 0 ? fmt::format(" of {}", scene.fps) : "",
        account.resolution >= MILLISECOND ? "1 ms" : "1 us");
    WriteTable(out, FigureTableOf(account, scene), Cells::Figures);
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
    WriteCapture(out, account);
    if (scheduling != nullptr) {
        out << TitleOf(*scheduling) << ".\n";
    }
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
            WriteFigures(out, account, scene);
            for (const CaptionedTable& table : ThreadTablesOf(scheduling, i)) {
                out << '\n' << table.caption << ":\n";
                WriteTable(out, table.rows, Cells::Figures);
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
