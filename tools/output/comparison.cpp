// What changed from one capture to another.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tools/base/table.h"
#include "tools/base/text.h"
#include "tools/output/outputs.h"

namespace tools {
namespace {

Rows NewFigures() {
    return {{"", "before", "after", "change"}};
}

template <typename Number>
void Add(Rows& rows, const std::string& name, Number before, Number after, int digits = 0) {
    const auto change = static_cast<double>(after - before);
    rows.push_back({name, Fixed(static_cast<double>(before), digits),
                    Fixed(static_cast<double>(after), digits),
                    (change > 0 ? "+" : "") + Fixed(change, digits)});
}

// `digits`: of the times, in milliseconds.
void Add(Rows& rows, const std::string& name, const Statistics& before, const Statistics& after,
         int digits) {
    if (before.count != 0 && after.count != 0) {
        const auto add = [&](const std::string& row, Micros Statistics::*value) {
            Add(rows, row, static_cast<double>(before.*value) / 1e3,
                static_cast<double>(after.*value) / 1e3, digits);
        };
        add(name + " p50", &Statistics::p50);
        add("  p99", &Statistics::p99);
        add("  max", &Statistics::max);
    }
}

// Stages are known again by their nodes. Below the figures, `alone` says which are in one of the
// scenes.
void AddStages(Rows& figures, std::ostream& alone, const JudgedScene& before,
               const JudgedScene& after, int digits) {
    std::vector<std::string> olds = before.stageNames;
    for (size_t stage = 0; stage < after.figures.stages.size(); ++stage) {
        const auto old = std::find(olds.begin(), olds.end(), after.stageNames[stage]);
        if (old == olds.end()) {
            alone << "Only after: " << StageTitleOf(after, stage) << ".\n";
            continue;
        }
        const auto oldStage = static_cast<size_t>(old - olds.begin());
        Add(figures,
            FigureTitleOf(after, stage) +
                (oldStage == stage ? "" : fmt::format(" (before: stage {})", oldStage)),
            before.figures.stages[oldStage], after.figures.stages[stage], digits);
        *old = "\n";  // No node's name: of several stages of one node each is taken once.
    }
    for (size_t stage = 0; stage < olds.size(); ++stage) {
        if (olds[stage] != "\n") {
            alone << "Only before: " << StageTitleOf(before, stage) << ".\n";
        }
    }
}

void WriteConfigurations(std::ostream& out, const Account& before, const Account& after) {
    if (before.configurations.empty() || after.configurations.empty()) {
        return;
    }
    const Configuration& old = before.configurations.back().configuration;
    const Configuration& now = after.configurations.back().configuration;
    const std::string oldText = ToToml(Completed(old, now));
    const std::string newText = ToToml(Completed(now, old));
    // The lines of a text that the other does not have.
    const auto writeOnly = [&out](char mark, const std::string& text, const std::string& other) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            if (('\n' + other).find('\n' + line + '\n') == std::string::npos) {
                out << mark << ' ' << line << '\n';
            }
        }
    };
    if (oldText != newText) {
        out << "The configurations differ, - before and + after:\n";
        writeOnly('-', oldText, newText);
        writeOnly('+', newText, oldText);
    }
}

void WriteFindings(std::ostream& out, const Account& before, const Account& after) {
    std::map<Kind, std::array<int64_t, 2>> counts;
    for (const size_t when : {0U, 1U}) {
        for (const auto& [finding, scene] : FindingsOf(when == 0 ? before : after)) {
            if (finding.severity != Severity::Note) {
                counts[finding.kind][when] += finding.times;
            }
        }
    }
    if (counts.empty()) {
        out << "\nNo findings before or after.\n";
        return;
    }
    Rows figures = NewFigures();
    for (const auto& [check, times] : counts) {
        Add(figures, NameOf(check), times[0], times[1]);
    }
    out << "\nFindings\n";
    WriteTable(out, figures, Cells::Figures);
}

std::vector<size_t> StartedScenes(const Account& account) {
    std::vector<size_t> scenes;
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        if (account.scenes[i].isStarted) {
            scenes.push_back(i);
        }
    }
    return scenes;
}

}  // namespace

void WriteComparison(std::ostream& out, const Account& before, const Account& after,
                     const Scheduling* schedulingBefore, const Scheduling* schedulingAfter) {
    out << "Before: " << VerdictOf(before) << "\nAfter:  " << VerdictOf(after) << '\n';
    WriteConfigurations(out, before, after);
    const std::vector<size_t> olds = StartedScenes(before);
    const std::vector<size_t> news = StartedScenes(after);
    if (olds.size() != news.size()) {
        out << fmt::format("Before there were {}, after {}; they are compared in order.\n",
                           Counted(std::ssize(olds), "scene"), news.size());
    }
    const int digits = std::min(before.resolution, after.resolution) >= MILLISECOND ? 0 : 3;
    for (size_t i = 0; i < std::min(olds.size(), news.size()); ++i) {
        const JudgedScene& old = before.scenes[olds[i]];
        const JudgedScene& now = after.scenes[news[i]];
        out << fmt::format(
            "\nBefore: {}; late is more than {} ms\nAfter:  {}; late is more than {} ms\n"
            "Times in milliseconds\n",
            TitleOf(before, olds[i]), LateText(old.columns.lateThreshold), TitleOf(after, news[i]),
            LateText(now.columns.lateThreshold));
        Rows figures = NewFigures();
        for (size_t status = 0; status < FRAME_STATUSES; ++status) {
            Add(figures, NameOf(static_cast<FrameStatus>(status)), old.figures.statusCounts[status],
                now.figures.statusCounts[status]);
        }
        Add(figures, "never out", std::ssize(old.figures.neverOut),
            std::ssize(now.figures.neverOut));
        Add(figures, "not boosted", old.figures.notBoosted, now.figures.notBoosted);
        Add(figures, "not known", old.figures.unknown, now.figures.unknown);
        Add(figures, "late", old.figures.late, now.figures.late);
        Add(figures, "fps", RateOf(old), RateOf(now), 1);
        Add(figures, "latency", old.figures.latency, now.figures.latency, digits);
        Add(figures, "interval", old.figures.interval, now.figures.interval, digits);
        std::ostringstream alone;
        AddStages(figures, alone, old, now, digits);
        if (schedulingBefore != nullptr && schedulingAfter != nullptr) {
            const SceneScheduling& one = schedulingBefore->scenes[olds[i]];
            const SceneScheduling& other = schedulingAfter->scenes[news[i]];
            Add(figures, "waited for a CPU a period, threads handed to the service",
                one.handed.inside, other.handed.inside, digits);
            Add(figures, "waited for a CPU a period, other threads of the pipeline",
                one.others.inside, other.others.inside, digits);
        }
        WriteTable(out, figures, Cells::Figures);
        out << alone.str();
    }
    WriteFindings(out, before, after);
}

}  // namespace tools
