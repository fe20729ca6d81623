#include "tools/output/page.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <set>
#include <string_view>
#include <vector>

#include "tools/output/drawing.h"
#include "tools/output/page_assets.h"

namespace tools {
namespace {

// What keeps the page below 2 MB.
constexpr size_t WHOLE_FRAMES = 240;   // A scene of more is not drawn whole.
constexpr size_t BARS = 4'000;         // Frames times stages, over all timelines.
constexpr size_t ROWS = 2'000;         // Of the table of frames.
constexpr size_t FINDINGS = 200;       // Listed.
constexpr size_t SCENES = 20;          // Shown in full.
constexpr size_t COLUMNS = 1'000;      // Of an overview; fewer when there are many.
constexpr Micros BEFORE_FINDING = 10;  // Periods.
constexpr Micros AFTER_FINDING = 30;

constexpr double PIXELS_A_PERIOD = 50;  // Of a timeline before it is zoomed.
constexpr int ROW_HEIGHT = 13;
constexpr size_t ROW_LANES = 8;  // More than that overlap are drawn over one another.

// A mark of its own for each look, for those who do not see its colour.
constexpr std::array<const char*, LOOKS> MARKS = {"", "▲", "✕", "◆", "⊘", "○", "…"};
constexpr std::array<const char*, LOOKS> MEANINGS = {
    "",
    "complete, but it came out late",
    "reported to the service as bad, by the library or the HAL",
    "pushed out of the library's table by newer frames",
    "its start was refused",
    "nodes reported it, but the library never had it in flight",
    "still in flight at the end",
};

// Text from a capture, or anything else that may hold what HTML takes for its own.
struct Escaped {
    std::string_view text;
};

std::ostream& operator<<(std::ostream& out, const Escaped& escaped) {
    for (const char character : escaped.text) {
        switch (character) {
            case '&':
                out << "&amp;";
                break;
            case '<':
                out << "&lt;";
                break;
            case '>':
                out << "&gt;";
                break;
            case '"':
                out << "&quot;";
                break;
            case '\'':
                out << "&#39;";
                break;
            default:
                // What does not print has no place in HTML.
                out << (static_cast<unsigned char>(character) < ' ' ? ' ' : character);
        }
    }
    return out;
}

std::string Fixed(double value, int digits) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", digits, value);
    return text.data();
}

// Without the zeros at the end.
std::string Short(double value, int digits) {
    std::string text = Fixed(value, digits);
    if (text.find('.') != std::string::npos) {
        text.erase(text.find_last_not_of('0') + 1);
        if (text.back() == '.') {
            text.pop_back();
        }
    }
    return text;
}

// "16.667", or nothing where it is not known.
std::string Milliseconds(Micros time) {
    return time == NO_TIME ? "" : Short(static_cast<double>(time) / 1000, 3);
}

// A moment, from the beginning of the scene: "2.017 s", "12:30.5".
std::string Clock(Micros time, int digits = 3) {
    const double seconds = static_cast<double>(time) / 1e6;
    if (seconds < 60) {
        return Short(seconds, digits) + " s";
    }
    const auto minutes = static_cast<int64_t>(seconds / 60);
    const std::string rest = Short(seconds - static_cast<double>(minutes * 60), digits);
    const bool isOneDigit = rest.size() == 1 || rest[1] == '.';
    return std::to_string(minutes) + (isOneDigit ? ":0" : ":") + rest;
}

// "1 frame", "2 frames".
std::string Counted(int64_t count, std::string_view unit) {
    return std::to_string(count) + " " + std::string(unit) + (count == 1 ? "" : "s");
}

std::string_view ClassOf(Look look) {
    return look == Look::Good ? "good" : WordOf(look);
}

// A stretch of a scene that has a timeline.
struct Window {
    Span span;
    bool Holds(Micros time) const { return time >= span.begin && time < span.end; }
};

// A scene made ready to be shown.
struct ShownScene {
    size_t index = 0;
    Micros period = 0;
    Micros begin = 0, end = 0;
    // Of each frame: when it came out, else the last that is known, else when it should have.
    std::vector<Micros> moments;
    std::vector<Window> windows;                  // In the order of time.
    std::set<std::pair<size_t, int32_t>> blamed;  // Frames and stages that findings are about.
    bool hasTimes = false;
};

class Page {
  public:
    Page(std::ostream& stream, const Account& told, const PageOptions& wanted)
        : out(stream), account(told), options(wanted) {}

    void Write() {
        PrepareScenes();
        WriteHead();
        WriteFindings();
        for (const ShownScene& shown : scenes) {
            WriteScene(shown);
        }
        WriteSceneList();
        WriteFrames();
        WriteConfiguration();
        out << "</main>\n<div id=tip role=status hidden></div>\n<script>" << PAGE_SCRIPT
            << "</script>\n</body>\n</html>\n";
    }

  private:
    // ---- What is shown.

