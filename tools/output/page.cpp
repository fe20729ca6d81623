#include "tools/output/page.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <utility>
#include <vector>

#include "tools/base/text.h"
#include "tools/check/report.h"
#include "tools/output/html.h"
#include "tools/output/page_assets.h"

namespace tools {
namespace {

constexpr size_t ROWS = 1'500;    // Of the table of frames.
constexpr size_t FINDINGS = 200;  // Listed.

Micros Between(Micros start, Micros end) {
    return start == NO_TIME || end == NO_TIME ? NO_TIME : end - start;
}

std::string Seconds(Micros time) {
    return Fixed(static_cast<double>(time) / 1e6, 3);
}

class Page {
  public:
    Page(std::ostream& stream, const Account& told, const Shown& wanted)
        : out(stream), account(told), shown(wanted) {}

    void Write(const std::string& title) {
        // Nothing is ever fetched, whatever a capture may hold.
        out << R"(<!doctype html>
<html lang=en>
<head>
<meta charset=utf-8>
<meta name=viewport content="width=device-width, initial-scale=1">
<meta http-equiv=Content-Security-Policy content="default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'; img-src data:">
<link rel=icon href="data:,">
<title>)" << Escaped{title}
            << "</title>\n<style>" << PAGE_STYLE << "</style>\n</head>\n<body>\n<header>\n<h1>"
            << Escaped{title} << "</h1>\n";
        const bool isWell = WorstOf(account) == Severity::Note;
        out << "<p class=\"verdict " << (isWell ? "well" : NameOf(WorstOf(account))) << "\">"
            << (isWell ? "✓ " : "") << Escaped{VerdictOf(account)} << "</p>\n";
        WriteInput();
        out << "</header>\n<main>\n";
        WriteFindings();
        for (size_t i = 0; i < account.scenes.size(); ++i) {
            WriteScene(i);
        }
        WriteFrames();
        WriteConfigurations();
        out << "</main>\n<script>" << PAGE_SCRIPT << "</script>\n</body>\n</html>\n";
    }

  private:
    void WriteInput() {
        out << "<p class=input>";
        const char* separator = "";
        const auto next = [&]() -> std::ostream& { return out << std::exchange(separator, ", "); };
        // The only one is the title.
        for (size_t i = 0; account.inputs.size() > 1 && i < account.inputs.size(); ++i) {
            next() << Escaped{account.inputs[i]};
        }
        if (!account.from.empty()) {
            next() << Escaped{account.from} << " to " << Escaped{account.to};
        }
        const auto add = [&next](int64_t count, const char* what) {
            if (count > 0) {
                next() << count << what;
            }
        };
        add(account.lines, " lines");
        add(account.libraryLines, " of the library");
        add(account.notUnderstood, " <b>not understood</b>");
        add(account.lost, " known to be <b>lost</b>");
        if (!account.hasTimes) {
            next() << "<b>without times</b>";
        }
        out << "</p>\n";
    }

    void WriteFindings() {
        struct Listed {
            const SceneFinding* finding;
            std::optional<size_t> scene;
        };
        std::vector<Listed> listed;
        for (const SceneFinding& finding : account.findings) {
            listed.push_back({&finding, {}});
        }
        for (size_t i = 0; i < account.scenes.size(); ++i) {
            for (const SceneFinding& finding : account.scenes[i].findings) {
                listed.push_back({&finding, i});
            }
        }
        std::stable_sort(listed.begin(), listed.end(), [](const Listed& one, const Listed& other) {
            return one.finding->severity > other.finding->severity;
        });
        out << "<section aria-labelledby=findings><h2 id=findings>Findings</h2>\n"
            << (listed.empty() ? "<p>None.</p>\n" : "") << "<ol class=findings>\n";
        for (size_t i = 0; i < std::min(listed.size(), FINDINGS); ++i) {
            const auto& [finding, index] = listed[i];
            WriteFinding(finding->severity, finding->message, NameOf(finding->check));
            out << " <span class=place>" << Escaped{ToString(account, finding->place)} << "</span>";
            if (index) {
                const Micros moment = Between(account.scenes[*index].begin, finding->time);
                out << " <a href=\"#s" << *index << "\">scene " << *index + 1
                    << (moment == NO_TIME ? "" : ", " + Seconds(moment) + " s") << "</a>";
            }
            out << "</li>\n";
        }
        out << "</ol>\n";
        if (listed.size() > FINDINGS) {
            out << "<p>" << listed.size() - FINDINGS << " more are not listed.</p>\n";
        }
        out << "</section>\n";
    }

