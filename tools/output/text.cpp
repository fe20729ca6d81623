#include "tools/output/text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <span>
#include <string_view>
#include <vector>

#include "tools/output/drawing.h"

namespace tools {
namespace {

constexpr size_t ROWS = 40;  // Of the table of frames, unless all are asked for.

std::string Fixed(double value, int digits) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", digits, value);
    return text.data();
}

// Milliseconds, with as many digits as the times have.
std::string Milliseconds(Micros time, Micros resolution) {
    return Fixed(static_cast<double>(time) / 1000.0, resolution >= 1000 ? 0 : 3);
}

std::string Counted(int64_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

// Cells of a table, each column as wide as it must be. The first column is text, and so is a last
// one without a name.
class Table {
  public:
    void Add(std::vector<std::string> row) { rows.push_back(std::move(row)); }
    void Write(std::ostream& out) const {
        std::vector<size_t> widths;
        for (const auto& row : rows) {
            widths.resize(std::max(widths.size(), row.size()));
            for (size_t i = 0; i < row.size(); ++i) {
                widths[i] = std::max(widths[i], row[i].size());
            }
        }
        for (const auto& row : rows) {
            std::string line = "  ";
            for (size_t i = 0; i < row.size(); ++i) {
                const std::string fill(widths[i] - row[i].size(), ' ');
                const bool isText = i == 0 || (i + 1 == row.size() && rows.front().back().empty());
                line += (i == 0 ? "" : "  ") + (isText ? row[i] + fill : fill + row[i]);
            }
            line.erase(line.find_last_not_of(' ') + 1);
            out << line << '\n';
        }
    }

  private:
    std::vector<std::vector<std::string>> rows;
};

std::string FramesByStatus(const Scene& scene) {
    std::string text;
    int64_t all = 0;
    for (size_t i = 0; i < FRAME_STATUSES; ++i) {
        all += scene.statusCounts[i];
        if (scene.statusCounts[i] != 0) {
            text += (text.empty() ? "" : ", ") + std::to_string(scene.statusCounts[i]) + " " +
                    NameOf(static_cast<FrameStatus>(i));
        }
    }
    return std::to_string(all) + (text.empty() ? "" : ": " + text);
}

// How many frames came out a second, on average; 0 where that is not known.
double RateOf(const Scene& scene) {
    Micros passed = 0;
    int64_t count = 0;
    for (const Frame& frame : scene.frames) {
        if (frame.interval != NO_TIME) {
            passed += frame.interval;
            ++count;
        }
    }
    return passed == 0 ? 0 : static_cast<double>(count) * 1e6 / static_cast<double>(passed);
}

void WriteConfiguration(std::ostream& out, const Account& account) {
    if (!account.configuration) {
        out << "\nConfiguration: not in the capture, which begins after the library was loaded.\n";
        return;
    }
    const Configuration& configuration = *account.configuration;
    out << "\nConfiguration: boosting is switched " << (configuration.isEnabled ? "on" : "off")
        << "; modes";
    for (const int32_t mode : configuration.modes) {
        out << ' ' << ModeText(mode);
    }
    out << (configuration.modes.empty() ? " none" : "") << "; widths 3840";
    if (!configuration.additionalWidth) {
        out << ", and another if one is configured, which the log does not tell";
    } else if (*configuration.additionalWidth != 0) {
        out << " and " << *configuration.additionalWidth;
    }
    out << "; "
        << Counted(
               configuration.stageCount.value_or(static_cast<int32_t>(configuration.stages.size())),
               "stage")
        << ".\n";
    for (const ConfiguredStage& stage : configuration.stages) {
        out << "  stage " << stage.stage << "  " << stage.node << ", port";
        for (const int32_t port : stage.ports) {
            out << ' ' << port;
        }
        out << (stage.ports.empty() ? " none" : "") << '\n';
    }
    int64_t notes = 0;
    for (const Finding& finding : account.configurationFindings) {
        if (finding.severity == Severity::Note) {
            ++notes;
        } else {
            out << "  " << NameOf(finding.severity) << ": " << finding.message << " ["
                << finding.check << "]\n";
        }
    }
    if (notes > 0) {
        out << "  " << Counted(notes, "note") << " more: cameraframeboost check shows "
            << (notes == 1 ? "it" : "them") << '\n';
    }
}

std::vector<std::string> RowOf(const std::string& name, const Statistics& statistics,
                               Micros resolution) {
    std::vector<std::string> row = {name, std::to_string(statistics.count)};
    for (const Micros value :
         {statistics.p50, statistics.p90, statistics.p95, statistics.p99, statistics.max}) {
        row.push_back(statistics.count == 0 ? "-" : Milliseconds(value, resolution));
    }
    return row;
}

void WriteFigures(std::ostream& out, const Account& account, const Scene& scene) {
    out << "\nFrames: " << FramesByStatus(scene) << ".\n";
    if (scene.untold > 0) {
        out << "What became of " << scene.untold
            << " of them cannot be told: lines of the log are missing.\n";
    }
    if (!account.hasTimes) {
        out << "The capture has no times: no durations, and nothing is known to be late or slow.\n";
        return;
    }
    if (scene.interval.count == 0) {
        return;
    }
    const double all = static_cast<double>(scene.frames.size());
    out << "Late: " << scene.lateFrames << " ("
        << Fixed(100.0 * static_cast<double>(scene.lateFrames) / all, 2)
        << " %), that is more than " << Fixed(static_cast<double>(scene.lateThreshold) / 1000.0, 1)
        << " ms after the frame before. Rate: " << Fixed(RateOf(scene), 1) << " fps";
    if (scene.fps > 0) {
        out << " of " << scene.fps;
    }
    out << ".\nMilliseconds, as exact as the capture: "
        << (account.resolution >= 1000 ? "1 ms" : "1 us") << ".\n";
    Table table;
    table.Add({"", "n", "p50", "p90", "p95", "p99", "max"});
    table.Add(RowOf("latency, start to end", scene.latency, account.resolution));
    table.Add(RowOf("interval between outputs", scene.interval, account.resolution));
    for (size_t stage = 0; stage < scene.stages.size(); ++stage) {
        table.Add(RowOf(StageTitleOf(scene, stage), scene.stages[stage], account.resolution));
        if (scene.waits[stage].max > 0) {
            table.Add(RowOf("  waiting", scene.waits[stage], account.resolution));
            table.Add(RowOf("  working", scene.works[stage], account.resolution));
        }
    }
    table.Write(out);
}

std::string DescribeStatus(const Frame& frame) {
    if (frame.status == FrameStatus::Open && frame.reason != Outcome::Unknown) {
        return frame.hasFinding && frame.stage >= 0
                   ? "not seen to leave stage " + std::to_string(frame.stage)
               : frame.hasFinding ? "its end was never reported"
                                  : "in flight at the end";
    }
    if (frame.status == FrameStatus::Complete) {
        return "";
    }
    return (frame.status == FrameStatus::Error && frame.stage >= 0
                ? "stage " + std::to_string(frame.stage) + ": "
                : std::string()) +
           ReasonOf(frame.reason) +
           (frame.reason == Outcome::Unknown ? ": what became of it cannot be told" : "");
}

void WriteFrames(std::ostream& out, const Account& account, const Scene& scene,
                 const TextOptions& options) {
    const auto isShown = [&options](const Frame& frame) {
        if (options.frames) {
            return frame.number >= options.frames->first && frame.number <= options.frames->second;
        }
        return options.showsAllFrames || frame.isLate || frame.status != FrameStatus::Complete;
    };
    const auto count =
        static_cast<size_t>(std::count_if(scene.frames.begin(), scene.frames.end(), isShown));
    if (count == 0) {
        if (options.frames) {
            out << "\nNo frame from " << options.frames->first << " to " << options.frames->second
                << ".\n";
        }
        return;
    }
    const bool isLimited = !options.showsAllFrames && !options.frames && count > ROWS;
    out << (options.frames || options.showsAllFrames ? "\nFrames"
            : account.hasTimes                       ? "\nFrames that were not complete, or late"
                                                     : "\nFrames that were not complete");
    if (isLimited) {
        out << ", the first " << ROWS << " of " << count << " (--all shows every frame)";
    }
    out << (account.hasTimes ? "; milliseconds from the scene's start:\n" : ":\n");
    Table table;
    std::vector<std::string> head = {"frame", "line", "status"};
    if (account.hasTimes) {
        head.insert(head.end(), {"start", "end", "latency", "interval"});
        for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
            head.push_back("stage" + std::to_string(stage));
        }
    }
    head.emplace_back("");
    table.Add(std::move(head));
    size_t rows = 0;
    for (size_t i = 0; i < scene.frames.size() && (!isLimited || rows < ROWS); ++i) {
        const Frame& frame = scene.frames[i];
        if (!isShown(frame)) {
            continue;
        }
        ++rows;
        const auto time = [&](Micros moment, Micros since) {
            return moment == NO_TIME || since == NO_TIME
                       ? std::string("-")
                       : Milliseconds(moment - since, account.resolution);
        };
        std::vector<std::string> row = {std::to_string(frame.number),
                                        std::to_string(frame.place.line), NameOf(frame.status)};
        if (account.hasTimes) {
            row.insert(row.end(), {time(frame.start, scene.begin), time(frame.end, scene.begin),
                                   time(frame.end, frame.start), time(frame.interval, 0)});
            for (const StageTimes& times : scene.StagesOf(i)) {
                row.push_back(time(times.end, times.start));
            }
        }
        row.push_back((frame.isLate ? "late" : "") +
                      (frame.isLate && frame.status != FrameStatus::Complete ? std::string("; ")
                                                                             : std::string()) +
                      DescribeStatus(frame));
        table.Add(std::move(row));
    }
    table.Write(out);
}

std::string Capitalized(std::string text) {
    if (!text.empty() && text.front() >= 'a' && text.front() <= 'z') {
        text.front() = static_cast<char>(text.front() - 'a' + 'A');
    }
    return text;
}

}  // namespace