    void PrepareScenes() {
        std::vector<size_t> order(account.scenes.size());
        std::iota(order.begin(), order.end(), 0);
        if (order.size() > SCENES) {
            std::stable_sort(order.begin(), order.end(), [this](size_t one, size_t other) {
                return WorstOf(account.scenes[one].findings) >
                       WorstOf(account.scenes[other].findings);
            });
            order.resize(SCENES);
            std::sort(order.begin(), order.end());
        }
        for (const size_t index : order) {
            scenes.push_back(Prepare(index));
        }
        size_t bars = BARS;
        // What was asked for comes first, then the worst of each scene, then the next.
        for (ShownScene& shown : scenes) {
            if (account.scenes[shown.index].frames.size() <= WHOLE_FRAMES) {
                AddWindow(shown, {shown.begin, shown.end}, bars);
            } else if (options.frames) {
                AddWindow(shown, SpanOfRange(shown), bars);
            }
        }
        for (size_t rank = 0, ranks = 1; rank < ranks; ++rank) {
            for (ShownScene& shown : scenes) {
                const Scene& scene = account.scenes[shown.index];
                ranks = std::max(ranks, scene.findings.size());
                if (rank < scene.findings.size()) {
                    const AccountedFinding& finding = scene.findings[rank];
                    if (const auto frame = FrameOf(shown, scene, finding)) {
                        shown.blamed.emplace(*frame, finding.stage);
                    }
                    const Micros moment = MomentOf(shown, finding);
                    AddWindow(shown,
                              {moment == NO_TIME ? NO_TIME : moment - BEFORE_FINDING * shown.period,
                               moment + AFTER_FINDING * shown.period},
                              bars);
                }
            }
        }
    }

    static Severity WorstOf(const std::vector<AccountedFinding>& findings) {
        return findings.empty() ? Severity::Note : findings.front().severity;
    }

    ShownScene Prepare(size_t index) const {
        const Scene& scene = account.scenes[index];
        ShownScene shown;
        shown.index = index;
        shown.period = PeriodOf(scene);
        Span all;
        all.Include(scene.begin);
        all.Include(scene.end);
        Micros last = scene.begin == NO_TIME ? 0 : scene.begin;
        int64_t lastNumber = scene.frames.empty() ? 0 : scene.frames.front().number;
        for (size_t i = 0; i < scene.frames.size(); ++i) {
            const Frame& frame = scene.frames[i];
            const Span span = SpanOf(scene, i);
            all.Include(span.begin);
            all.Include(span.end);
            Micros moment = frame.output;
            if (moment == NO_TIME) {
                Span seen;  // The end of an evicted frame is that of others' patience with it.
                for (const StageTimes& times : scene.StagesOf(i)) {
                    seen.Include(times.start);
                    seen.Include(times.end);
                }
                moment = std::max(seen.end, frame.start);
            }
            if (moment == NO_TIME) {
                moment =
                    last + shown.period * std::clamp<int64_t>(frame.number - lastNumber, 0, 1000);
            }
            shown.moments.push_back(moment);
            last = moment;
            lastNumber = frame.number;
        }
        shown.hasTimes = all.begin != NO_TIME && all.end > all.begin;
        shown.begin = all.begin == NO_TIME ? 0 : all.begin;
        shown.end = all.end == NO_TIME ? 0 : all.end + 1;
        return shown;
    }

    Span SpanOfRange(const ShownScene& shown) const {
        const Scene& scene = account.scenes[shown.index];
        Span span;
        for (size_t i = 0; i < scene.frames.size(); ++i) {
            const int64_t number = scene.frames[i].number;
            if (number >= options.frames->first && number <= options.frames->second) {
                const Span whole = SpanOf(scene, i);
                span.Include(whole.begin == NO_TIME ? shown.moments[i] : whole.begin);
                span.Include(shown.moments[i] + 1);
            }
        }
        return span;
    }

    // Takes as many frames as `bars` allows for; joins windows that overlap.
    void AddWindow(ShownScene& shown, Span span, size_t& bars) const {
        const Scene& scene = account.scenes[shown.index];
        if (!shown.hasTimes || span.begin == NO_TIME) {
            return;
        }
        span.begin = std::max(span.begin, shown.begin);
        span.end = std::min(span.end, shown.end);
        std::vector<Micros> added;
        for (const Micros moment : shown.moments) {
            if (moment >= span.begin && moment < span.end && !IsDrawn(shown, moment)) {
                added.push_back(moment);
            }
        }
        const size_t each = std::max<size_t>(static_cast<size_t>(scene.stageCount), 1);
        if (added.size() * each > bars) {
            added.resize(bars / each);
            if (added.empty()) {
                return;
            }
            span.end = *std::max_element(added.begin(), added.end()) + 1;
        }
        bars -= added.size() * each;
        std::erase_if(shown.windows, [&span](const Window& other) {
            const bool isOne = other.span.begin <= span.end && span.begin <= other.span.end;
            if (isOne) {
                span.Include(other.span.begin);
                span.Include(other.span.end);
            }
            return isOne;
        });
        shown.windows.push_back({span});
        std::sort(shown.windows.begin(), shown.windows.end(),
                  [](const Window& one, const Window& other) {
                      return one.span.begin < other.span.begin;
                  });
    }

    // The frame that a finding is about: of several of its number the one nearest in time.
    static std::optional<size_t> FrameOf(const ShownScene& shown, const Scene& scene,
                                         const AccountedFinding& finding) {
        std::optional<size_t> best;
        for (size_t i = 0; finding.frame && i < scene.frames.size(); ++i) {
            const auto distance = [&](size_t frame) {
                return finding.time == NO_TIME ? 0 : std::abs(shown.moments[frame] - finding.time);
            };
            if (scene.frames[i].number == *finding.frame &&
                (!best || distance(i) < distance(*best))) {
                best = i;
            }
        }
        return best;
    }

    Micros MomentOf(const ShownScene& shown, const AccountedFinding& finding) const {
        const auto frame = FrameOf(shown, account.scenes[shown.index], finding);
        return frame ? shown.moments[*frame] : finding.time;
    }

    static bool IsDrawn(const ShownScene& shown, Micros moment) {
        return std::any_of(shown.windows.begin(), shown.windows.end(),
                           [moment](const Window& window) { return window.Holds(moment); });
    }

    // ---- The page from top to bottom.

