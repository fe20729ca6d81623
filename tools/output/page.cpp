// The account as a page to look at.

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "tools/base/text.h"
#include "tools/check/report.h"
#include "tools/output/outputs.h"
#include "tools/output/page_assets.h"

namespace tools {
namespace {

// ---- Texts and numbers as the page shows them ----

// Markup, and what turns the direction of text: U+202A to U+202E and U+2066 to U+2069.
constexpr std::pair<std::string_view, std::string_view> REPLACED[] = {
    {"&", "&amp;"},        {"<", "&lt;"},         {">", "&gt;"},         {"\"", "&quot;"},
    {"\u202A", "\\u202a"}, {"\u202B", "\\u202b"}, {"\u202C", "\\u202c"}, {"\u202D", "\\u202d"},
    {"\u202E", "\\u202e"}, {"\u2066", "\\u2066"}, {"\u2067", "\\u2067"}, {"\u2068", "\\u2068"},
    {"\u2069", "\\u2069"},
};

// Text from a capture, or anything else that may hold what HTML takes for its own. Characters that
// turn the direction of the text around them show as escapes such as \u202e.
struct Escaped {
    std::string_view text;
};
std::ostream& operator<<(std::ostream& out, const Escaped& escaped) {
    std::string_view rest = escaped.text;
    while (!rest.empty()) {
        const auto* const found =
            std::find_if(std::begin(REPLACED), std::end(REPLACED),
                         [rest](const auto& one) { return rest.starts_with(one.first); });
        if (found != std::end(REPLACED)) {
            out << found->second;
            rest.remove_prefix(found->first.size());
            continue;
        }
        // Control characters but for line ends have no place in HTML.
        const auto byte = static_cast<unsigned char>(rest[0]);
        out << (byte < ' ' && byte != '\n' ? ' ' : rest[0]);
        rest.remove_prefix(1);
    }
    return out;
}

// The same for a name, or a message with names in it: whatever letters it has, what stands around
// it keeps its order.
struct Name {
    std::string_view text;
};
std::ostream& operator<<(std::ostream& out, const Name& name) {
    return out << "<bdi>" << Escaped{name.text} << "</bdi>";
}

// Takes what stands before `end` off the front of `text`, and `end` with it; all where there is
// none.
std::string_view Take(std::string_view& text, std::string_view end) {
    const size_t length = text.find(end);
    const std::string_view taken = text.substr(0, length);
    text.remove_prefix(length == std::string_view::npos ? text.size() : length + end.size());
    return taken;
}

// A line of Markdown: **bold**, `code`, and [links](to), of which the text is left, as there is
// nothing for them to lead to.
struct Markdown {
    std::string_view text;
};
std::ostream& operator<<(std::ostream& out, const Markdown& markdown) {
    std::string_view rest = markdown.text;
    while (!rest.empty()) {
        const size_t mark = std::min(rest.find_first_of("`["), rest.find("**"));
        out << Escaped{rest.substr(0, mark)};
        rest.remove_prefix(std::min(mark, rest.size()));
        if (rest.starts_with('`')) {
            Take(rest, "`");
            out << "<code>" << Escaped{Take(rest, "`")} << "</code>";
        } else if (rest.starts_with('[')) {
            Take(rest, "[");
            out << Escaped{Take(rest, "](")};
            Take(rest, ")");
        } else if (!rest.empty()) {
            Take(rest, "**");
            out << "<b>" << Escaped{Take(rest, "**")} << "</b>";
        }
    }
    return out;
}

// Milliseconds such as "16.667" or "17"; empty where the time is not known.
std::string ShortMilliseconds(Micros time) {
    return time == NO_TIME ? "" : fmt::format("{}", static_cast<double>(time) / 1000);
}

// Seconds such as "12.345".
std::string Seconds(Micros time) {
    return fmt::format("{:.3f}", static_cast<double>(time) / 1e6);
}

// ---- The page ----

Micros Between(Micros start, Micros end) {
    return start == NO_TIME || end == NO_TIME ? NO_TIME : end - start;
}

// To the frame in the timeline.
std::string FrameLink(size_t scene, int64_t frame) {
    return fmt::format("<a href=\"#scene={}&amp;frame={}\">{}</a>", scene + 1, frame, frame);
}

// "150", "150–181", the numbers linked.
std::string RangeLinks(size_t scene, const FrameRange& range) {
    return FrameLink(scene, range.first) +
           (range.first == range.last ? "" : "–" + FrameLink(scene, range.last));
}

// To the frames of a finding; of a long range, to both ends.
std::vector<std::string> LinksOf(size_t scene, const std::vector<FrameRange>& ranges) {
    constexpr uint64_t LISTED = 50;
    std::vector<std::string> links;
    for (FrameRange range : ranges) {
        // Unsigned: numbers may be anything.
        const bool isLong =
            static_cast<uint64_t>(range.last) - static_cast<uint64_t>(range.first) >= LISTED;
        for (; !isLong && range.first < range.last; ++range.first) {
            links.push_back(FrameLink(scene, range.first));
        }
        links.push_back(RangeLinks(scene, range));
    }
    return links;
}

class Page {
  public:
    Page(std::ostream& stream, const Account& shown, const Scheduling* ofTrace)
        : out(stream), account(shown), scheduling(ofTrace) {}

