// What changed from one capture to another.

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tools/base/text.h"
#include "tools/output/outputs.h"

namespace tools {
namespace {

struct Figure {
    std::string name;
    double value = 0;
    int digits = 0;
};

// A row for each name; of several of one name each is taken once. What one of the lists alone has
// comes without a change, and last where it is no more; what is 0 in both is left out.
void WriteFigures(std::ostream& out, const char* title, std::vector<Figure> before,
                  const std::vector<Figure>& after) {
    Rows rows = {{"", "before", "after", "change"}};
    for (const auto& [name, value, digits] : after) {
        const auto old = std::ranges::find(before, name, &Figure::name);
        if (old == before.end()) {
            rows.push_back({name, "-", Fixed(value, digits), "-"});
            continue;
        }
        if (const double change = value - old->value; value != 0 || change != 0) {
            rows.push_back({name, Fixed(old->value, digits), Fixed(value, digits),
                            (change > 0 ? "+" : "") + Fixed(change, digits)});
        }
        before.erase(old);
    }
    for (const auto& [name, value, digits] : before) {
        rows.push_back({name, Fixed(value, digits), "-", "-"});
    }
    if (rows.size() > 1) {
        out << title;
        WriteTable(out, rows, Cells::Figures);
    }
}

// Stages are known again by their nodes. `digits`: of times.
std::vector<Figure> FiguresOf(const Explained& explained, size_t index, int digits) {
    const JudgedScene& scene = explained.account.scenes[index];
    const Figures& all = scene.figures;
    std::vector<Figure> figures;
    for (size_t i = 0; i < FRAME_STATUSES; ++i) {
        const auto count = static_cast<double>(all.statusCounts[i]);
        figures.push_back({NameOf(static_cast<FrameStatus>(i)), count});
    }
    figures.push_back({"never out", static_cast<double>(all.neverOut.size())});
    figures.push_back({"not boosted", static_cast<double>(all.notBoosted)});
    figures.push_back({"not known", static_cast<double>(all.unknown)});
    figures.push_back({"late", static_cast<double>(all.late)});
    figures.push_back(
        {"late threshold", static_cast<double>(scene.columns.lateThreshold) / 1e3, 1});
    figures.push_back({"fps", RateOf(scene), 1});
    const auto add = [&](const std::string& name, const Statistics& times) {
        const std::pair<const char*, Micros> shown[] = {
            {" p50", times.p50}, {" p99", times.p99}, {" max", times.max}};
        for (const auto& [which, time] : shown) {
            if (times.count > 0) {
                figures.push_back({name + which, static_cast<double>(time) / 1e3, digits});
            }
        }
    };
    add("latency", all.latency);
    add("output interval", all.interval);
    for (size_t stage = 0; stage < all.stages.size(); ++stage) {
        const std::string& node = scene.stageNames[stage];
        add(node.empty() ? StageTitleOf(scene, stage) : Printable(node), all.stages[stage]);
    }
    if (explained.scheduling != nullptr) {
        const SceneScheduling& threads = explained.scheduling->scenes[index];
        add("waited for a CPU a period, threads handed to the service", threads.handed.inside);
        add("waited for a CPU a period, other threads of the pipeline", threads.others.inside);
    }
    return figures;
}

// The lines of a text that the other does not have.
void WriteOnly(std::ostream& out, char mark, const std::string& text, const std::string& other) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (('\n' + other).find('\n' + line + '\n') == std::string::npos) {
            out << mark << ' ' << line << '\n';
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
    if (oldText != newText) {
        out << "The configurations differ, - before and + after:\n";
        WriteOnly(out, '-', oldText, newText);
        WriteOnly(out, '+', newText, oldText);
    }
}

// How many findings there are of each kind.
std::vector<Figure> CountsOf(const Account& account) {
    std::vector<Figure> counts;
    for (const KindRow& kind : KINDS) {
        counts.push_back({kind.name});
    }
    for (const PlacedFinding& placed : FindingsOf(account)) {
        const bool isCounted = SeverityOf(*placed.finding) != Severity::Note;
        counts[static_cast<size_t>(KindOf(placed.finding->what))].value +=
            isCounted ? static_cast<double>(placed.finding->times) : 0;
    }
    return counts;
}

// Positions of the scenes that were started.
std::vector<size_t> StartedOf(const Account& account) {
    std::vector<size_t> started;
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        if (account.scenes[i].isStarted) {
            started.push_back(i);
        }
    }
    return started;
}

}  // namespace

void WriteComparison(std::ostream& out, const Explained& explainedBefore,
                     const Explained& explainedAfter) {
    const Account& before = explainedBefore.account;
    const Account& after = explainedAfter.account;
    out << "Before: " << VerdictOf(before) << "\nAfter:  " << VerdictOf(after) << '\n';
    WriteConfigurations(out, before, after);
    const int digits = std::min(before.resolution, after.resolution) >= MILLISECOND ? 0 : 3;
    const std::vector<size_t> olds = StartedOf(before);
    const std::vector<size_t> news = StartedOf(after);
    if (olds.size() != news.size()) {
        out << fmt::format("Before there were {}, after {}; they are compared in order.\n",
                           Counted(std::ssize(olds), "scene"), news.size());
    }
    for (size_t i = 0; i < std::min(olds.size(), news.size()); ++i) {
        out << "\nBefore: " << TitleOf(before, olds[i]) << "\nAfter:  " << TitleOf(after, news[i])
            << '\n';
        WriteFigures(out, "Times in milliseconds\n", FiguresOf(explainedBefore, olds[i], digits),
                     FiguresOf(explainedAfter, news[i], digits));
    }
    WriteFigures(out, "\nFindings\n", CountsOf(before), CountsOf(after));
}

}  // namespace tools
