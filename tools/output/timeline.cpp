#include "tools/output/timeline.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "tools/output/html.h"

namespace tools {
namespace {

// Pixels.
constexpr int CURVE = 64;      // Height of the overview's curve,
constexpr int LANE = 14;       // and of each lane below it.
constexpr int BAR = 13;        // Height of a bar with the gap below it.
constexpr int OUTPUTS = 52;    // Height of the row of outputs.
constexpr int AXIS = 16;       // Height of the row of times.
constexpr double PERIOD = 50;  // Width of a frame period in a timeline that is not zoomed.
constexpr double DIGIT = 6.5;  // Width of a letter, or a little more.

constexpr size_t BAR_LANES = 8;  // What overlaps more than that is drawn over one another.
// At most, whatever clocks and rates a capture shows.
constexpr double WIDTH = 200'000;
constexpr Micros GRID_LINES = 500;
constexpr Micros AXIS_LABELS = 100;
constexpr size_t CAPTURE_MARKS = 100;

double Width(const Span& span) {
    return static_cast<double>(std::max<Micros>(span.end - span.begin, 1));
}

// Of the drawing's width, so that it takes any.
std::string Percent(Micros duration, const Span& whole) {
    return Fixed(100.0 * static_cast<double>(duration) / Width(whole), 4) + '%';
}

// A line from top to `bottom`.
void WriteUpright(std::ostream& out, const char* kind, const std::string& x, int top, int bottom) {
    out << "<line class=" << kind << " x1=" << x << " x2=" << x << " y1=" << top << " y2=" << bottom
        << " />";
}

// No more than `wanted` labels, at round times.
void WriteAxis(std::ostream& out, const Span& span, Micros origin, int y, Micros wanted) {
    static constexpr std::array<Micros, 14> STEPS = {
        10'000,    20'000,    50'000,     100'000,    200'000,    500'000,     1'000'000,
        2'000'000, 5'000'000, 10'000'000, 30'000'000, 60'000'000, 300'000'000, 600'000'000};
    const auto fits = [&](Micros step) { return (span.end - span.begin) / step <= wanted; };
    const auto found = std::find_if(STEPS.begin(), STEPS.end(), fits);
    const Micros step = found == STEPS.end() ? (span.end - span.begin) / wanted + 1 : *found;
    Micros time = (span.begin - origin + step - 1) / step * step + origin;
    for (; time < span.end; time += step) {
        const std::string x = Percent(time - span.begin, span);
        WriteUpright(out, "tick", x, 0, y + 4);
        if (time - span.begin < (span.end - span.begin) / 20 * 19) {  // Else it has no room.
            out << "<text class=axis x=" << x << " y=" << y + 12 << " dx=3>" << Clock(time - origin)
                << "</text>";
        }
    }
    out << '\n';
}

// What is about the capture and no frame: lines lost, jumps of the clock.
void WriteMarks(std::ostream& out, const DrawnScene& drawn, const Span& span, int y, int height) {
    size_t left = CAPTURE_MARKS;
    const auto mark = [&](Micros time, const std::string& words) {
        if (time >= span.begin && time <= span.end && left > 0) {
            --left;
            const std::string x = Percent(time - span.begin, span);
            out << "<rect class=\"mark disturbance\"";
            if (height > LANE) {
                out << " id=m" << drawn.index << '-' << time - drawn.span.begin;
            }
            out << " x=" << x << " width=2 y=" << y + 1 << " height=" << height - 2 << "><title>"
                << Escaped{words} << "</title></rect>";
            if (height > LANE) {
                out << "<text class=word dx=5 x=" << x << " y=" << height - 4 << '>'
                    << Escaped{words} << "</text>";
            }
            out << '\n';
        }
    };
    for (const Disturbance& told : drawn.scene.disturbances) {
        mark(told.time, ToString(told));
    }
    for (const AccountedFinding& finding : drawn.scene.findings) {
        if (finding.check == "lines-lost") {
            mark(finding.time, "lines lost");
        }
    }
}

// A row's name, at the left of the drawing.
void WriteRowName(std::ostream& out, int height, std::string_view name) {
    out << "<div title=\"" << Escaped{name} << "\" style=\"height:" << height << "px\">"
        << Escaped{name} << "</div>";
}

// What there is to say of a frame as a whole. Holds nothing of the capture's own texts.
std::string Describe(const Frame& frame) {
    const Look look = LookOf(frame);
    std::string text = "Frame " + std::to_string(frame.number) + ": ";
    text += look == Look::Stuck || look == Look::Unknown ? WordOf(look) : NameOf(frame.status);
    text += frame.isLate ? ", late" : "";
    if (frame.reason != Outcome::Forwarded) {
        text += std::string(", ") + ReasonOf(frame.reason);
        const int32_t stage = StageOf(frame);
        text += stage >= 0 ? " (stage " + std::to_string(stage) + ")" : "";
    }
    if (frame.start != NO_TIME && frame.end != NO_TIME) {
        text += "; latency " + Milliseconds(frame.end - frame.start) + " ms";
    }
    if (frame.interval != NO_TIME) {
        text += "; out " + Milliseconds(frame.interval) + " ms after the frame before";
    }
    return text + (frame.place.line > 0 ? "; line " + std::to_string(frame.place.line) : "");
}

// One timeline being written.
class Timeline {
  public:
    Timeline(std::ostream& stream, const DrawnScene& wanted, const Span& window)
        : out(stream), drawn(wanted), scene(wanted.scene), span(window) {
        for (size_t i = 0; i < scene.frames.size(); ++i) {
            if (window.Holds(drawn.moments[i])) {
                frames.push_back(i);
            }
        }
        LayOut();
    }