    void WriteHead() {
        out << "<!doctype html>\n<html lang=en>\n<head>\n<meta charset=utf-8>\n"
               "<meta name=viewport content=\"width=device-width, initial-scale=1\">\n"
               // Nothing is ever fetched, whatever a capture may hold.
               "<meta http-equiv=Content-Security-Policy content=\"default-src 'none'; "
               "style-src 'unsafe-inline'; script-src 'unsafe-inline'; img-src data:\">\n"
               "<link rel=icon href=\"data:,\">\n<title>"
            << Escaped{options.title} << "</title>\n<style>" << PAGE_STYLE
            << "</style>\n</head>\n<body>\n"
               "<header>\n<h1>"
            << Escaped{options.title} << "</h1>\n";
        WriteVerdict();
        WriteCapture();
        out << "</header>\n<main>\n";
    }

    void WriteVerdict() {
        int64_t frames = 0;
        int64_t open = 0;
        int64_t bad = 0;
        int64_t late = 0;
        Severity worst = WorstOf(account.findings);
        for (const Scene& scene : account.scenes) {
            frames += static_cast<int64_t>(scene.frames.size());
            open += scene.CountOf(FrameStatus::Open);
            bad += static_cast<int64_t>(scene.frames.size()) -
                   scene.CountOf(FrameStatus::Complete) - scene.CountOf(FrameStatus::Open);
            late += scene.lateFrames;
            worst = std::max(worst, WorstOf(scene.findings));
        }
        const bool isClean = bad == 0 && late == 0 && worst == Severity::Note;
        out << "<p class=\"verdict " << (isClean ? "clean" : NameOf(worst)) << "\">";
        if (account.scenes.empty()) {
            out << "There is nothing to draw: no scene was described or started, and no frame "
                   "seen.";
        } else if (frames == 0) {
            out << "There is nothing to draw: not a frame was seen.";
        } else if (bad == 0 && late == 0) {
            out << "✓ All is well with the frames: of " << Counted(frames, "frame")
                << " none was lost to boosting, and none came late.";
        } else {
            out << "Of " << Counted(frames, "frame") << " " << bad << (bad == 1 ? " was" : " were")
                << " not boosted from start to end, and " << late << " came late.";
        }
        if (open > 0) {
            out << " " << open << (open == 1 ? " was" : " were") << " still in flight at the end.";
        }
        out << "</p>\n";
    }

    void WriteCapture() {
        out << "<p class=capture>";
        for (size_t i = 0; i < std::min<size_t>(account.inputs.size(), 10); ++i) {
            out << (i == 0 ? "" : ", ") << Escaped{account.inputs[i]};
        }
        if (account.inputs.size() > 10) {
            out << " and " << account.inputs.size() - 10 << " more";
        }
        if (!account.from.empty()) {
            out << ", " << Escaped{account.from} << " to " << Escaped{account.to};
        }
        out << ": " << Counted(account.lines, "line") << ", " << account.libraryLines
            << " of the library";
        if (account.notUnderstood > 0) {
            out << ", <b>" << account.notUnderstood << " of its tags not understood</b>";
        }
        if (account.lost > 0) {
            out << ", <b>" << account.lost << " known to be lost</b>";
        }
        out << ".";
        if (!account.hasTimes) {
            out << " <b>The capture carries no times</b>, so nothing can be drawn over time.";
        }
        out << "</p>\n";
    }

    void WriteFindings() {
        struct Listed {
            const AccountedFinding* finding;
            const ShownScene* scene;
        };
        std::vector<Listed> listed;
        for (const AccountedFinding& finding : account.findings) {
            listed.push_back({&finding, nullptr});
        }
        for (const ShownScene& shown : scenes) {
            for (const AccountedFinding& finding : account.scenes[shown.index].findings) {
                listed.push_back({&finding, &shown});
            }
        }
        std::stable_sort(listed.begin(), listed.end(), [](const Listed& one, const Listed& other) {
            return one.finding->severity > other.finding->severity;
        });
        out << "<section aria-labelledby=findings><h2 id=findings>Findings</h2>\n";
        if (listed.empty()) {
            out << "<p>None.</p>\n";
        } else {
            out << "<ol class=findings>\n";
        }
        for (size_t i = 0; i < std::min(listed.size(), FINDINGS); ++i) {
            WriteFinding(*listed[i].finding, listed[i].scene);
        }
        out << (listed.empty() ? "" : "</ol>\n");
        if (listed.size() > FINDINGS) {
            out << "<p>" << listed.size() - FINDINGS << " more are not listed.</p>\n";
        }
        out << "</section>\n";
    }

    void WriteFinding(const AccountedFinding& finding, const ShownScene* shown) {
        WriteFindingStart(finding);
        if (shown != nullptr) {
            const Scene& scene = account.scenes[shown->index];
            const auto frame = FrameOf(*shown, scene, finding);
            const Micros moment = MomentOf(*shown, finding);
            std::string words =
                account.scenes.size() > 1 ? "scene " + std::to_string(shown->index + 1) : "show";
            if (moment != NO_TIME && shown->hasTimes) {
                words += " at " + Clock(moment - shown->begin);
            }
            out << " <a href=\"#";
            if (frame && IsDrawn(*shown, moment)) {
                out << 'f' << shown->index << '-' << *frame;
            } else {
                out << "scene" << shown->index;
            }
            out << "\">" << words << "</a>";
        }
        out << "</li>\n";
    }

    void WriteFindingStart(const Finding& finding) {
        out << "<li class=" << NameOf(finding.severity) << "><b class=severity>"
            << NameOf(finding.severity) << "</b> " << Escaped{finding.message} << " <code>"
            << Escaped{finding.check} << "</code>";
        if (const std::string place = ToString(account, finding.place); !place.empty()) {
            out << " <span class=place>" << Escaped{place} << "</span>";
        }
    }

