// The account as a page to look at.

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <regex>
#include <span>
#include <utility>
#include <vector>

#include "tools/base/text.h"
#include "tools/check/check.h"
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
std::string Escaped(std::string_view text) {
    std::string escaped(text);
    for (const auto& [from, to] : REPLACED) {
        for (size_t at = escaped.find(from); at != std::string::npos;
             at = escaped.find(from, at + to.size())) {
            escaped.replace(at, from.size(), to);
        }
    }
    // Control characters but for line ends have no place in HTML.
    const auto isControl = [](char c) { return static_cast<uint8_t>(c) < ' ' && c != '\n'; };
    std::replace_if(escaped.begin(), escaped.end(), isControl, ' ');
    return escaped;
}

// The same for a name, or a message with names in it: whatever letters it has, what stands around
// it keeps its order.
std::string Named(std::string_view text) {
    return "<bdi>" + Escaped(text) + "</bdi>";
}

// A line of Markdown: `code`, and [links](to), of which the text is left, as there is nothing for
// them to lead to.
std::string FromMarkdown(const std::string& text) {
    static const std::regex code("`(.*?)`"), link(R"(\[(.*?)\]\(.*?\))");
    return std::regex_replace(std::regex_replace(Escaped(text), code, "<code>$1</code>"), link,
                              "$1");
}

// Seconds such as "12.345".
std::string Seconds(Micros time) {
    return fmt::format("{:.3f}", static_cast<double>(time) / 1e6);
}

// "150, 160–181", the numbers linked to the timeline.
std::string LinksOf(size_t scene, const std::vector<int64_t>& numbers) {
    const auto linkOf = [scene](int64_t frame) {
        return fmt::format("<a href=\"#scene={}&amp;frame={}\">{}</a>", scene + 1, frame, frame);
    };
    std::vector<std::string> links;
    for (const auto& [first, last] : RangesOf(numbers)) {
        links.push_back(linkOf(first) + (first == last ? "" : "–" + linkOf(last)));
    }
    return fmt::format("{}", fmt::join(links, ", "));
}

// Cells of HTML, of which the first row has the columns' names and the first column the rows'. What
// is wider than the window is scrolled, with keys as well. `attributes`: of the table.
void WriteTable(std::ostream& out, const char* attributes, const std::string& caption,
                const Rows& rows) {
    fmt::print(
        out,
        "<div class=wide tabindex=0><table{}><caption>{}</caption><thead><tr><th scope=col>{}"
        "</tr></thead>\n<tbody>",
        attributes, caption, fmt::join(rows.front(), "<th scope=col>"));
    for (const auto& row : std::span(rows).subspan(1)) {
        fmt::print(out, "<tr><th scope=row>{}</tr>\n", fmt::join(row, "<td>"));
    }
    out << "</tbody></table></div>\n";
}

// A table of texts.
Rows Named(Rows rows) {
    for (std::vector<std::string>& row : rows) {
        std::transform(row.begin(), row.end(), row.begin(),
                       [](const std::string& text) { return Named(text); });
    }
    return rows;
}

// ---- The parts of the page ----

std::string MessageOf(Severity severity, const std::string& message, const std::string& check) {
    return fmt::format("<b class=severity>{}</b> {} <code>{}</code>", NameOf(severity),
                       Named(message), Escaped(check));
}

void WriteFinding(std::ostream& out, const Account& account, const PlacedFinding& placed) {
    const SceneFinding& finding = *placed.finding;
    const KindRow& kind = RowOf(KindOf(finding.what));
    fmt::print(out, "<li class={}>{} <span class=place>{}</span>", NameOf(SeverityOf(finding)),
               MessageOf(SeverityOf(finding), finding.message, kind.name),
               Named(ToString(account, finding.at.place)));
    if (placed.scene) {
        const Micros moment = Between(account.scenes[*placed.scene].begin, finding.at.time);
        fmt::print(out, " <a href=\"#scene={0}&amp;finding={1}\">scene {0}{2}</a>",
                   *placed.scene + 1, placed.number,
                   moment < 0 ? "" : ", " + Seconds(moment) + " s");
    }
    fmt::print(out,
               "<details><summary>What <code>{}</code> means, and what to do</summary><dl>"
               "<dt>What happened<dd>{}<dt>What to do<dd>{}",
               kind.name, FromMarkdown(kind.what), FromMarkdown(kind.remedy));
    for (const auto& [title, numbers] :
         {std::pair("Frames", &finding.own), std::pair("Harmed", &finding.harmed)}) {
        if (placed.scene && !numbers->empty()) {
            fmt::print(out, "<dt>{}<dd>{}", title, LinksOf(*placed.scene, *numbers));
        }
    }
    out << "</dl></details></li>\n";
}

void WriteFindings(std::ostream& out, const Account& account) {
    const std::vector<PlacedFinding> all = FindingsOf(account);
    out << "<h2 id=findings>Findings</h2>\n<ol class=findings>\n";
    for (const PlacedFinding& placed : all) {
        WriteFinding(out, account, placed);
    }
    out << (all.empty() ? "</ol><p>None.</p>\n" : "</ol>\n");
}