    void Write() {
        if (frames.empty()) {
            return;
        }
        const auto number = [this](size_t frame) { return scene.frames[frame].number; };
        out << "<figure class=timeline><figcaption>Frames " << number(frames.front()) << " to "
            << number(frames.back()) << ", grid every " << Milliseconds(drawn.period)
            << " ms</figcaption><div class=drawing><div class=rows>";
        for (size_t stage = 0; stage + 1 < tops.size(); ++stage) {
            const std::string node =
                stage < scene.stageNames.size() ? ' ' + scene.stageNames[stage] : "";
            WriteRowName(out, tops[stage + 1] - tops[stage], std::to_string(stage) + node);
        }
        WriteRowName(out, OUTPUTS, "output");
        out << "</div><div class=scroll tabindex=0 role=group aria-label=\"Timeline\"><svg "
               "style=\"width:"
            << Fixed(std::min(Pixels(span.end - span.begin), WIDTH), 0)
            << "px\" height=" << bottom + AXIS << ">\n";
        WriteGrid();
        WriteMarks(out, drawn, span, 0, bottom);
        for (size_t i = 0; i < frames.size(); ++i) {
            const Frame& frame = scene.frames[frames[i]];
            const Look look = LookOf(frame);
            out << "<g class=\"f " << (look == Look::Good ? "good" : WordOf(look))
                << (frame.number % 2 == 0 ? " even" : "") << "\" id=f" << drawn.index << '-'
                << frames[i] << "><title>" << Describe(frame) << "</title>";
            for (size_t stage = 0; stage + 1 < tops.size(); ++stage) {
                WriteBar(frames[i], stage, lanes[i * (tops.size() - 1) + stage]);
            }
            WriteOutput(frame, look, drawn.moments[frames[i]]);
            out << "</g>\n";
        }
        out << "</svg></div></div></figure>\n";
    }

  private:
    // Spreads what overlaps within a stage over lanes, and makes room for what began earlier.
    void LayOut() {
        const auto stages = static_cast<size_t>(scene.stageCount);
        const Micros earliest = span.begin - static_cast<Micros>(stages) * 2 * drawn.period;
        lanes.resize(frames.size() * stages);
        std::vector<std::pair<Span, size_t>> row;  // With the places of their frames.
        for (size_t stage = 0; stage < stages; ++stage) {
            row.clear();
            for (size_t i = 0; i < frames.size(); ++i) {
                if (const Span bar = SpanOf(scene, frames[i], stage); bar.begin != NO_TIME) {
                    row.emplace_back(bar, i);
                    span.begin = std::min(span.begin, std::max(bar.begin, earliest));
                }
            }
            std::sort(row.begin(), row.end(), [](const auto& one, const auto& other) {
                return one.first.begin < other.first.begin;
            });
            Lanes used;
            for (const auto& [bar, i] : row) {
                lanes[i * stages + stage] = used.Put(bar) % BAR_LANES;
            }
            tops.push_back(bottom);
            bottom += BAR * static_cast<int>(std::clamp<size_t>(used.Count(), 1, BAR_LANES)) + 10;
        }
        tops.push_back(bottom);
        bottom += OUTPUTS;
    }

