#include "tools/output/page.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <utility>
#include <vector>

#include "tools/output/drawn_scene.h"
#include "tools/output/html.h"
#include "tools/output/page_assets.h"
#include "tools/output/timeline.h"

namespace tools {
namespace {

// What keeps the page below 2 MB.
constexpr size_t BARS = 2'500;     // Over all timelines.
constexpr size_t ROWS = 1'500;     // Of the table of frames.
constexpr size_t FINDINGS = 200;   // Listed.
constexpr size_t SCENES = 20;      // Shown.
constexpr size_t INPUTS = 10;      // Named.
constexpr size_t COLUMNS = 1'000;  // Of all overviews, but no less than 100 each.

Micros Between(Micros start, Micros end) {
    return start == NO_TIME || end == NO_TIME ? NO_TIME : end - start;
}

class Page {
  public:
    Page(std::ostream& stream, const Account& told, const PageOptions& wanted)
        : out(stream), account(told), options(wanted) {}

    void Write() {
        ChooseWhatIsDrawn();
        // Nothing is ever fetched, whatever a capture may hold.
        out << R"(<!doctype html>
<html lang=en>
<head>
<meta charset=utf-8>
<meta name=viewport content="width=device-width, initial-scale=1">
<meta http-equiv=Content-Security-Policy content="default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'; img-src data:">
<link rel=icon href="data:,">
<title>)" << Escaped{options.title}
            << "</title>\n<style>" << PAGE_STYLE << "</style>\n</head>\n<body>\n<header>\n<h1>"
            << Escaped{options.title} << "</h1>\n";
        const bool isWell = WorstOf(account) == Severity::Note;
        out << "<p class=\"verdict " << (isWell ? "well" : NameOf(WorstOf(account))) << "\">"
            << (isWell ? "✓ " : "") << VerdictOf(account) << "</p>\n";
        WriteInput();
        out << "</header>\n<main>\n";
        WriteFindings();
        for (const DrawnScene& drawn : scenes) {
            WriteScene(drawn);
        }
        if (scenes.size() < account.scenes.size()) {
            out << "<p>Of " << account.scenes.size() << " scenes these " << SCENES
                << " have the worst findings.</p>\n";
        }
        WriteFrames();
        WriteConfiguration();
        out << "</main>\n<div id=tip role=status hidden></div>\n<script>" << PAGE_SCRIPT
            << "</script>\n</body>\n</html>\n";
    }

  private:
    // What was asked for comes first, then the worst of each scene, then the next.
    void ChooseWhatIsDrawn() {
        std::vector<size_t> order(account.scenes.size());
        std::iota(order.begin(), order.end(), 0);
        if (order.size() > SCENES) {
            const auto severity = [this](size_t i) {
                const auto& findings = account.scenes[i].findings;
                return findings.empty() ? Severity::Note : findings.front().severity;
            };
            std::stable_sort(order.begin(), order.end(), [&](size_t one, size_t other) {
                return severity(one) > severity(other);
            });
            order.resize(SCENES);
            std::sort(order.begin(), order.end());
        }
        size_t bars = BARS;
        for (const size_t index : order) {
            DrawnScene& drawn = scenes.emplace_back(account, index);
            if (drawn.scene.frames.size() <= WHOLE_FRAMES) {
                drawn.AddWindow(drawn.span, bars);
            } else if (options.frames) {
                drawn.AddFrames(options.frames->first, options.frames->second, bars);
            }
        }
        bool isMore = true;
        for (size_t rank = 0; isMore; ++rank) {
            isMore = false;
            for (DrawnScene& drawn : scenes) {
                isMore |= drawn.AddFinding(rank, bars);
            }
        }
    }