void WriteScene(std::ostream& out, const Account& account, const Scheduling* scheduling,
                size_t index) {
    const JudgedScene& scene = account.scenes[index];
    fmt::print(out, "<h2>{}</h2>\n<p>{}</p>\n", Escaped(HeadingOf(account, index)),
               SummaryOf(scene));
    if (!scene.frames.empty()) {
        const auto& [caption, rows] = FigureTableOf(account, scene);
        WriteTable(out, " class=figures", caption, Named(rows));
    }
    for (const auto& [caption, rows] : ThreadTablesOf(scheduling, index)) {
        WriteTable(out, " class=figures", caption, Named(rows));
    }
}

// Frames that are not complete, or late: those of consecutive numbers to which the same happened
// are a row.
void AddFrames(Rows& rows, const Account& account, size_t index) {
    const JudgedScene& scene = account.scenes[index];
    // When the frame came out, else when it was last heard of.
    const auto secondsOf = [&](size_t row) {
        const Fate& fate = scene.FateOf(row);
        const Micros moment = fate.isOut ? fate.output : scene.LastOf(row).time;
        return moment == NO_TIME ? "" : Seconds(moment - scene.begin) + " s";
    };
    // What became of a frame.
    const auto cellsOf = [](const Fate& fate) {
        return std::vector{WordsOf(fate), fate.stage >= 0 ? std::to_string(fate.stage) : "",
                           DescriptionOf(fate)};
    };
    for (size_t row = 0, next = 1; row < scene.frames.size(); row = next++) {
        if (!Shown{}.Has(scene, row)) {
            continue;
        }
        const std::vector<std::string> cells = cellsOf(scene.FateOf(row));
        std::vector<int64_t> numbers;
        Micros interval = NO_TIME;
        for (next = row;
             next < scene.frames.size() && Shown{}.Has(scene, next) &&
             (numbers.empty() || StepOf(numbers.back(), scene.frames[next].number) == 1) &&
             cellsOf(scene.FateOf(next)) == cells;
             ++next) {
            numbers.push_back(scene.frames[next].number);
            interval = std::max(interval, scene.FateOf(next).interval);
        }
        rows.push_back({std::to_string(index + 1), LinksOf(index, numbers),
                        std::to_string(numbers.size()), cells[0], cells[1], cells[2],
                        secondsOf(row), secondsOf(next - 1),
                        interval == NO_TIME ? "" : Milliseconds(interval).dump(),
                        Named(ToString(account, scene.frames[row].place))});
    }
}

void WriteFrames(std::ostream& out, const Account& account) {
    Rows rows = {{"scene", "frames", "count", "status", "in stage", "reason",
                  "first out or seen at", "last out or seen at", "longest interval, ms",
                  "first line"}};
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        AddFrames(rows, account, i);
    }
    out << "<h2>Frames not complete, or late</h2>\n";
    WriteTable(out, " id=list",
               "Frames that follow one another and had the same fate are a row. A click on a "
               "heading sorts.",
               rows);
    out << (rows.size() == 1 ? "<p>None.</p>\n" : "");
}

void WriteConfigurations(std::ostream& out, const Account& account) {
    const std::vector<SharedConfiguration> all = ConfigurationsOf(account);
    if (all.empty()) {
        out << "<h2>Configuration</h2>\n"
               "<p>Not known: it is dumped when the library is loaded.</p>\n";
    }
    for (const SharedConfiguration& one : all) {
        out << "<h2>" << one.title << "</h2>\n";
        Rows settings = SummaryOf(one.configuration);
        settings.insert(settings.begin(), {"setting", "value"});
        WriteTable(out, "", "Settings", Named(settings));
        WriteTable(out, "", "Stages", Named(StagesOf(one.configuration)));
        out << "<ol class=findings>\n";
        for (const Finding& finding : one.findings) {
            fmt::print(out, "<li class={}>{}</li>\n", NameOf(finding.severity),
                       MessageOf(finding.severity, finding.message, finding.check));
        }
        out << "</ol>\n";
    }
}

}  // namespace

void WritePage(std::ostream& out, const Explained& explained) {
    const Account& account = explained.account;
    const Scheduling* const scheduling = explained.scheduling.get();
    const size_t more = account.inputs.size() - 1;
    const std::string title =
        account.inputs.front() + (more == 0 ? "" : fmt::format(" and {} more", more));
    // Nothing is ever fetched, whatever a capture may hold.
    fmt::print(out, R"(<!doctype html>
<html lang=en>
<head>
<meta charset=utf-8>
<meta name=viewport content="width=device-width, initial-scale=1">
<meta http-equiv=Content-Security-Policy content="default-src 'none'; style-src 'unsafe-inline'; script-src 'sha256-{}'; img-src data:">
<link rel=icon href="data:,">
<title>{}</title>
<style>{}</style>
</head>
<body>
<header>
<h1>{}</h1>
<p class="verdict {}">{}</p>
)",
               Base64(PAGE_SCRIPT_HASH), Escaped(title), PAGE_STYLE, Named(title),
               NameOf(WorstOf(account)), Escaped(VerdictOf(account)));
    out << "<p class=input>" << Named(CaptureOf(account, scheduling))
        << "</p>\n<noscript><p>The timeline is missing, as scripts are switched off. All else is "
           "here.</p></noscript>\n</header>\n<main>\n";
    WriteFindings(out, account);
    WriteTimeline(out, account, scheduling);
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        WriteScene(out, account, scheduling, i);
    }
    WriteFrames(out, account);
    WriteConfigurations(out, account);
    out << "</main>\n<script>" << PAGE_SCRIPT << "</script>\n</body>\n</html>\n";
}

}  // namespace tools