    void Write(const std::string& title) {
        // Nothing is ever fetched, whatever a capture may hold.
        out << R"(<!doctype html>
<html lang=en>
<head>
<meta charset=utf-8>
<meta name=viewport content="width=device-width, initial-scale=1">
<meta http-equiv=Content-Security-Policy content="default-src 'none'; style-src 'unsafe-inline'; script-src 'sha256-)"
            << Base64(PAGE_SCRIPT_HASH) << R"('; img-src data:">
<link rel=icon href="data:,">
<title>)" << Escaped{title}
            << "</title>\n<style>" << PAGE_STYLE << "</style>\n</head>\n<body>\n<header>\n<h1>"
            << Name{title} << "</h1>\n";
        const bool isWell = WorstOf(account) == Severity::Note;
        out << "<p class=\"verdict " << (isWell ? "well" : NameOf(WorstOf(account))) << "\">"
            << (isWell ? "✓ " : "") << Escaped{VerdictOf(account)} << "</p>\n";
        WriteInput();
        out << "<noscript><p>The timeline is missing, as scripts are switched off. All else is "
               "here.</p></noscript>\n</header>\n<main>\n";
        WriteFindings();
        WriteTimeline(out, account, scheduling);
        for (size_t i = 0; i < account.scenes.size(); ++i) {
            WriteScene(i);
        }
        WriteFrames();
        WriteConfigurations();
        WriteWords();
        out << "</main>\n<script>" << PAGE_SCRIPT << "</script>\n</body>\n</html>\n";
    }