    void WriteScene(const ShownScene& shown) {
        const Scene& scene = account.scenes[shown.index];
        std::string title = TitleOf(account, shown.index);
        title[0] = 'S';
        out << "<section class=scene id=scene" << shown.index << ">\n<h2>" << Escaped{title}
            << "</h2>\n<p>";
        if (!scene.isDescribed || !scene.isStarted) {
            out << "<b>"
                << (scene.isStarted ? "How it was described is not known." : "It was not started.")
                << "</b> ";
        }
        if (scene.isBeginningMissing) {
            out << "<b>The capture starts in its middle.</b> ";
        }
        out << Counted(static_cast<int64_t>(scene.frames.size()), "frame");
        const char* separator = ": ";
        for (size_t status = 0; status < FRAME_STATUSES; ++status) {
            if (const int64_t count = scene.CountOf(FrameStatus(status)); count > 0) {
                out << separator << count << ' ' << NameOf(FrameStatus(status));
                separator = ", ";
            }
        }
        out << "; " << scene.lateFrames << " late, that is more than "
            << Milliseconds(scene.lateThreshold) << " ms after the frame before.";
        if (shown.hasTimes) {
            out << " Times count from the scene's start.";
        }
        out << "</p>\n";
        if (shown.hasTimes && !scene.frames.empty()) {
            WriteOverview(shown);
            WriteLegend(scene);
            if (scene.frames.size() > WHOLE_FRAMES) {
                out << "<p>The scene is too long to be drawn whole: below "
                    << (shown.windows.empty() ? "is nothing, since there are no findings"
                                              : "are the worst moments")
                    << ". Any others are drawn with <code>--frames A-B</code>.</p>\n";
            }
            for (const Window& window : shown.windows) {
                WriteTimeline(shown, window);
            }
        }
        WriteFigures(scene);
        out << "</section>\n";
    }

    // Frames from where to where, in per cent of a drawing's width.
    static std::string Percent(Micros time, const Span& span) {
        return Fixed(100.0 * static_cast<double>(time - span.begin) /
                         static_cast<double>(std::max<Micros>(span.end - span.begin, 1)),
                     4) +
               "%";
    }

    // About `wanted` labels at round times.
    void WriteAxis(const Span& span, Micros origin, int y, Micros wanted) {
        static constexpr std::array<Micros, 14> STEPS = {
            10'000,    20'000,    50'000,     100'000,    200'000,    500'000,     1'000'000,
            2'000'000, 5'000'000, 10'000'000, 30'000'000, 60'000'000, 300'000'000, 600'000'000};
        const auto fits = [&](Micros step) { return (span.end - span.begin) / step <= wanted; };
        const auto found = std::find_if(STEPS.begin(), STEPS.end(), fits);
        const Micros step = found == STEPS.end() ? (span.end - span.begin) / wanted + 1 : *found;
        const Micros first = (span.begin - origin + step - 1) / step * step + origin;
        for (Micros time = first; time < span.end; time += step) {
            const std::string x = Percent(time, span);
            out << "<line class=tick x1=" << x << " x2=" << x << " y1=0 y2=" << y + 4
                << " /><text class=axis x=" << x << " y=" << y + 12 << " dx=3>"
                << Clock(time - origin) << "</text>";
        }
        out << '\n';
    }

    // ---- The overview: an interval and a lane for each look, a column at a time.