    void WriteInput() {
        out << "<p class=input>";
        const char* separator = "";
        const auto next = [&]() -> std::ostream& { return out << std::exchange(separator, ", "); };
        // The only one is the title.
        for (size_t i = 0; account.inputs.size() > 1 && i < account.inputs.size(); ++i) {
            if (i == INPUTS) {
                next() << account.inputs.size() - INPUTS << " more";
                break;
            }
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
            next() << "<b>without times</b>, so that nothing can be drawn";
        }
        out << "</p>\n";
    }

    void WriteFindings() {
        struct Listed {
            const AccountedFinding* finding;
            const DrawnScene* drawn;
        };
        std::vector<Listed> listed;
        for (const AccountedFinding& finding : account.findings) {
            listed.push_back({&finding, nullptr});
        }
        for (const DrawnScene& drawn : scenes) {
            for (const AccountedFinding& finding : drawn.scene.findings) {
                listed.push_back({&finding, &drawn});
            }
        }
        std::stable_sort(listed.begin(), listed.end(), [](const Listed& one, const Listed& other) {
            return one.finding->severity > other.finding->severity;
        });
        out << "<section aria-labelledby=findings><h2 id=findings>Findings</h2>\n"
            << (listed.empty() ? "<p>None.</p>\n" : "") << "<ol class=findings>\n";
        for (size_t i = 0; i < std::min(listed.size(), FINDINGS); ++i) {
            const auto& [finding, drawn] = listed[i];
            WriteFinding(*finding);
            if (drawn != nullptr) {
                const auto frame = drawn->FrameOf(*finding);
                const Micros moment =
                    frame && finding->time == NO_TIME ? drawn->moments[*frame] : finding->time;
                const bool isDrawn = frame && drawn->IsDrawn(*frame);
                // Of the capture, and no frame's: drawn as a mark.
                const bool isMark =
                    !frame && drawn->HoldsMoment(moment) &&
                    (finding->check == "clock-jump" || finding->check == "lines-lost");
                out << " <a href=\"#" << (isDrawn ? 'f' : isMark ? 'm' : 's') << drawn->index;
                if (isDrawn) {
                    out << '-' << *frame;
                } else if (isMark) {
                    out << '-' << moment - drawn->span.begin;
                }
                out << "\">scene " << drawn->index + 1;
                if (moment != NO_TIME && drawn->hasTimes) {
                    out << ", " << Clock(moment - drawn->span.begin);
                }
                out << "</a>";
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
    void WriteFinding(const Finding& finding) {
        out << "<li class=" << NameOf(finding.severity) << "><b class=severity>"
            << NameOf(finding.severity) << "</b> " << Escaped{finding.message} << " <code>"
            << Escaped{finding.check} << "</code> <span class=place>"
            << Escaped{ToString(account, finding.place)} << "</span>";
    }

    void WriteScene(const DrawnScene& drawn) {
        const Scene& scene = drawn.scene;
        std::string title = TitleOf(account, drawn.index);
        title[0] = 'S';
        out << "<section id=s" << drawn.index << ">\n<h2>" << Escaped{title} << "</h2>\n<p>"
            << (scene.isStarted ? "" : "<b>It was not started.</b> ")
            << (scene.isBeginningMissing ? "<b>The capture starts in its middle.</b> " : "")
            << Counted(static_cast<int64_t>(scene.frames.size()), "frame");
        if (scene.frames.empty()) {
            out << ".</p>\n</section>\n";
            return;
        }
        const char* separator = ": ";
        for (size_t status = 0; status < FRAME_STATUSES; ++status) {
            if (const int64_t count = scene.CountOf(FrameStatus(status)); count > 0) {
                out << std::exchange(separator, ", ") << count << ' '
                    << NameOf(FrameStatus(status));
            }
        }
        const auto stuck =
            std::count_if(scene.frames.begin(), scene.frames.end(),
                          [](const Frame& frame) { return LookOf(frame) == Look::Stuck; });
        if (stuck > 0) {
            out << ", " << stuck << " of them stuck";
        }
        if (drawn.hasTimes) {
            out << "; " << scene.lateFrames << " late, that is more than "
                << Milliseconds(scene.lateThreshold) << " ms after the frame before.";
        } else {
            out << "; without times, none is known to be late.";
        }
        if (scene.untold > 0) {
            out << " What became of " << scene.untold
                << " cannot be told, as lines of the log are missing.";
        }
        if (drawn.hasTimes) {
            out << " Times count from the scene's start.</p>\n";
            WriteOverview(out, drawn, std::max<size_t>(COLUMNS / scenes.size(), 100));
            WriteLegend(out, drawn);
            if (scene.frames.size() > WHOLE_FRAMES) {
                out << "<p>It is too long to be drawn whole. "
                    << (drawn.windows.empty() ? "" : "Below are its worst moments. ")
                    << "<code>--frames A-B</code> draws any others.</p>\n";
            }
            for (const Span& window : drawn.windows) {
                WriteTimeline(out, drawn, window);
            }
            WriteFigures(scene);
        } else {
            out << "</p>\n";
        }
        out << "</section>\n";
    }

    void WriteFigures(const Scene& scene) {
        out << "<div class=wide><table class=figures><caption>Times in milliseconds, as exact as "
               "the capture: to "
            << Milliseconds(account.resolution)
            << " ms</caption><thead><tr><th scope=col><th scope=col>n<th scope=col>p50<th "
               "scope=col>p90"
               "<th scope=col>p95<th scope=col>p99<th scope=col>max"
               "<th scope=col>distribution</tr></thead>\n<tbody>";
        WriteFigure(scene, "latency", scene.latency, [&scene](size_t i) {
            return Between(scene.frames[i].start, scene.frames[i].end);
        });
        WriteFigure(scene, "output interval", scene.interval,
                    [&scene](size_t i) { return scene.frames[i].interval; });
        for (size_t stage = 0; stage < scene.stages.size(); ++stage) {
            const std::string title = StageTitleOf(scene, stage);
            const auto times = [&scene, stage](size_t i) { return scene.StagesOf(i)[stage]; };
            WriteFigure(scene, title, scene.stages[stage],
                        [&](size_t i) { return Between(times(i).start, times(i).end); });
            if (scene.waits[stage].max > 0) {  // Else all is work.
                WriteFigure(scene, title + ": waiting", scene.waits[stage],
                            [&](size_t i) { return times(i).wait; });
                WriteFigure(scene, title + ": at work", scene.works[stage],
                            [&](size_t i) { return times(i).work; });
            }
        }
        out << "</tbody></table></div>\n";
    }

    // A row: the figures, and how the values that they are of are distributed.
    void WriteFigure(const Scene& scene, const std::string& title, const Statistics& figures,
                     const auto& valueOf) {
        constexpr Micros BINS = 40;
        constexpr int HEIGHT = 22;
        out << "<tr><th scope=row>" << Escaped{title} << "<td>" << figures.count;
        if (figures.count == 0) {
            out << "<td><td><td><td><td><td></tr>\n";
            return;
        }
        for (const Micros value :
             {figures.p50, figures.p90, figures.p95, figures.p99, figures.max}) {
            out << "<td>" << Milliseconds(value);
        }
        // Up to a little more than almost all are; the last bin has the rest. Most captures tell
        // milliseconds apart: bins of less would leave holes.
        const Micros top = std::clamp<Micros>(figures.p99 * 5 / 4, 0, figures.max);
        const Micros bin = (top / (BINS - 1) / 1000 + 1) * 1000;
        std::array<int64_t, BINS> counts{};
        for (size_t i = 0; i < scene.frames.size(); ++i) {
            if (const Micros value = valueOf(i); value != NO_TIME) {
                ++counts[static_cast<size_t>(std::clamp<Micros>(value / bin, 0, BINS - 1))];
            }
        }
        out << "<td><svg class=histogram role=img width=" << BINS * 4 << " height=" << HEIGHT
            << "><title>0 to " << Milliseconds(bin * BINS)
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
        out << "<section aria-labelledby=frames><h2 id=frames>Frames not complete, or late</h2>\n"
               "<div class=wide><table id=list><thead><tr><th scope=col>scene<th scope=col>frame"
               "<th scope=col>status<th scope=col>in stage<th scope=col>reason<th scope=col>at, s"
               "<th scope=col>latency, ms<th scope=col>interval, ms<th scope=col>line</tr></thead>"
               "\n<tbody>";
        size_t count = 0;
        for (const DrawnScene& drawn : scenes) {
            for (size_t i = 0; i < drawn.scene.frames.size(); ++i) {
                const Look look = LookOf(drawn.scene.frames[i]);
                if (look != Look::Good && ++count <= ROWS) {
                    WriteRow(drawn, i, look);
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

    void WriteRow(const DrawnScene& drawn, size_t index, Look look) {
        const Frame& frame = drawn.scene.frames[index];
        out << "<tr><td>" << drawn.index + 1 << "<td>";
        if (drawn.IsDrawn(index)) {
            out << "<a href=\"#f" << drawn.index << '-' << index << "\">" << frame.number << "</a>";
        } else {
            out << frame.number;
        }
        out << "<td class=" << WordOf(look) << '>' << MarkOf(look) << ' ' << WordOf(look)
            << (frame.isLate && look != Look::Late ? ", late" : "") << "<td>"
            << (StageOf(frame) >= 0 ? std::to_string(StageOf(frame)) : "") << "<td>"
            << (look == Look::Stuck && frame.reason == Outcome::Forwarded
                    ? "never seen to leave the stage"
                    : ReasonOf(frame.reason))
            << "<td>";
        if (drawn.hasTimes) {
            out << Fixed(static_cast<double>(drawn.moments[index] - drawn.span.begin) / 1e6, 3);
        }
        out << "<td>" << Milliseconds(Between(frame.start, frame.end)) << "<td>"
            << Milliseconds(frame.interval) << "<td>" << Escaped{ToString(account, frame.place)}
            << "</tr>\n";
    }

    void WriteConfiguration() {
        out << "<section aria-labelledby=configuration><h2 id=configuration>Configuration</h2>\n";
        if (!account.configuration) {
            out << "<p>Not known: it is dumped when the library is loaded.</p></section>\n";
            return;
        }
        const Configuration& known = *account.configuration;
        out << "<p>Boosting is <b>" << (known.isEnabled ? "on" : "off") << "</b>. Widths: 3840";
        if (known.additionalWidth) {
            out << " and " << *known.additionalWidth;
        } else {
            out << ", and another if one is configured, which the log does not tell";
        }
        out << ". Modes:" << (known.modes.empty() ? " none" : "");
        for (const int32_t mode : known.modes) {
            std::array<char, 16> hexadecimal{};
            std::snprintf(hexadecimal.data(), hexadecimal.size(), "0x%X",
                          static_cast<unsigned>(mode));
            out << ' ' << hexadecimal.data() << " (" << mode << ')';
        }
        out << ".</p>\n<div class=wide><table><thead><tr><th scope=col>stage<th scope=col>node"
               "<th scope=col>ports</tr></thead><tbody>";
        for (const ConfiguredStage& stage : known.stages) {
            out << "<tr><td>" << stage.stage << "<td>" << Escaped{stage.node} << "<td>";
            for (const int32_t port : stage.ports) {
                out << port << ' ';
            }
            out << "</tr>\n";
        }
        out << "</tbody></table></div>\n<ol class=findings>";
        for (const Finding& finding : account.configurationFindings) {
            WriteFinding(finding);
            out << "</li>\n";
        }
        out << "</ol></section>\n";
    }

    std::ostream& out;
    const Account& account;
    const PageOptions& options;
    std::vector<DrawnScene> scenes;
};

}  // namespace

void WritePage(std::ostream& out, const Account& account, const PageOptions& options) {
    Page(out, account, options).Write();
}

}  // namespace tools