  private:
    void WriteInput() {
        out << "<p class=input>";
        const char* separator = "";
        const auto next = [&]() -> std::ostream& { return out << std::exchange(separator, ", "); };
        // The only one is the title.
        for (size_t i = 0; account.inputs.size() > 1 && i < account.inputs.size(); ++i) {
            next() << Name{account.inputs[i]};
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
        add(account.libraryLines == account.lines ? 0 : account.libraryLines, " of the library");
        add(account.notUnderstood, " <b>not understood</b>");
        add(account.lost, " known to be <b>lost</b>");
        if (scheduling != nullptr) {
            next() << Name{TitleOf(*scheduling)};
        }
        out << "</p>\n";
    }

    void WriteFindings() {
        std::multimap<Severity, PlacedFinding, std::greater<>> listed;  // The worst come first.
        for (const PlacedFinding& placed : FindingsOf(account)) {
            listed.emplace(placed.finding.severity, placed);
        }
        out << "<section aria-labelledby=findings><h2 id=findings>Findings</h2>\n"
            << (listed.empty() ? "<p>None.</p>\n" : "<ol class=findings>\n");
        size_t number = 0;
        for (const auto& [severity, placed] : listed) {
            WriteFinding(++number, placed.finding, placed.scene);
        }
        out << (listed.empty() ? "</section>\n" : "</ol></section>\n");
    }

    // `number`: from 1, in the order of the page.
    void WriteFinding(size_t number, const SceneFinding& finding, std::optional<size_t> scene) {
        Micros moment = scene ? Between(account.scenes[*scene].begin, finding.time) : NO_TIME;
        moment = moment < 0 ? NO_TIME : moment;
        out << "<li class=" << NameOf(finding.severity) << " id=f" << number;
        const auto add = [this](const char* attribute, bool isKnown, const auto& value) {
            if (isKnown) {
                out << attribute << value;
            }
        };
        add(" data-scene=", scene.has_value(), scene.value_or(0));
        add(" data-time=", moment != NO_TIME, Seconds(moment));
        add(" data-stage=", finding.stage >= 0, finding.stage);
        add(" data-frame=", finding.frame.has_value(), finding.frame.value_or(0));
        out << '>';
        WriteMessage(finding.severity, finding.message, NameOf(finding.kind));
        out << " <span class=place>" << Name{ToString(account, finding.place)} << "</span>";
        if (scene) {
            out << " <a href=\"#finding=" << number << "\">scene " << *scene + 1
                << (moment == NO_TIME ? "" : ", " + Seconds(moment) + " s") << "</a>";
        }
        out << "<details><summary>What <code>" << NameOf(finding.kind)
            << "</code> means, and what to do</summary><dl><dt>What happened<dd>"
            << Markdown{RowOf(finding.kind).what} << "<dt>What to do<dd>"
            << Markdown{RowOf(finding.kind).remedy};
        const auto addFrames = [&](const char* title, const std::vector<FrameRange>& ranges) {
            if (scene && !ranges.empty()) {
                out << "<dt>" << title << "<dd>"
                    << fmt::format("{}", fmt::join(LinksOf(*scene, ranges), ", "));
            }
        };
        addFrames("Frames", finding.frames);
        addFrames("Harmed", finding.harmed);
        out << "</dl></details></li>\n";
    }

    void WriteMessage(Severity severity, const std::string& message, const std::string& check) {
        out << "<b class=severity>" << NameOf(severity) << "</b> " << Name{message} << " <code>"
            << Escaped{check} << "</code>";
    }

    // What is wider than the window is scrolled, with keys as well, which takes a region with a
    // label. `attributes`: of the table.
    void BeginTable(const std::string& label, const char* attributes, const std::string& caption) {
        out << "<div class=wide tabindex=0 role=region aria-label=\"" << label << "\"><table"
            << attributes << "><caption>" << caption << "</caption>";
    }

    // The first row has the columns' names.
    void WriteRows(const std::string& label, const char* attributes, const std::string& caption,
                   const Rows& rows) {
        BeginTable(label, attributes, caption);
        for (size_t row = 0; row < rows.size(); ++row) {
            out << "<tr>";
            for (size_t column = 0; column < rows[row].size(); ++column) {
                const char* const cell =
                    column == 0 ? "<th scope=row class=name>" : "<td class=name>";
                out << (row == 0 ? "<th scope=col>" : cell) << Name{rows[row][column]};
            }
            out << "</tr>\n";
        }
        out << "</table></div>\n";
    }

    void WriteScene(size_t index) {
        const JudgedScene& scene = account.scenes[index];
        std::string title = TitleOf(account, index);
        title[0] = 'S';
        std::string missingEnd = scene.isStarted ? WhyNoEnd(scene) : "";
        if (!missingEnd.empty()) {
            missingEnd[0] = static_cast<char>(std::toupper(missingEnd[0]));
            missingEnd += ". ";
        }
        out << "<section aria-labelledby=s" << index << ">\n<h2 id=s" << index << '>'
            << Escaped{title} << "</h2>\n<p>"
            << (scene.isStarted ? "" : "<b>It was not started.</b> ")
            << (scene.isBeginningMissing ? "<b>The capture starts in its middle.</b> " : "")
            << missingEnd << Counted(scene.figures.frameCount, "frame") << FramesByStatus(scene);
        if (!scene.figures.neverOut.empty()) {
            out << "; " << scene.figures.neverOut.size() << " never came out";
        }
        if (scene.columns.lateThreshold > 0) {
            out << "; " << scene.figures.late << " late, that is more than "
                << ShortMilliseconds(scene.columns.lateThreshold) << " ms after the frame before";
        }
        out << ".";
        if (scene.figures.unknown > 0) {
            out << " What became of " << scene.figures.unknown
                << " is not known, as lines of the log are missing.";
        }
        out << "</p>\n";
        if (!scene.frames.empty()) {
            WriteFigures(index);
        }
        for (const CaptionedTable& table : ThreadTablesOf(scheduling, index)) {
            WriteRows(fmt::format("{} of scene {}", table.name, index + 1), " class=figures",
                      table.caption, table.rows);
        }
        out << "</section>\n";
    }

    void WriteFigures(size_t index) {
        const JudgedScene& scene = account.scenes[index];
        BeginTable(fmt::format("Figures of scene {}", index + 1), " class=figures",
                   "Times in milliseconds, as exact as the capture: to " +
                       ShortMilliseconds(account.resolution) + " ms");
        out << "<thead><tr><th scope=col>times of<th scope=col>n<th scope=col>p50"
               "<th scope=col>p90<th scope=col>p95<th scope=col>p99<th scope=col>max"
               "<th scope=col>distribution</tr></thead>\n<tbody>";
        WriteFigure(scene, "latency", scene.figures.latency, [&scene](size_t i) {
            return Between(scene.frames[i].start, scene.frames[i].end);
        });
        WriteFigure(scene, "output interval", scene.figures.interval,
                    [&scene](size_t i) { return scene.FateOf(i).interval; });
        for (size_t stage = 0; stage < scene.figures.stages.size(); ++stage) {
            const std::string title = FigureTitleOf(scene, stage);
            const auto timesOf = [&scene, stage](size_t i) {
                return scene.TimesOf(i, static_cast<int32_t>(stage));
            };
            if (stage ==
                0) {  // How long it takes is not known: no line says when the sensor began.
                WriteFigure(scene, title, scene.figures.works[stage],
                            [&timesOf](size_t i) { return timesOf(i).work; });
                continue;
            }
            WriteFigure(scene, title, scene.figures.stages[stage],
                        [&timesOf](size_t i) { return Between(timesOf(i).start, timesOf(i).end); });
            if (scene.figures.waits[stage].max > 0) {  // Else all is work.
                WriteFigure(scene, title + ": waiting", scene.figures.waits[stage],
                            [&timesOf](size_t i) { return timesOf(i).wait; });
                WriteFigure(scene, title + ": at work", scene.figures.works[stage],
                            [&timesOf](size_t i) { return timesOf(i).work; });
            }
        }
        out << "</tbody></table></div>\n";
    }

    // A row: the figures, and how the values that they are of are distributed.
    void WriteFigure(const JudgedScene& scene, const std::string& title, const Statistics& figures,
                     const std::function<Micros(size_t frame)>& valueOf) {
        constexpr Micros BINS = 40;
        constexpr int HEIGHT = 22;
        out << "<tr><th scope=row class=name>" << Name{title} << "<td>" << figures.count;
        if (figures.count == 0) {
            out << "<td><td><td><td><td><td></tr>\n";
            return;
        }
        for (const Micros value :
             {figures.p50, figures.p90, figures.p95, figures.p99, figures.max}) {
            out << "<td>" << ShortMilliseconds(value);
        }
        // Up to a little more than almost all values; the last bin has the rest. The times of most
        // captures are whole milliseconds: bins of less would leave holes.
        const Micros top = std::clamp<Micros>(figures.p99 * 5 / 4, 0, figures.max);
        const Micros bin = (top / (BINS - 1) / MILLISECOND + 1) * MILLISECOND;
        std::array<int64_t, BINS> counts{};
        for (size_t i = 0; i < scene.frames.size(); ++i) {
            if (const Micros value = valueOf(i); value != NO_TIME) {
                ++counts[static_cast<size_t>(std::clamp<Micros>(value / bin, 0, BINS - 1))];
            }
        }
        out << "<td><svg class=histogram role=img width=" << BINS * 4 << " height=" << HEIGHT
            << "><title>" << Escaped{title} << ": 0 to " << ShortMilliseconds(bin * BINS)
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

    // Frames of consecutive numbers to which the same happened are a row.
    struct Run {
        FrameRange numbers;
        std::string cells;  // The cells that say what became of them.
        Micros first = NO_TIME, last = NO_TIME;
        Micros latency = NO_TIME, interval = NO_TIME;  // The longest.
        Place place;                                   // Of the first.
    };

    // Of those that are not complete, or late.
    static std::vector<Run> RunsOf(const JudgedScene& scene) {
        std::vector<Run> runs;
        for (size_t row = 0; row < scene.frames.size(); ++row) {
            const Frame& frame = scene.frames[row];
            const Fate& fate = scene.FateOf(row);
            if (!Shown{}.Has(scene, row)) {
                continue;
            }
            const std::string cells = CellsOf(fate);
            // When it came out, else when it was last heard of.
            const Micros moment =
                Between(scene.begin, std::max({frame.seen, frame.start, frame.end, fate.output}));
            if (runs.empty() || runs.back().cells != cells ||
                frame.number <= runs.back().numbers.last ||
                frame.number - 1 != runs.back().numbers.last) {
                runs.push_back({.numbers = {.first = frame.number},
                                .cells = cells,
                                .first = moment,
                                .place = frame.place});
            }
            Run& run = runs.back();
            run.numbers.last = frame.number;
            run.last = moment;
            run.latency = std::max(run.latency, Between(frame.start, frame.end));
            run.interval = std::max(run.interval, fate.interval);
        }
        return runs;
    }

    static std::string CellsOf(const Fate& fate) {
        const std::string word = WordOf(fate);
        std::string style = word;
        std::replace(style.begin(), style.end(), ' ', '-');
        return fmt::format("<td class={}>{}{}<td>{}<td>{}", style, word,
                           fate.isLate && word != "late" ? ", late" : "",
                           fate.stage >= 0 ? std::to_string(fate.stage) : "", DescriptionOf(fate));
    }

    void WriteFrames() {
        out << "<section aria-labelledby=frames><h2 id=frames>Frames not complete, or late</h2>\n";
        BeginTable("Table of frames not complete, or late", " id=list",
                   "What the timeline draws, as a table: frames that were not complete or came out "
                   "late. Those that follow one another and had the same fate are one row.");
        out << "<thead><tr><th scope=col>scene<th scope=col>frames<th scope=col>count"
               "<th scope=col>status<th scope=col>in stage<th scope=col>reason"
               "<th scope=col>first at<th scope=col>last at<th scope=col>longest latency, ms"
               "<th scope=col>longest interval, ms<th scope=col>first line</tr></thead>\n<tbody>";
        const auto secondsOf = [](Micros time) {
            return time == NO_TIME ? "" : Seconds(time) + " s";
        };
        bool hasRows = false;
        for (size_t i = 0; i < account.scenes.size(); ++i) {
            for (const Run& run : RunsOf(account.scenes[i])) {
                hasRows = true;
                out << "<tr><td>" << i + 1 << "<td>" << RangeLinks(i, run.numbers) << "<td>"
                    << run.numbers.last - run.numbers.first + 1 << run.cells << "<td>"
                    << secondsOf(run.first) << "<td>" << secondsOf(run.last) << "<td>"
                    << ShortMilliseconds(run.latency) << "<td>" << ShortMilliseconds(run.interval)
                    << "<td class=name>" << Name{ToString(account, run.place)} << "</tr>\n";
            }
        }
        out << "</tbody></table></div>\n" << (hasRows ? "" : "<p>None.</p>\n") << "</section>\n";
    }

    void WriteConfigurations() {
        const std::vector<SharedConfiguration> all = ConfigurationsOf(account);
        if (all.empty()) {
            out << "<section aria-labelledby=c0><h2 id=c0>Configuration</h2>\n"
                   "<p>Not known: it is dumped when the library is loaded.</p></section>\n";
        }
        for (size_t i = 0; i < all.size(); ++i) {
            const SharedConfiguration& one = all[i];
            const std::string title = TitleOf(all, one);
            const std::string number = all.size() == 1 ? "" : fmt::format(" {}", i + 1);
            out << "<section aria-labelledby=c" << i << "><h2 id=c" << i << '>' << title
                << "</h2>\n";
            BeginTable("Settings of configuration" + number, "", "Settings");
            for (const auto& row : SummaryOf(one.configuration)) {
                out << "<tr><th scope=row>" << Escaped{row[0]} << "<td class=name>" << Name{row[1]}
                    << "</tr>\n";
            }
            out << "</table></div>\n";
            WriteRows("Stages of configuration" + number, "", "Stages",
                      StagesOf(one.configuration));
            const char* begin = "<ol class=findings>";
            for (const Finding& finding : one.findings) {
                out << std::exchange(begin, "") << "<li class=" << NameOf(finding.severity) << '>';
                WriteMessage(finding.severity, finding.message, finding.check);
                out << "</li>\n";
            }
            out << (one.findings.empty() ? "</section>\n" : "</ol></section>\n");
        }
    }

    void WriteWords() {
        out << "<details id=words><summary>What the words mean</summary><dl id=words-list>\n";
        // "- **Late**: came out more than ...", up to the next item or an empty line.
        std::string_view guide = FIELD_GUIDE;
        while (Take(guide, "\n- **"), !guide.empty()) {
            const std::string_view term = Take(guide, "**: ");
            const size_t end = std::min(guide.find("\n- "), guide.find("\n\n"));
            out << "<dt>" << Markdown{term} << "<dd>" << Markdown{guide.substr(0, end)} << '\n';
        }
        out << "</dl></details>\n";
    }

    std::ostream& out;
    const Account& account;
    const Scheduling* scheduling;  // Null where there is no scheduler trace.
};

}  // namespace

void WritePage(std::ostream& out, const Account& account, const std::string& title,
               const Scheduling* scheduling) {
    Page(out, account, scheduling).Write(title);
}

}  // namespace tools
