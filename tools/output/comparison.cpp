// What changed from one capture to another.

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/base/table.h"
#include "tools/base/text.h"
#include "tools/check/report.h"
#include "tools/output/text.h"

namespace tools {
namespace {

// A scene, and what a trace holds of it; null without one.
struct Compared {
    const Scene* scene;
    const SceneScheduling* scheduling;
};

std::vector<Compared> StartedScenes(const Account& account, const Scheduling* scheduling) {
    std::vector<Compared> scenes;
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        if (account.scenes[i].isStarted) {
            scenes.push_back(
                {&account.scenes[i], scheduling == nullptr ? nullptr : &scheduling->scenes[i]});
        }
    }
    return scenes;
}

// What a stage is known again by: its node, and of several of one node how many come before it; its
// number where the node is not known.
using Node = std::pair<std::string, int64_t>;

std::vector<Node> NodesOf(const Scene& scene) {
    std::vector<Node> nodes;
    for (size_t stage = 0; stage < static_cast<size_t>(scene.stageCount); ++stage) {
        const std::string& name = scene.stageNames[stage];
        const auto before = std::count_if(nodes.begin(), nodes.end(),
                                          [&name](const Node& node) { return node.first == name; });
        nodes.emplace_back(name, name.empty() ? static_cast<int64_t>(stage) : before);
    }
    return nodes;
}

// The rows of a comparison of two scenes.
class Figures {
  public:
    explicit Figures(Micros timesResolution) : resolution(timesResolution) {}

    void AddCount(const std::string& name, int64_t before, int64_t after) {
        rows.push_back({name, std::to_string(before), std::to_string(after),
                        (after > before ? "+" : "") + std::to_string(after - before)});
    }
    void AddRate(double before, double after) {
        rows.push_back({"fps", Fixed(before, 1), Fixed(after, 1),
                        (after > before ? "+" : "") + Fixed(after - before, 1)});
    }
    void Add(const std::string& name, const Statistics& before, const Statistics& after) {
        if (before.count != 0 && after.count != 0) {
            AddTime(name + " p50", before.p50, after.p50);
            AddTime("  p99", before.p99, after.p99);
            AddTime("  max", before.max, after.max);
        }
    }
    void Add(const char* name, const Waiting& before, const Waiting& after) {
        Add(fmt::format("waited for a CPU a period, {}", name), before.inside, after.inside);
    }
    void Write(std::ostream& out) const { WriteTable(out, rows, Columns::Figures); }

  private:
    void AddTime(const std::string& name, Micros before, Micros after) {
        rows.push_back({name, Milliseconds(before, resolution), Milliseconds(after, resolution),
                        (after > before ? "+" : "") + Milliseconds(after - before, resolution)});
    }