    void WriteOverview(const ShownScene& shown) {
        constexpr int CURVE = 64;
        constexpr int LANE = 14;
        const Scene& scene = account.scenes[shown.index];
        const Span span = {shown.begin, shown.end};
        const size_t columns = std::max<size_t>(COLUMNS / scenes.size(), 200);
        const auto columnOf = [&](Micros time) {
            const double share =
                static_cast<double>(time - span.begin) / static_cast<double>(span.end - span.begin);
            return static_cast<size_t>(std::clamp(share, 0.0, 0.9999999) *
                                       static_cast<double>(columns));
        };
        // The worst of a column wins, so that no bad frame disappears.
        std::vector<Micros> intervals(columns, NO_TIME);
        std::array<std::vector<int64_t>, LOOKS> marks;  // Frame indices from 1; 0 for none.
        std::array<int64_t, LOOKS> counts{};
        for (size_t i = 0; i < scene.frames.size(); ++i) {
            const Look look = LookOf(scene.frames[i]);
            const size_t column = columnOf(shown.moments[i]);
            intervals[column] = std::max(intervals[column], scene.frames[i].interval);
            auto& lane = marks[static_cast<size_t>(look)];
            lane.resize(columns);
            lane[column] = static_cast<int64_t>(i) + 1;
            ++counts[static_cast<size_t>(look)];
        }
        const Micros longest = *std::max_element(intervals.begin(), intervals.end());
        const Micros top = std::clamp(longest, 2 * shown.period, 6 * shown.period);
        const auto height = [&](Micros interval) {
            return CURVE - static_cast<int>(std::min(interval, top) * (CURVE - 4) / top);
        };

        std::vector<size_t> lanes;
        for (size_t look = 1; look < LOOKS; ++look) {
            if (counts[look] > 0) {
                lanes.push_back(look);
            }
        }
        const bool isDisturbed = !scene.disturbances.empty();
        const int bottom = CURVE + LANE * (static_cast<int>(lanes.size()) + (isDisturbed ? 1 : 0));
        out << "<figure class=overview><figcaption>Output interval of each frame (dashed: late), "
               "and what became of it</figcaption><div class=drawing><div class=rows><div "
               "style=\"height:"
            << CURVE << "px\">interval, to " << top / 1000
            << (longest > top ? " ms and more" : " ms") << "</div>";
        for (const size_t look : lanes) {
            out << "<div style=\"height:" << LANE << "px\">" << MARKS[look] << ' '
                << WordOf(Look(look)) << ' ' << counts[look] << "</div>";
        }
        if (isDisturbed) {
            out << "<div style=\"height:" << LANE << "px\">capture</div>";
        }
        out << "</div><svg role=group aria-label=\"Overview\" height=" << bottom + 16 << ">\n";
        for (const Window& window : shown.windows) {
            out << "<rect class=window x=" << Percent(window.span.begin, span)
                << " width=" << Percent(window.span.end - window.span.begin + span.begin, span)
                << " height=" << bottom << "><title>drawn below</title></rect>";
        }
        WriteAxis(span, shown.begin, bottom, 8);
        out << "<line class=threshold x2=100% y1=" << height(scene.lateThreshold)
            << " y2=" << height(scene.lateThreshold) << "><title>late from here</title></line>\n";
        out << "<svg width=100% height=" << CURVE << " viewBox=\"0 0 " << columns << ' ' << CURVE
            << "\" preserveAspectRatio=none><path class=intervals d=\"";
        // An interval lasts from the frame before to its own.
        out << "M0 " << height(shown.period);
        for (size_t i = 0; i < columns; ++i) {
            if (intervals[i] != NO_TIME) {
                out << 'V' << height(intervals[i]) << 'H' << i + 1;
            }
        }
        out << "\"/><path class=tooLong d=\"";
        for (size_t i = 0; i < columns; ++i) {
            if (intervals[i] != NO_TIME && intervals[i] > scene.lateThreshold) {
                out << 'M' << i << ' ' << CURVE << 'V' << height(intervals[i]);
            }
        }
        out << "\"/></svg>\n";
        int y = CURVE;
        for (const size_t look : lanes) {
            const std::vector<int64_t>& lane = marks[look];
            for (size_t i = 0; i < columns; ++i) {
                const size_t from = i;
                for (; i + 1 < columns && lane[i] != 0 && lane[i + 1] != 0; ++i) {
                }
                if (lane[i] != 0) {
                    const auto share = [columns](size_t column) {
                        return Short(100.0 * static_cast<double>(column) /
                                         static_cast<double>(columns),
                                     1) +
                               "%";
                    };
                    out << "<rect class=\"mark " << WordOf(Look(look)) << "\" x=" << share(from)
                        << " width=" << share(i + 1 - from) << " y=" << y + 3
                        << " height=" << LANE - 5 << " data-f=f" << shown.index << '-'
                        << lane[from] - 1 << "><title>";
                    WriteNumbers(scene.frames[static_cast<size_t>(lane[from] - 1)].number,
                                 scene.frames[static_cast<size_t>(lane[i] - 1)].number);
                    out << ": " << WordOf(Look(look)) << "</title></rect>";
                }
            }
            out << '\n';
            y += LANE;
        }
        WriteDisturbances(scene, span, y, LANE);
        out << "</svg></div></figure>\n";
    }

    void WriteNumbers(int64_t first, int64_t last) {
        out << (first == last ? "frame " : "frames ") << first;
        if (first != last) {
            out << " to " << last;
        }
    }

    void WriteDisturbances(const Scene& scene, const Span& span, int y, int height) {
        size_t left = COLUMNS;  // Of a capture that is nothing but disturbed, the first.
        for (const Disturbance& told : scene.disturbances) {
            if (told.time >= span.begin && told.time <= span.end && left-- > 0) {
                out << "<rect class=\"mark disturbance\" x=" << Percent(told.time, span)
                    << " width=0.1% y=" << y + 1 << " height=" << height - 2 << "><title>"
                    << ToString(told) << ", " << Escaped{ToString(account, told.place)}
                    << "</title></rect>";
            }
        }
        out << '\n';
    }

    void WriteLegend(const Scene& scene) {
        std::array<bool, LOOKS> isSeen{};
        for (const Frame& frame : scene.frames) {
            isSeen[static_cast<size_t>(LookOf(frame))] = true;
        }
        const auto swatch = [this](std::string_view look, std::string_view what,
                                   std::string_view part) {
            out << "<li><svg width=22 height=13 aria-hidden=true><g class=\"f " << look
                << "\"><g class=\"b blamed\"><rect " << part
                << " width=22 height=13 /></g></g></svg> " << what << "</li>";
        };
        out << "<ul class=legend>";
        swatch("good", "at work", "");
        swatch("good", "waiting for the frame before", "class=w");
        for (size_t look = 1; look < LOOKS; ++look) {
            if (isSeen[look]) {
                swatch(WordOf(Look(look)),
                       std::string(MARKS[look]) + " " + WordOf(Look(look)) + ": " + MEANINGS[look],
                       "");
            }
        }
        out << "</ul>\n";
    }

    // ---- The timeline: a row a stage, a bar a frame and stage.

    struct Bar {
        size_t frame;
        size_t stage;
        Span span;
        size_t lane = 0;
    };