    // All but the end of the item.
    void WriteFinding(Severity severity, const std::string& message, const std::string& check) {
        out << "<li class=" << NameOf(severity) << "><b class=severity>" << NameOf(severity)
            << "</b> " << Escaped{message} << " <code>" << Escaped{check} << "</code>";
    }

    void WriteScene(size_t index) {
        const Scene& scene = account.scenes[index];
        std::string title = TitleOf(account, index);
        title[0] = 'S';
        out << "<section id=s" << index << ">\n<h2>" << Escaped{title} << "</h2>\n<p>"
            << (scene.isStarted ? "" : "<b>It was not started.</b> ")
            << (scene.isBeginningMissing ? "<b>The capture starts in its middle.</b> " : "")
            << (!scene.isStarted || scene.hasEnd ? "" : "Its end is not in the capture. ")
            << Counted(scene.frameCount, "frame");
        const char* separator = ": ";
        for (size_t status = 0; status < FRAME_STATUSES; ++status) {
            if (scene.statusCounts[status] > 0) {
                out << std::exchange(separator, ", ") << scene.statusCounts[status] << ' '
                    << NameOf(FrameStatus(status));
            }
        }
        if (!scene.neverOut.empty()) {
            out << "; " << scene.neverOut.size() << " never came out";
        }
        if (account.hasTimes && scene.lateThreshold > 0) {
            out << "; " << scene.lateFrames << " late, that is more than "
                << ShortMilliseconds(scene.lateThreshold) << " ms after the frame before";
        }
        out << ".";
        if (scene.untold > 0) {
            out << " What became of " << scene.untold
                << " cannot be told, as lines of the log are missing.";
        }
        out << "</p>\n";
        if (account.hasTimes && !scene.frames.empty()) {
            WriteFigures(scene);
        }
        out << "</section>\n";
    }

    void WriteFigures(const Scene& scene) {
        out << "<div class=wide><table class=figures><caption>Times in milliseconds, as exact as "
               "the capture: to "
            << ShortMilliseconds(account.resolution)
            << " ms</caption><thead><tr><th scope=col>times of<th scope=col>n<th scope=col>p50"
               "<th scope=col>p90<th scope=col>p95<th scope=col>p99<th scope=col>max"
               "<th scope=col>distribution</tr></thead>\n<tbody>";
        WriteFigure(scene, "latency", scene.latency, [&scene](size_t i) {
            return Between(scene.frames[i].start, scene.frames[i].end);
        });
        WriteFigure(scene, "output interval", scene.interval,
                    [&scene](size_t i) { return scene.frames[i].interval; });
        for (size_t stage = 0; stage < scene.stages.size(); ++stage) {
            const std::string title = FigureTitleOf(scene, stage);
            const auto timesOf = [&scene, stage](size_t i) {
                return scene.TimesOf(i, static_cast<int32_t>(stage));
            };
            WriteFigure(scene, title, scene.stages[stage],
                        [&timesOf](size_t i) { return Between(timesOf(i).start, timesOf(i).end); });
            if (scene.waits[stage].max > 0) {  // Else all is work.
                WriteFigure(scene, title + ": waiting", scene.waits[stage],
                            [&timesOf](size_t i) { return timesOf(i).wait; });
                WriteFigure(scene, title + ": at work", scene.works[stage],
                            [&timesOf](size_t i) { return timesOf(i).work; });
            }
        }
        out << "</tbody></table></div>\n";
    }

    // A row: the figures, and how the values that they are of are distributed.
    void WriteFigure(const Scene& scene, const std::string& title, const Statistics& figures,
                     const std::function<Micros(size_t frame)>& valueOf) {
        constexpr Micros BINS = 40;
        constexpr int HEIGHT = 22;
        out << "<tr><th scope=row>" << Escaped{title} << "<td>" << figures.count;
        if (figures.count == 0) {
            out << "<td><td><td><td><td><td></tr>\n";
            return;
        }
        for (const Micros value :
             {figures.p50, figures.p90, figures.p95, figures.p99, figures.max}) {
            out << "<td>" << ShortMilliseconds(value);
        }
        // Up to a little more than almost all are; the last bin has the rest. Most captures tell
        // milliseconds apart: bins of less would leave holes.
        const Micros top = std::clamp<Micros>(figures.p99 * 5 / 4, 0, figures.max);
        const Micros bin = (top / (BINS - 1) / MILLISECOND + 1) * MILLISECOND;
        std::array<int64_t, BINS> counts{};
        for (size_t i = 0; i < scene.frames.size(); ++i) {
            if (const Micros value = valueOf(i); value != NO_TIME) {
                ++counts[static_cast<size_t>(std::clamp<Micros>(value / bin, 0, BINS - 1))];
            }
        }
        out << "<td><svg class=histogram role=img width=" << BINS * 4 << " height=" << HEIGHT
            << "><title>0 to " << ShortMilliseconds(bin * BINS)
            << " ms; the last bar is all beyond</title><path d=\"";
        const auto most = static_cast<double>(*std::max_element(counts.begin(), counts.end()));
        for (size_t i = 0; i < counts.size(); ++i) {
            // Square roots, so that a single one shows among thousands.
            const double share = std::sqrt(static_cast<double>(counts[i]) / std::max(most, 1.0));
            if (counts[i] > 0) {
                out << 'M' << i * 4 << ' ' << HEIGHT << 'v'
                    << -std::max(2, static_cast<int>(share * HEIGHT)) << "h3V" << HEIGHT << 'z';
            }
        }
        out << "\"/></svg></tr>\n";
    }