    // The expected period, from the first output on, and times.
    void WriteGrid() {
        const auto isOut = [this](size_t frame) { return scene.frames[frame].output != NO_TIME; };
        const auto first = std::find_if(frames.begin(), frames.end(), isOut);
        const Micros anchor = first == frames.end() ? span.begin : scene.frames[*first].output;
        const Micros beginning = anchor - (anchor - span.begin) / drawn.period * drawn.period;
        const Micros end = std::min(span.end, span.begin + GRID_LINES * drawn.period);
        for (Micros time = beginning; time < end; time += drawn.period) {
            WriteUpright(out, "grid", Percent(time - span.begin, span), 0, bottom);
        }
        WriteAxis(out, span, drawn.span.begin, bottom,
                  std::min((span.end - span.begin) / (drawn.period * 5) + 1, AXIS_LABELS));
    }

    void WriteBar(size_t index, size_t stage, size_t lane) {
        const Span bar = SpanOf(scene, index, stage);
        if (bar.begin == NO_TIME) {
            return;
        }
        const StageTimes& times = scene.StagesOf(index)[stage];
        const std::string number = std::to_string(scene.frames[index].number);
        const int y = tops[stage] + BAR * static_cast<int>(lane);
        const bool isOpen = times.end == NO_TIME;
        const bool isBlamed = drawn.blamed.contains({index, static_cast<int32_t>(stage)});
        const Micros wait = std::clamp<Micros>(times.wait, 0, bar.end - bar.begin);
        out << "<g class=\"b" << (isOpen ? " unended" : "") << (isBlamed ? " blamed" : "")
            << "\" data-s=" << stage << "><title>Frame " << number << " in "
            << Escaped{StageTitleOf(scene, stage)} << ": ";
        if (isOpen) {
            out << "since " << Clock(bar.begin - drawn.span.begin) << ", never seen to leave";
        } else if (times.start == NO_TIME) {
            out << "left at " << Clock(bar.end - drawn.span.begin);
        } else {
            out << Clock(bar.begin - drawn.span.begin) << " to "
                << Clock(bar.end - drawn.span.begin) << ", waited " << Milliseconds(wait)
                << " ms, worked " << Milliseconds(bar.end - bar.begin - wait) << " ms";
        }
        out << "</title>";
        const Span work = {bar.begin + wait, bar.end};
        if (wait > 0) {
            WriteRect("class=w ", {bar.begin, work.begin}, y);
        }
        if (wait == 0 || work.begin < work.end) {
            WriteRect("", work, y);
        }
        if (Pixels(work.end - work.begin) > DIGIT * static_cast<double>(number.size()) + 4) {
            out << "<text x=" << Percent(work.begin - span.begin, span) << " y=" << y + BAR - 4
                << " dx=3>" << number << "</text>";
        }
        out << "</g>";
    }

    void WriteRect(const char* kind, const Span& part, int y) {
        out << "<rect " << kind << "x=" << Percent(part.begin - span.begin, span) << " y=" << y
            << " width=" << Percent(part.end - part.begin, span) << " height=" << BAR - 2 << " />";
    }