std::string LineOf(const Account& account, const Scene* scene, const AccountedFinding& finding) {
    AccountedFinding told = finding;
    if (scene != nullptr && scene->begin != NO_TIME && finding.time != NO_TIME &&
        finding.time > scene->begin) {
        told.message += " (" + Fixed(static_cast<double>(finding.time - scene->begin) / 1e6, 3) +
                        " s into the scene)";
    }
    if (finding.place.line == 0) {
        return std::string(NameOf(told.severity)) + ": " + told.message + " [" + told.check + "]";
    }
    return ToString(told, finding.place.input < account.inputs.size()
                              ? account.inputs[finding.place.input]
                              : "line");
}

void WriteText(std::ostream& out, const Account& account, const TextOptions& options) {
    out << VerdictOf(account) << "\n\n";
    for (size_t i = 0; i < account.inputs.size(); ++i) {
        out << (i == 0 ? "" : ", ") << account.inputs[i];
    }
    out << (account.inputs.empty() ? "" : ": ") << Counted(account.lines, "line") << ", "
        << account.libraryLines << " of them the library's";
    if (!account.from.empty()) {
        out << ", from " << account.from << " to " << account.to;
    }
    if (account.lost > 0) {
        out << "; " << account.lost << " more are known to be lost";
    }
    out << ".\n";
    if (!account.hasThreads && account.libraryLines != 0) {
        out << "The capture has no thread ids: whose line is whose is told from frames and "
               "nodes.\n";
    }
    WriteConfiguration(out, account);
    if (!account.findings.empty()) {
        out << '\n';
    }
    for (const AccountedFinding& finding : account.findings) {
        out << LineOf(account, nullptr, finding) << '\n';
    }
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        const Scene& scene = account.scenes[i];
        out << '\n' << Capitalized(TitleOf(account, i));
        if (!scene.isStarted) {
            out << ", not started";
        } else if (scene.begin != NO_TIME && scene.end != NO_TIME) {
            out << ", lasted " << Fixed(static_cast<double>(scene.end - scene.begin) / 1e6, 3)
                << " s";
        }
        out << (scene.isBeginningMissing ? "; it had begun before the capture\n" : "\n");
        for (const AccountedFinding& finding : scene.findings) {
            out << LineOf(account, &scene, finding) << '\n';
        }
        if (scene.isStarted) {
            WriteFigures(out, account, scene);
            WriteFrames(out, account, scene, options);
        }
    }
}