    void WriteFrames() {
        out << "<section aria-labelledby=frames><h2 id=frames>"
            << (shown.range
                    ? fmt::format("Frames {} to {}", shown.range->first, shown.range->second)
                    : "Frames not complete, or late")
            << "</h2>\n<div class=wide><table id=list><thead><tr><th scope=col>scene"
               "<th scope=col>frame<th scope=col>status<th scope=col>in stage<th scope=col>reason"
               "<th scope=col>at, s<th scope=col>latency, ms<th scope=col>interval, ms"
               "<th scope=col>line</tr></thead>\n<tbody>";
        size_t count = 0;
        for (size_t i = 0; i < account.scenes.size(); ++i) {
            for (const Frame& frame : account.scenes[i].frames) {
                if (shown.Has(frame) && ++count <= ROWS) {
                    WriteRow(i, frame);
                }
            }
        }
        out << "</tbody></table></div>\n";
        if (count == 0) {
            out << "<p>None.</p>\n";
        } else if (count > ROWS) {
            out << "<p>These are the first " << ROWS << " of " << count
                << "; <code>--to-csv</code> has them all.</p>\n";
        }
        out << "</section>\n";
    }

    void WriteRow(size_t index, const Frame& frame) {
        const Micros begin = account.scenes[index].begin;
        const std::string word = WordOf(frame);
        // When it came out, else when it was last heard of.
        const Micros moment = std::max({frame.start, frame.end, frame.output});
        out << "<tr><td>" << index + 1 << "<td>" << frame.number << "<td class=\"" << word << "\">"
            << (word.empty() ? NameOf(frame.status) : word)
            << (frame.isLate && word != "late" ? ", late" : "") << "<td>";
        if (frame.stage >= 0 && !word.empty()) {
            out << frame.stage;
        }
        out << "<td>" << DescriptionOf(frame) << "<td>";
        if (const Micros time = Between(begin, moment); time != NO_TIME) {
            out << Seconds(time);
        }
        out << "<td>" << ShortMilliseconds(Between(frame.start, frame.end)) << "<td>"
            << ShortMilliseconds(frame.interval) << "<td>"
            << Escaped{ToString(account, frame.place)} << "</tr>\n";
    }

    void WriteConfigurations() {
        const std::vector<SharedConfiguration> all = ConfigurationsOf(account);
        if (all.empty()) {
            out << "<section><h2>Configuration</h2>\n"
                   "<p>Not known: it is dumped when the library is loaded.</p></section>\n";
        }
        for (const SharedConfiguration& one : all) {
            out << "<section><h2>" << TitleOf(all, one) << "</h2>\n<div class=wide><table>";
            for (const auto& row : SummaryOf(one.configuration)) {
                out << "<tr><th scope=row>" << Escaped{row[0]} << "<td>" << Escaped{row[1]}
                    << "</tr>\n";
            }
            out << "</table></div>\n<div class=wide><table>";
            const char* cell = "<th scope=col>";
            for (const auto& row : StagesOf(one.configuration)) {
                out << "<tr>";
                for (const std::string& text : row) {
                    out << cell << Escaped{text};
                }
                out << "</tr>\n";
                cell = "<td>";
            }
            out << "</table></div>\n<ol class=findings>";
            for (const Finding& finding : one.findings) {
                WriteFinding(finding.severity, finding.message, finding.check);
                out << "</li>\n";
            }
            out << "</ol></section>\n";
        }
    }

    std::ostream& out;
    const Account& account;
    const Shown& shown;
};

}  // namespace

void WritePage(std::ostream& out, const Account& account, const std::string& title,
               const Shown& shown) {
    Page(out, account, shown).Write(title);
}

}  // namespace tools