    // How a frame came out, or when it should have.
    void WriteOutput(const Frame& frame, Look look, Micros moment) {
        const std::string x = Percent(moment - span.begin, span);
        const int top = tops.back();
        if (look == Look::Good) {
            WriteUpright(out, "out", x, top, top + 10);
            return;
        }
        out << "<text class=out x=" << x << " y=" << top + 10 << ">" << MarkOf(look) << "</text>";
        std::string words = std::to_string(frame.number) + ' ' + WordOf(look);
        if (look == Look::Late && frame.interval != NO_TIME) {
            words += " +" + std::to_string((frame.interval - drawn.period) / 1000) + " ms";
        }
        // The first line of text that has room, even when it is all half as wide.
        for (size_t line = 0; line < taken.size(); ++line) {
            if (Pixels(moment - span.begin) >= taken[line]) {
                out << "<text class=word x=" << x << " y=" << top + 23 + 12 * static_cast<int>(line)
                    << ">" << words << "</text>";
                taken[line] =
                    Pixels(moment - span.begin) + 2 * DIGIT * static_cast<double>(words.size() + 1);
                return;
            }
        }
    }

    double Pixels(Micros duration) const {
        return PERIOD * static_cast<double>(duration) / static_cast<double>(drawn.period);
    }

    std::ostream& out;
    const DrawnScene& drawn;
    const Scene& scene;
    Span span;
    std::vector<size_t> frames;  // Those drawn, as indices.
    std::vector<size_t> lanes;   // For each of them one a stage.
    std::vector<int> tops;       // Of the rows: the stages', then that of the outputs.
    int bottom = 4;
    std::array<double, 3> taken{};  // Where texts end.
};

}  // namespace

const char* MarkOf(Look look) {
    static constexpr const char* MARKS[LOOKS] = {"", "▲", "■", "✕", "◆", "⊘", "○", "?", "…"};
    return MARKS[static_cast<size_t>(look)];
}

void WriteOverview(std::ostream& out, const DrawnScene& drawn, size_t columns) {
    const Scene& scene = drawn.scene;
    const Span& span = drawn.span;
    std::vector<Micros> intervals(columns, NO_TIME);  // The longest of a column.
    struct Lane {
        std::vector<size_t> marks;  // A column's frame, as index from 1; 0 for none.
        int64_t count = 0;
    };
    std::array<Lane, LOOKS> lanes;
    for (size_t i = 0; i < scene.frames.size(); ++i) {
        const double share = static_cast<double>(drawn.moments[i] - span.begin) / Width(span);
        const auto column =
            static_cast<size_t>(std::clamp(share, 0.0, 1.0) * static_cast<double>(columns - 1));
        intervals[column] = std::max(intervals[column], scene.frames[i].interval);
        const Look look = LookOf(scene.frames[i]);
        const auto mark = [&](Look marked) {
            Lane& lane = lanes[static_cast<size_t>(marked)];
            lane.marks.resize(columns);
            lane.marks[column] = i + 1;
            ++lane.count;
        };
        mark(look);
        if (scene.frames[i].isLate && look != Look::Late) {
            mark(Look::Late);
        }
    }
    const Micros longest = *std::max_element(intervals.begin(), intervals.end());
    const Micros top = std::clamp(longest, 2 * drawn.period, 6 * drawn.period);
    const auto height = [top](Micros interval) {
        return CURVE - static_cast<int>(std::min(interval, top) * (CURVE - 4) / top);
    };

    out << "<figure class=overview><figcaption>Output interval of each frame (dashed: late), and "
           "what became of it</figcaption><div class=drawing><div class=rows>";
    WriteRowName(
        out, CURVE,
        "interval, to " + std::to_string(top / 1000) + (longest > top ? " ms and more" : " ms"));
    int bottom = CURVE;
    for (size_t look = 1; look < LOOKS; ++look) {
        if (lanes[look].count > 0) {
            WriteRowName(out, LANE,
                         std::string(MarkOf(Look(look))) + ' ' + WordOf(Look(look)) + ' ' +
                             std::to_string(lanes[look].count));
            bottom += LANE;
        }
    }
    WriteRowName(out, LANE, "capture");
    bottom += LANE;
    out << "</div><svg role=group aria-label=\"Overview\" height=" << bottom + AXIS << ">\n";
    for (const Span& window : drawn.windows) {
        out << "<rect class=window x=" << Percent(window.begin - span.begin, span)
            << " width=" << Percent(window.end - window.begin, span) << " height=" << bottom
            << "><title>drawn below</title></rect>\n";
    }
    WriteAxis(out, span, span.begin, bottom, 8);
    const int threshold = height(scene.lateThreshold);
    out << "<line class=threshold x2=100% y1=" << threshold << " y2=" << threshold
        << " />\n<svg width=100% height=" << CURVE << " viewBox=\"0 0 " << columns << ' ' << CURVE
        << "\" preserveAspectRatio=none><path class=intervals d=\"M0 " << height(drawn.period);
    std::string late;
    for (size_t i = 0; i < columns; ++i) {
        // An interval lasts from the frame before to its own.
        if (intervals[i] != NO_TIME) {
            out << 'V' << height(intervals[i]) << 'H' << i + 1;
            if (intervals[i] > scene.lateThreshold) {
                late += 'M' + std::to_string(i + 1) + ' ' + std::to_string(CURVE) + 'V' +
                        std::to_string(height(intervals[i]));
            }
        }
    }
    out << "\"/><path class=tooLong d=\"" << late << "\"/></svg>\n";
    int y = CURVE;
    for (size_t look = 1; look < LOOKS; ++look) {
        const Lane& lane = lanes[look];
        for (size_t i = 0; lane.count > 0 && i < columns; ++i) {
            const size_t from = i;
            while (lane.marks[i] > 0 && i + 1 < columns && lane.marks[i + 1] > 0) {
                ++i;
            }
            if (lane.marks[i] > 0) {
                const auto share = [columns](size_t column) {
                    return Fixed(100.0 * static_cast<double>(column) / static_cast<double>(columns),
                                 1) +
                           '%';
                };
                out << "<rect class=\"mark " << WordOf(Look(look)) << "\" x=" << share(from)
                    << " width=" << share(i + 1 - from) << " y=" << y + 3 << " height=" << LANE - 5
                    << " data-f=f" << drawn.index << '-' << lane.marks[from] - 1 << "><title>frame "
                    << scene.frames[lane.marks[from] - 1].number;
                if (from < i) {
                    out << " to " << scene.frames[lane.marks[i] - 1].number;
                }
                out << ": " << WordOf(Look(look)) << "</title></rect>\n";
            }
        }
        y += lane.count > 0 ? LANE : 0;
    }
    WriteMarks(out, drawn, span, y, LANE);
    out << "</svg></div></figure>\n";
}

void WriteLegend(std::ostream& out, const DrawnScene& drawn) {
    static constexpr const char* MEANINGS[LOOKS] = {
        "",
        "came out late",
        "in flight to the end, never seen to leave its stage",
        "reported to the service as bad, by the library or the HAL",
        "pushed out of the library's table by newer frames",
        "the library refused to boost it, as it came out of sequence",
        "nodes reported it, but the library never had it in flight",
        "lines of the log are missing, so what became of it cannot be told",
        "still in flight at the end",
    };
    const auto item = [&out](const char* look, const char* part) -> std::ostream& {
        return out << "<li><svg width=22 height=13 aria-hidden=true><g class=\"f " << look
                   << "\"><g class=\"b"
                   << (*part == 0 && std::string_view(look) != "good" ? " blamed" : "")
                   << "\"><rect " << part << "width=22 height=13 /></g></g></svg> ";
    };
    std::array<bool, LOOKS> isSeen{};
    for (const Frame& frame : drawn.scene.frames) {
        isSeen[static_cast<size_t>(LookOf(frame))] = true;
    }
    const bool isGoodOneBlamed =
        std::any_of(drawn.blamed.begin(), drawn.blamed.end(), [&drawn](const auto& blamed) {
            return LookOf(drawn.scene.frames[blamed.first]) == Look::Good;
        });
    out << "<ul class=legend>";
    item("good", "") << "at work";
    item("good", "class=w ") << "waiting for the frame before";
    if (isGoodOneBlamed) {
        item("good blamed", "") << "outlined: boosted, but a finding is about it";
    }
    for (size_t look = 1; look < LOOKS; ++look) {
        if (isSeen[look]) {
            item(WordOf(Look(look)), "")
                << MarkOf(Look(look)) << ' ' << WordOf(Look(look)) << ": " << MEANINGS[look];
        }
    }
    out << "</ul>\n";
}

void WriteTimeline(std::ostream& out, const DrawnScene& drawn, const Span& window) {
    Timeline(out, drawn, window).Write();
}

}  // namespace tools