    void WriteTimeline(const ShownScene& shown, const Window& window) {
        const Scene& scene = account.scenes[shown.index];
        const auto stages = static_cast<size_t>(scene.stageCount);
        std::vector<size_t> frames;
        std::vector<std::vector<Bar>> rows(stages);
        for (size_t i = 0; i < scene.frames.size(); ++i) {
            if (!window.Holds(shown.moments[i])) {
                continue;
            }
            frames.push_back(i);
            for (size_t stage = 0; stage < stages; ++stage) {
                const Span span = SpanOf(scene, i, stage);
                if (span.begin != NO_TIME) {
                    rows[stage].push_back({i, stage, span});
                }
            }
        }
        // The frames' own spans reach back further than their moments.
        Span span = window.span;
        std::vector<int> tops;
        int y = 4;
        std::vector<std::vector<Bar>> barsOf(scene.frames.empty() ? 0 : frames.size());
        for (std::vector<Bar>& row : rows) {
            std::sort(row.begin(), row.end(), [](const Bar& one, const Bar& other) {
                return one.span.begin < other.span.begin;
            });
            Lanes lanes;
            for (Bar& bar : row) {
                bar.lane = lanes.Put(bar.span) % ROW_LANES;
                span.begin = std::min(
                    span.begin, std::max(bar.span.begin, window.span.begin - 8 * shown.period));
                const auto at = std::lower_bound(frames.begin(), frames.end(), bar.frame);
                barsOf[static_cast<size_t>(at - frames.begin())].push_back(bar);
            }
            tops.push_back(y);
            y +=
                ROW_HEIGHT * static_cast<int>(std::clamp<size_t>(lanes.Count(), 1, ROW_LANES)) + 10;
        }
        tops.push_back(y);
        const int outputs = y;
        const int bottom = outputs + 40;
        const double pixels = PIXELS_A_PERIOD / static_cast<double>(shown.period);
        const double width = pixels * static_cast<double>(span.end - span.begin);

        out << "<figure class=timeline><figcaption>";
        if (!frames.empty()) {
            const std::string from = std::to_string(scene.frames[frames.front()].number);
            const std::string to = std::to_string(scene.frames[frames.back()].number);
            out << "Frames " << from << " to " << to << ", grid every "
                << Milliseconds(shown.period)
                << " ms</figcaption><div class=drawing><div "
                   "class=rows>";
        }
        for (size_t stage = 0; stage < stages; ++stage) {
            const std::string title = StageTitleOf(scene, stage);
            const std::string name =
                stage < scene.stageNames.size() ? " " + scene.stageNames[stage] : "";
            out << "<div title=\"" << Escaped{title}
                << "\" style=\"height:" << tops[stage + 1] - tops[stage] << "px\">" << stage
                << Escaped{name} << "</div>";
        }
        out << "<div style=\"height:40px\">output</div></div><div class=scroll tabindex=0 "
               "role=group aria-label=\"Timeline\"><svg style=\"width:"
            << Fixed(width, 0) << "px\" height=" << bottom + 16 << ">\n";
        WriteGrid(shown, span, frames, bottom);
        WriteDisturbances(scene, span, 0, bottom);
        std::array<double, 2> occupied = {-1000, -1000};  // Of the two lines of texts.
        for (size_t i = 0; i < frames.size(); ++i) {
            const size_t index = frames[i];
            const Frame& frame = scene.frames[index];
            const Look look = LookOf(frame);
            out << "<g class=\"f " << ClassOf(look) << (frame.number % 2 == 0 ? " even" : "")
                << "\" id=f" << shown.index << '-' << index << "><title>" << Describe(frame)
                << "</title>";
            std::sort(barsOf[i].begin(), barsOf[i].end(),
                      [](const Bar& one, const Bar& other) { return one.stage < other.stage; });
            for (const Bar& bar : barsOf[i]) {
                WriteBar(scene, shown, bar, span, tops, pixels);
            }
            // How it came out, or did not.
            const std::string x = Percent(shown.moments[index], span);
            if (look == Look::Good) {
                out << "<line class=out x1=" << x << " x2=" << x << " y1=" << outputs
                    << " y2=" << outputs + 10 << " />";
            } else {
                const double at = pixels * static_cast<double>(shown.moments[index] - span.begin);
                std::string words = std::to_string(frame.number) + " " + WordOf(look);
                if (look == Look::Late && frame.interval != NO_TIME) {
                    words += " +" +
                             Short(static_cast<double>(frame.interval - shown.period) / 1000, 0) +
                             " ms";
                }
                out << "<text class=out x=" << x << " y=" << outputs + 10 << ">"
                    << MARKS[static_cast<size_t>(look)] << "</text>";
                for (int line = 0; line < 2; ++line) {
                    double& taken = occupied[static_cast<size_t>(line)];
                    if (at >= taken) {
                        out << "<text class=word x=" << x << " y=" << outputs + 23 + 12 * line
                            << ">" << words << "</text>";
                        taken = at + 6.5 * static_cast<double>(words.size()) + 6;
                        break;
                    }
                }
            }
            out << "</g>\n";
        }
        out << "</svg></div></div></figure>\n";
    }

    void WriteGrid(const ShownScene& shown, const Span& span, const std::vector<size_t>& frames,
                   int bottom) {
        const Scene& scene = account.scenes[shown.index];
        const auto isOut = [&scene](size_t frame) { return scene.frames[frame].output != NO_TIME; };
        const auto first = std::find_if(frames.begin(), frames.end(), isOut);
        const Micros anchor = first == frames.end() ? span.begin : scene.frames[*first].output;
        // A clock that jumped, or a scene that stood still, would take any number of lines.
        if ((span.end - span.begin) / shown.period < 2000) {
            const Micros beginning = anchor - (anchor - span.begin) / shown.period * shown.period;
            for (Micros time = beginning; time < span.end; time += shown.period) {
                const std::string x = Percent(time, span);
                out << "<line class=grid x1=" << x << " x2=" << x << " y2=" << bottom << " />";
            }
        }
        WriteAxis(span, shown.begin, bottom, (span.end - span.begin) / (shown.period * 5) + 1);
    }