    Micros resolution;
    Rows rows = {{"", "before", "after", "change"}};
};

void WriteScenes(std::ostream& out, const Compared& earlier, const Compared& later,
                 Micros resolution) {
    const Scene& before = *earlier.scene;
    const Scene& after = *later.scene;
    Figures figures(resolution);
    for (size_t status = 0; status < FRAME_STATUSES; ++status) {
        figures.AddCount(NameOf(static_cast<FrameStatus>(status)), before.statusCounts[status],
                         after.statusCounts[status]);
    }
    figures.AddCount("never out", static_cast<int64_t>(before.neverOut.size()),
                     static_cast<int64_t>(after.neverOut.size()));
    figures.AddCount("not boosted", before.notBoosted, after.notBoosted);
    figures.AddCount("not known", before.untold, after.untold);
    figures.AddCount("late", before.lateFrames, after.lateFrames);
    figures.AddRate(RateOf(before), RateOf(after));
    figures.Add("latency", before.latency, after.latency);
    figures.Add("interval", before.interval, after.interval);

    const std::vector<Node> olds = NodesOf(before);
    const std::vector<Node> news = NodesOf(after);
    std::vector<std::string> alone;
    for (size_t stage = 0; stage < news.size(); ++stage) {
        const auto old = std::find(olds.begin(), olds.end(), news[stage]);
        const auto oldStage = static_cast<size_t>(old - olds.begin());
        if (old == olds.end()) {
            alone.push_back("Only after: " + StageTitleOf(after, stage) + ".\n");
        } else if (oldStage == stage) {
            figures.Add(FigureTitleOf(after, stage), before.stages[stage], after.stages[stage]);
        } else {
            figures.Add(fmt::format("{} (before: stage {})", FigureTitleOf(after, stage), oldStage),
                        before.stages[oldStage], after.stages[stage]);
        }
    }
    for (size_t stage = 0; stage < olds.size(); ++stage) {
        if (std::find(news.begin(), news.end(), olds[stage]) == news.end()) {
            alone.push_back("Only before: " + StageTitleOf(before, stage) + ".\n");
        }
    }
    if (earlier.scheduling != nullptr && later.scheduling != nullptr) {
        figures.Add("threads handed to the service", earlier.scheduling->handed,
                    later.scheduling->handed);
        figures.Add("other threads of the pipeline", earlier.scheduling->others,
                    later.scheduling->others);
    }
    figures.Write(out);
    for (const std::string& line : alone) {
        out << line;
    }
}

std::vector<std::string> LinesOf(const Configuration& configuration) {
    std::vector<std::string> lines;
    for (const auto& row : SummaryOf(configuration)) {
        lines.push_back(row[0] + ": " + row[1]);
    }
    const Rows stages = StagesOf(configuration);
    for (size_t i = 1; i < stages.size(); ++i) {
        lines.push_back(
            fmt::format("stage {}: {}, ports {}", stages[i][0], stages[i][1], stages[i][2]));
    }
    return lines;
}

void WriteConfigurations(std::ostream& out, const Account& before, const Account& after) {
    const std::vector<SharedConfiguration> olds = ConfigurationsOf(before);
    const std::vector<SharedConfiguration> news = ConfigurationsOf(after);
    if (olds.empty() != news.empty()) {
        out << "The configuration is known " << (olds.empty() ? "after" : "before") << " alone.\n";
    } else if (olds.size() > 1 || news.size() > 1) {
        out << fmt::format(
            "Before there were {} configurations, after {}; the last are compared.\n", olds.size(),
            news.size());
    }
    if (olds.empty() || news.empty()) {
        return;
    }
    const auto& old = olds.back().configuration;
    const auto& now = news.back().configuration;
    const std::vector<std::string> oldLines = LinesOf(Completed(old, now));
    const std::vector<std::string> newLines = LinesOf(Completed(now, old));
    if (oldLines == newLines) {
        return;
    }
    out << "The configurations differ:\n";
    const auto write = [&out](const char* when, const auto& lines, const auto& others) {
        for (const std::string& line : lines) {
            if (std::find(others.begin(), others.end(), line) == others.end()) {
                out << "  " << when << line << '\n';
            }
        }
    };
    write("before: ", oldLines, newLines);
    write("after:  ", newLines, oldLines);
}

// Findings are the same when they are of one kind and about one node.
void WriteFindings(std::ostream& out, const Account& before, const Account& after) {
    struct Change {
        int64_t before = 0, after = 0;
        std::string message;
    };
    std::map<std::pair<Check, std::optional<Node>>, Change> changes;
    const auto collect = [&changes](const Account& account, int64_t Change::*times) {
        const auto add = [&](const std::vector<SceneFinding>& findings,
                             const std::vector<Node>& nodes) {
            for (const SceneFinding& finding : findings) {
                if (finding.severity == Severity::Note) {
                    continue;
                }
                const auto stage = static_cast<size_t>(finding.stage);
                const bool hasNode = finding.stage >= 0 && stage < nodes.size();
                Change& change =
                    changes[{finding.check, hasNode ? std::optional(nodes[stage]) : std::nullopt}];
                change.*times += finding.times;
                change.message = finding.message;
            }
        };
        add(account.findings, {});
        for (const Scene& scene : account.scenes) {
            add(scene.findings, NodesOf(scene));
        }
    };
    collect(before, &Change::before);
    collect(after, &Change::after);
    const bool hasChanged = std::any_of(changes.begin(), changes.end(), [](const auto& change) {
        return change.second.before != change.second.after;
    });
    out << '\n';
    if (!hasChanged) {
        out << "No finding came or went"
            << (changes.empty() ? ": there are none.\n" : ": both have the same.\n");
    }
    for (const auto& [key, change] : changes) {
        if (change.before != change.after) {
            out << fmt::format("{}: {} before, {} after: {} [{}]\n",
                               change.after == 0    ? "gone"
                               : change.before == 0 ? "new"
                                                    : "changed",
                               change.before, change.after, change.message, NameOf(key.first));
        }
    }
}

}  // namespace

void WriteComparison(std::ostream& out, const Account& before, const Account& after,
                     const Scheduling* schedulingBefore, const Scheduling* schedulingAfter) {
    out << "Before: " << VerdictOf(before) << "\nAfter:  " << VerdictOf(after) << '\n';
    WriteConfigurations(out, before, after);
    const std::vector<Compared> olds = StartedScenes(before, schedulingBefore);
    const std::vector<Compared> news = StartedScenes(after, schedulingAfter);
    if (olds.size() != news.size()) {
        out << fmt::format("Before there were {}, after {}; they are compared in order.\n",
                           Counted(static_cast<int64_t>(olds.size()), "scene"), news.size());
    }
    for (size_t i = 0; i < std::min(olds.size(), news.size()); ++i) {
        const Scene& old = *olds[i].scene;
        const Scene& now = *news[i].scene;
        out << fmt::format(
            "\nScene {}, times in milliseconds; late is more than {} ms before and {} ms after\n",
            i + 1, Fixed(static_cast<double>(old.lateThreshold) / 1e3, 1),
            Fixed(static_cast<double>(now.lateThreshold) / 1e3, 1));
        WriteScenes(out, olds[i], news[i], std::min(before.resolution, after.resolution));
    }
    WriteFindings(out, before, after);
}

}  // namespace tools