void WriteComparison(std::ostream& out, const Account& before, const Account& after) {
    out << "Before: " << VerdictOf(before) << "\nAfter:  " << VerdictOf(after) << '\n';
    const auto started = [](const Account& account) {
        std::vector<const Scene*> scenes;
        for (const Scene& scene : account.scenes) {
            if (scene.isStarted) {
                scenes.push_back(&scene);
            }
        }
        return scenes;
    };
    const std::vector<const Scene*> olds = started(before);
    const std::vector<const Scene*> news = started(after);
    if (olds.size() != news.size()) {
        out << "Before there were " << Counted(static_cast<int64_t>(olds.size()), "scene")
            << ", after " << news.size() << "; they are compared in order.\n";
    }
    const Micros resolution = std::min(before.resolution, after.resolution);
    for (size_t i = 0; i < std::min(olds.size(), news.size()); ++i) {
        const Scene& old = *olds[i];
        const Scene& now = *news[i];
        out << "\nScene " << i + 1 << ", times in milliseconds; late is more than "
            << Fixed(static_cast<double>(old.lateThreshold) / 1000.0, 1) << " ms before and "
            << Fixed(static_cast<double>(now.lateThreshold) / 1000.0, 1) << " ms after\n";
        Table table;
        table.Add({"", "before", "after", "change"});
        const auto count = [&table](const std::string& name, int64_t one, int64_t other) {
            table.Add({name, std::to_string(one), std::to_string(other),
                       (other > one ? "+" : "") + std::to_string(other - one)});
        };
        const auto time = [&](const std::string& name, Micros one, Micros other) {
            table.Add({name, Milliseconds(one, resolution), Milliseconds(other, resolution),
                       (other > one ? "+" : "") + Milliseconds(other - one, resolution)});
        };
        for (size_t status = 0; status < FRAME_STATUSES; ++status) {
            count(NameOf(static_cast<FrameStatus>(status)), old.statusCounts[status],
                  now.statusCounts[status]);
        }
        count("not boosted", old.notBoosted, now.notBoosted);
        count("not known", old.untold, now.untold);
        count("late", old.lateFrames, now.lateFrames);
        table.Add({"fps", Fixed(RateOf(old), 1), Fixed(RateOf(now), 1),
                   (RateOf(now) > RateOf(old) ? "+" : "") + Fixed(RateOf(now) - RateOf(old), 1)});
        const auto statistics = [&](const std::string& name, const Statistics& one,
                                    const Statistics& other) {
            if (one.count != 0 && other.count != 0) {
                time(name + " p50", one.p50, other.p50);
                time("  p99", one.p99, other.p99);
                time("  max", one.max, other.max);
            }
        };
        statistics("latency", old.latency, now.latency);
        statistics("interval", old.interval, now.interval);
        for (size_t stage = 0; stage < std::min(old.stages.size(), now.stages.size()); ++stage) {
            statistics(StageTitleOf(now, stage), old.stages[stage], now.stages[stage]);
        }
        table.Write(out);
    }

    // Findings are the same when they are of one kind and about one stage.
    using Key = std::pair<std::string, int32_t>;
    struct Change {
        int64_t before = 0, after = 0;
        std::string message;
    };
    std::map<Key, Change> changes;
    const auto collect = [&changes](const Account& account, int64_t Change::*times) {
        const auto add = [&](const std::vector<AccountedFinding>& findings) {
            for (const AccountedFinding& finding : findings) {
                if (finding.severity == Severity::Note) {
                    continue;
                }
                Change& change = changes[{finding.check, finding.stage}];
                change.*times += finding.times;
                change.message = finding.message;
            }
        };
        add(account.findings);
        for (const Scene& scene : account.scenes) {
            add(scene.findings);
        }
    };
    collect(before, &Change::before);
    collect(after, &Change::after);
    out << '\n';
    const auto isSame = [](const auto& change) {
        return change.second.before == change.second.after;
    };
    if (std::all_of(changes.begin(), changes.end(), isSame)) {
        out << "No finding came or went"
            << (changes.empty() ? ": there are none.\n" : ": both have the same.\n");
    }
    for (const auto& [key, change] : changes) {
        if (change.before == change.after) {
            continue;
        }
        out << (change.after == 0    ? "gone"
                : change.before == 0 ? "new"
                                     : "changed")
            << ": " << change.before << " before, " << change.after << " after: " << change.message
            << " [" << key.first << "]\n";
    }
}

}  // namespace tools