    void WriteBar(const Scene& scene, const ShownScene& shown, const Bar& bar, const Span& span,
                  const std::vector<int>& tops, double pixels) {
        const Frame& frame = scene.frames[bar.frame];
        const StageTimes& times = scene.StagesOf(bar.frame)[bar.stage];
        const int y = tops[bar.stage] + ROW_HEIGHT * static_cast<int>(bar.lane);
        const bool isStuck = times.end == NO_TIME;
        const Micros wait = times.wait == NO_TIME
                                ? 0
                                : std::clamp<Micros>(times.wait, 0, bar.span.end - bar.span.begin);
        out << "<g class=\"b" << (isStuck ? " stuck" : "")
            << (shown.blamed.contains({bar.frame, static_cast<int32_t>(bar.stage)}) ? " blamed"
                                                                                    : "")
            << "\" data-s=" << bar.stage << "><title>Frame " << frame.number << " in "
            << Escaped{StageTitleOf(scene, bar.stage)} << ": ";
        if (isStuck) {
            out << "since " << Clock(times.start - shown.begin) << ", never seen to leave";
        } else if (times.start == NO_TIME) {
            out << "left at " << Clock(times.end - shown.begin);
        } else {
            out << Clock(times.start - shown.begin) << " to " << Clock(times.end - shown.begin)
                << ", waited " << Milliseconds(wait) << " ms, worked "
                << Milliseconds(times.end - times.start - wait) << " ms";
        }
        out << "</title>";
        const auto rect = [&](Micros begin, Micros end, const char* part) {
            out << "<rect" << part << " x=" << Percent(begin, span) << " y=" << y
                << " width=" << Percent(end - begin + span.begin, span)
                << " height=" << ROW_HEIGHT - 2 << " />";
        };
        const Micros work = bar.span.begin + wait;
        if (wait > 0) {
            rect(bar.span.begin, work, " class=w");
        }
        if (wait == 0 || work < bar.span.end) {
            rect(work, bar.span.end, "");
        }
        const std::string number = std::to_string(frame.number);
        if (pixels * static_cast<double>(bar.span.end - work) >
            6.2 * static_cast<double>(number.size()) + 4) {
            out << "<text x=" << Percent(work, span) << " y=" << y + ROW_HEIGHT - 4 << " dx=3>"
                << number << "</text>";
        }
        out << "</g>";
    }

    // What there is to say of a frame as a whole. Holds nothing of the capture's own but its name.
    std::string Describe(const Frame& frame) const {
        std::string text = "Frame " + std::to_string(frame.number) + ": " + NameOf(frame.status);
        if (frame.isLate) {
            text += ", late";
        }
        if (frame.reason != Outcome::Forwarded) {
            text += std::string(", ") + ReasonOf(frame.reason);
            if (frame.stage >= 0) {
                text += " (stage " + std::to_string(frame.stage) + ")";
            }
        }
        if (frame.start != NO_TIME && frame.end != NO_TIME) {
            text += "; latency " + Milliseconds(frame.end - frame.start) + " ms";
        }
        if (frame.interval != NO_TIME) {
            text += "; out " + Milliseconds(frame.interval) + " ms after the frame before";
        }
        if (frame.place.line != 0) {
            text += "; line " + std::to_string(frame.place.line);
        }
        return text;
    }

    // ---- Figures and tables.

    void WriteFigures(const Scene& scene) {
        const auto stages = static_cast<size_t>(scene.stageCount);
        out << "<div class=wide><table class=figures><caption>Times in milliseconds</caption>"
               "<thead><tr><th scope=col><th scope=col>n<th scope=col>p50<th scope=col>p90"
               "<th scope=col>p95<th scope=col>p99<th scope=col>max"
               "<th scope=col>distribution</tr></thead>\n<tbody>";
        std::vector<Micros> values;
        const auto collect = [&](const auto& valueOf) -> const std::vector<Micros>& {
            values.clear();
            for (size_t i = 0; i < scene.frames.size(); ++i) {
                if (const Micros value = valueOf(i); value != NO_TIME) {
                    values.push_back(value);
                }
            }
            return values;
        };
        WriteFigure("latency", scene.latency, collect([&scene](size_t i) {
                        const Frame& frame = scene.frames[i];
                        return frame.start == NO_TIME || frame.end == NO_TIME
                                   ? NO_TIME
                                   : frame.end - frame.start;
                    }));
        WriteFigure("output interval", scene.interval,
                    collect([&scene](size_t i) { return scene.frames[i].interval; }));
        for (size_t stage = 0; stage < stages; ++stage) {
            const auto row = [&](const std::vector<Statistics>& figures, const char* part,
                                 const auto& valueOf) {
                if (stage < figures.size()) {
                    WriteFigure(
                        StageTitleOf(scene, stage) + part, figures[stage],
                        collect([&](size_t i) { return valueOf(scene.StagesOf(i)[stage]); }));
                }
            };
            row(scene.stages, "", [](const StageTimes& times) {
                return times.start == NO_TIME || times.end == NO_TIME ? NO_TIME
                                                                      : times.end - times.start;
            });
            // Without waiting all is work.
            if (stage >= scene.waits.size() || scene.waits[stage].max == 0) {
                continue;
            }
            row(scene.waits, ": waiting", [](const StageTimes& times) { return times.wait; });
            row(scene.works, ": at work", [](const StageTimes& times) { return times.work; });
        }
        out << "</tbody></table></div>\n";
    }

    void WriteFigure(const std::string& title, const Statistics& figures,
                     const std::vector<Micros>& values) {
        out << "<tr><th scope=row>" << Escaped{title} << "<td>" << figures.count;
        for (const Micros value :
             {figures.p50, figures.p90, figures.p95, figures.p99, figures.max}) {
            out << "<td>" << (figures.count == 0 ? "" : Milliseconds(value));
        }
        out << "<td>";
        WriteHistogram(figures, values);
        out << "</tr>\n";
    }

    // Up to a little more than almost all take; the last bin has the rest. Square roots, so that a
    // single one shows among thousands.
    void WriteHistogram(const Statistics& figures, const std::vector<Micros>& values) {
        constexpr Micros BINS = 40;
        constexpr int HEIGHT = 22;
        if (values.empty() || figures.max <= 0) {
            return;
        }
        const Micros top = std::clamp<Micros>(figures.p99 * 5 / 4, 1, figures.max);
        // A millisecond is all that most captures tell apart: bins of less would leave holes.
        const Micros bin = (top / (BINS - 1) / 1000 + 1) * 1000;
        std::array<int64_t, BINS> counts{};
        for (const Micros value : values) {
            ++counts[static_cast<size_t>(std::clamp<Micros>(value / bin, 0, BINS - 1))];
        }
        const auto most = static_cast<double>(*std::max_element(counts.begin(), counts.end()));
        out << "<svg class=histogram width=" << BINS * 4 << " height=" << HEIGHT
            << " role=img aria-label=\"from 0 to " << Milliseconds(bin * BINS)
            << " ms\"><title>0 to " << Milliseconds(bin * BINS) << " ms, the last bar all beyond"
            << "</title><path d=\"";
        for (size_t i = 0; i < BINS; ++i) {
            if (counts[i] > 0) {
                const double share = std::sqrt(static_cast<double>(counts[i]) / most);
                out << 'M' << i * 4 << ' ' << HEIGHT << 'v'
                    << -std::max(2, static_cast<int>(share * HEIGHT)) << "h3V" << HEIGHT << 'z';
            }
        }
        out << "\"/></svg>";
    }

    void WriteSceneList() {
        if (account.scenes.size() <= SCENES) {
            return;
        }
        out << "<p>Of " << account.scenes.size() << " scenes the " << SCENES
            << " with the worst findings are shown.</p>\n";
    }

    void WriteFrames() {
        size_t count = 0;
        out << "<section aria-labelledby=frames><h2 id=frames>Frames not complete, or late</h2>\n"
               "<div class=wide><table id=list><thead><tr><th scope=col>scene<th scope=col>frame"
               "<th scope=col>status<th scope=col>stage<th scope=col>reason<th scope=col>at, s"
               "<th scope=col>latency, ms<th scope=col>interval, ms<th scope=col>line</tr></thead>"
               "\n<tbody>";
        for (const ShownScene& shown : scenes) {
            const Scene& scene = account.scenes[shown.index];
            for (size_t i = 0; i < scene.frames.size(); ++i) {
                const Look look = LookOf(scene.frames[i]);
                if (look != Look::Good && ++count <= ROWS) {
                    WriteRow(shown, i, look);
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

    void WriteRow(const ShownScene& shown, size_t index, Look look) {
        const Frame& frame = account.scenes[shown.index].frames[index];
        const Micros moment = shown.moments[index];
        out << "<tr><td>" << shown.index + 1 << "<td>";
        if (shown.hasTimes && IsDrawn(shown, moment)) {
            out << "<a href=\"#f" << shown.index << '-' << index << "\">" << frame.number << "</a>";
        } else {
            out << frame.number;
        }
        out << "<td class=" << WordOf(look) << ">" << MARKS[static_cast<size_t>(look)] << ' '
            << WordOf(look) << (frame.isLate && look != Look::Late ? ", late" : "") << "<td>";
        if (frame.stage >= 0) {
            out << frame.stage;
        }
        out << "<td>" << ReasonOf(frame.reason) << "<td>"
            << (shown.hasTimes ? Fixed(static_cast<double>(moment - shown.begin) / 1e6, 3) : "")
            << "<td>";
        if (frame.start != NO_TIME && frame.end != NO_TIME) {
            out << Milliseconds(frame.end - frame.start);
        }
        out << "<td>" << Milliseconds(frame.interval) << "<td>"
            << Escaped{ToString(account, frame.place)} << "</tr>\n";
    }

    void WriteConfiguration() {
        out << "<section aria-labelledby=configuration><h2 id=configuration>Configuration</h2>\n";
        if (!account.configuration) {
            out << "<p>Not known: it is dumped when the library is loaded.</p></section>\n";
            return;
        }
        const Configuration& known = *account.configuration;
        out << "<p>Boosting is <b>" << (known.isEnabled ? "on" : "off") << "</b>. Widths: 3840"
            << (known.additionalWidth ? " and " + std::to_string(*known.additionalWidth) : "")
            << ". Modes:";
        for (const int32_t mode : known.modes) {
            std::array<char, 16> hexadecimal{};
            std::snprintf(hexadecimal.data(), hexadecimal.size(), "0x%X",
                          static_cast<unsigned>(mode));
            out << ' ' << hexadecimal.data() << " (" << mode << ')';
        }
        out << (known.modes.empty() ? " none" : "")
            << ".</p>\n<div class=wide><table><thead><tr><th scope=col>stage<th scope=col>node"
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
            WriteFindingStart(finding);
            out << "</li>\n";
        }
        out << "</ol></section>\n";
    }

    std::ostream& out;
    const Account& account;
    const PageOptions& options;
    std::vector<ShownScene> scenes;
};

}  // namespace

void WritePage(std::ostream& out, const Account& account, const PageOptions& options) {
    Page(out, account, options).Write();
}

}  // namespace tools
