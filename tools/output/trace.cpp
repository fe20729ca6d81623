#include "tools/output/trace.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <queue>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "tools/output/naming.h"

namespace tools {
namespace {

// Names come from captures, which hold any bytes; JSON holds UTF-8.
std::string Quote(std::string_view text) {
    return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

enum class What : uint8_t {
    Expected,
    Actual,
    Stage,
    InFlight,
    Interval,
    Finding,
    LeftOut,
    ClockStep
};

// Makes a span that begins with NO_TIME hold the moment, where that is known.
void Include(Span& span, Micros time) {
    if (time != NO_TIME) {
        span.begin = span.begin == NO_TIME ? time : std::min(span.begin, time);
        span.end = std::max(span.end, time);  // NO_TIME is the least of all times.
    }
}

// Between two frames as they should come: of the frame rate described, else as they mostly came.
Micros PeriodOf(const Scene& scene) {
    if (scene.fps > 0) {
        return std::max<Micros>((SECOND + scene.fps / 2) / scene.fps, 1);
    }
    return scene.interval.p50 > 0 ? scene.interval.p50 : SECOND / 60;
}

// When the frame is shown to be in the stage: for a period where it is not known to have left.
Span SpanOf(const Scene& scene, size_t frame, int32_t stage) {
    const StageTimes times = scene.TimesOf(frame, stage);
    Span span{NO_TIME, NO_TIME};
    Include(span, times.start);
    Include(span, times.end != NO_TIME || times.start == NO_TIME ? times.end
                                                                 : times.start + PeriodOf(scene));
    return span;
}

// From the first to the last that is known of a frame, or shown of its stages.
Span SpanOf(const Scene& scene, size_t frame) {
    Span span{NO_TIME, NO_TIME};
    Include(span, scene.frames[frame].start);
    Include(span, scene.frames[frame].end);
    Include(span, scene.frames[frame].output);
    for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
        const Span part = SpanOf(scene, frame, stage);
        Include(span, part.begin);
        Include(span, part.end);
    }
    return span;
}

// Spreads spans that overlap over as few lanes as it takes.
class Lanes {
  public:
    // The lane, from 0, of the next span; they come in the order of their beginnings.
    size_t Put(const Span& span) {
        const auto isFree = [&span](Micros end) { return end <= span.begin; };
        const auto lane = std::find_if(ends.begin(), ends.end(), isFree);
        const auto index = static_cast<size_t>(lane - ends.begin());
        if (lane == ends.end()) {
            ends.push_back(span.end);
        } else {
            *lane = span.end;
        }
        return index;
    }

  private:
    std::vector<Micros> ends;
};

// Something to be written, and what it is found by: cheap to keep in order.
struct Item {
    Span span;
    size_t scene = 0;  // That of no scene in particular comes after the last.
    size_t index = 0;  // Of the frame, finding, hole or step of the clock.
    What what = What::Actual;
    char flow = 0;      // Stage: the flow's phase; 0 for none.
    int32_t stage = 0;  // Stage: which. InFlight: one more or one less.
};

// What encloses goes before what it encloses; the rest is for the order not to be left to chance.
bool IsBefore(const Item& one, const Item& other) {
    const auto key = [](const Item& item) {
        return std::tuple(item.span.begin, -item.span.end, item.scene, item.what, item.index,
                          item.stage);
    };
    return key(one) < key(other);
}

struct IsAfter {
    bool operator()(const Item& one, const Item& other) const { return IsBefore(other, one); }
};

// Slices of one kind, on as many threads as overlap.
struct Track {
    std::string name;
    int64_t order = 0;
    Lanes lanes;
    std::vector<int64_t> threads;  // A lane each.
};

struct SceneTracks {
    Track findings, expected, actual;
    std::vector<Track> stages;
    int64_t firstFlow = 0;  // Its frames' flows are numbered from here.
    int64_t inFlight = 0;
};

class TraceWriter {
  public:
    TraceWriter(std::ostream& stream, const Account& told) : out(stream), account(told) {}

    void Write() {
        const std::vector<Item> items = Everything();
        origin = items.empty() ? 0 : items.front().span.begin;
        text = "{\"traceEvents\":[\n";
        NameProcesses();
        // What a frame leads to is made when its turn comes, and kept until nothing earlier can.
        std::priority_queue<Item, std::vector<Item>, IsAfter> waiting;
        for (const Item& item : items) {
            for (; !waiting.empty() && IsBefore(waiting.top(), item); waiting.pop()) {
                Write(waiting.top());
            }
            waiting.push(item);
            if (item.what == What::Actual) {
                AddPartsOf(item, waiting);
            }
        }
        for (; !waiting.empty(); waiting.pop()) {
            Write(waiting.top());
        }
        text += "\n]}\n";
        out << text;
    }

  private:
    // All frames, findings and disturbances of the log that have a time, in order.
    std::vector<Item> Everything() const {
        std::vector<Item> items;
        const auto add = [&items](size_t scene, What what, size_t index, Span span) {
            if (span.begin != NO_TIME) {
                items.push_back({span, scene, index, what});
            }
        };
        const auto addFindings = [&add](size_t scene, const auto& findings, Micros otherwise) {
            for (size_t i = 0; i < findings.size(); ++i) {
                const Micros time = findings[i].time == NO_TIME ? otherwise : findings[i].time;
                add(scene, What::Finding, i, {time, time});
            }
        };
        for (size_t s = 0; s < account.scenes.size(); ++s) {
            const Scene& scene = account.scenes[s];
            const Frame* before = nullptr;  // The last one that came out.
            for (size_t i = 0; i < scene.frames.size(); ++i) {
                const Frame& frame = scene.frames[i];
                const Span actual = SpanOf(scene, i);
                add(s, What::Actual, i, actual);
                // Numbers may be anything: those far apart have nothing to do with one another.
                const uint64_t gap = before == nullptr ? 0
                                                       : static_cast<uint64_t>(frame.number) -
                                                             static_cast<uint64_t>(before->number);
                if (gap > 0 && gap < FAR_APART) {
                    const Micros due = before->output + PeriodOf(scene) * static_cast<Micros>(gap);
                    const Micros begin =
                        actual.begin == NO_TIME ? due - scene.latency.p50 : actual.begin;
                    add(s, What::Expected, i, {begin, std::max(begin, due)});
                }
                before = frame.output == NO_TIME ? before : &frame;
            }
            addFindings(s, scene.findings, scene.begin);
            for (size_t i = 0; account.hasTimes && i < scene.leftOut.size(); ++i) {
                add(s, What::LeftOut, i, {scene.leftOut[i].time, scene.leftOut[i].time});
            }
            for (size_t i = 0; i < scene.clockSteps.size(); ++i) {
                add(s, What::ClockStep, i, {scene.clockSteps[i].time, scene.clockSteps[i].time});
            }
        }
        addFindings(account.scenes.size(), account.findings, 0);
        std::sort(items.begin(), items.end(), IsBefore);
        return items;
    }

    // The slices and counters of a frame, none of which is before the frame itself.
    void AddPartsOf(const Item& frame, auto& parts) const {
        const Scene& scene = account.scenes[frame.scene];
        const Frame& told = scene.frames[frame.index];
        const auto add = [&](What what, Micros time, int32_t change) {
            parts.push({{time, time}, frame.scene, frame.index, what, 0, change});
        };
        if (told.start != NO_TIME) {
            add(What::InFlight, told.start, 1);
            // What never ends keeps its place until the scene does.
            add(What::InFlight,
                told.end == NO_TIME ? std::max(frame.span.end, scene.end) : told.end, -1);
        }
        if (told.interval != NO_TIME && told.output != NO_TIME) {
            add(What::Interval, told.output, 0);
        }
        std::vector<Item> stages;
        for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
            const Span span = SpanOf(scene, frame.index, stage);
            if (span.begin != NO_TIME) {
                stages.push_back({span, frame.scene, frame.index, What::Stage, 't', stage});
            }
        }
        if (!stages.empty()) {
            std::sort(stages.begin(), stages.end(), IsBefore);
            stages.back().flow = 'f';
            stages.front().flow = stages.size() > 1 ? 's' : char(0);
        }
        for (const Item& stage : stages) {
            parts.push(stage);
        }
    }

    // A process a scene, and one for what belongs to none.
    void NameProcesses() {
        int64_t flows = 0;
        for (size_t s = 0; s <= account.scenes.size(); ++s) {
            SceneTracks& made = tracks.emplace_back();
            made.findings = {"findings", 0, {}, {}};
            made.expected = {"expected frames", 1, {}, {}};
            made.actual = {"actual frames", 2, {}, {}};
            made.firstFlow = flows;
            const bool isScene = s < account.scenes.size();
            if (isScene) {
                const Scene& scene = account.scenes[s];
                flows += static_cast<int64_t>(scene.frames.size());
                for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
                    made.stages.push_back(
                        {StageTitleOf(scene, static_cast<size_t>(stage)), 3 + stage, {}, {}});
                }
            } else if (account.findings.empty()) {
                return;
            }
            Name("process", s, 0, isScene ? TitleOf(account, s) : "the capture as a whole",
                 static_cast<int64_t>(s));
        }
    }

    // The thread that has room for the span, named when it is first used.
    int64_t ThreadOf(Track& track, size_t scene, const Span& span) {
        const size_t lane = track.lanes.Put(span);
        if (lane == track.threads.size()) {
            track.threads.push_back(++threads);
            Name("thread", scene, threads,
                 track.name + (lane == 0 ? "" : " (" + std::to_string(lane + 1) + ")"),
                 track.order * 1000 + static_cast<int64_t>(lane));
        }
        return track.threads[lane];
    }

    void Name(const std::string& kind, size_t scene, int64_t thread, const std::string& name,
              int64_t order) {
        Begin('M', scene, thread);
        Add(",\"name\":\"" + kind + "_name\",\"args\":{\"name\":" + Quote(name) + "}}");
        Begin('M', scene, thread);
        Add(",\"name\":\"" + kind + "_sort_index\",\"args\":{\"sort_index\":", order, "}}");
    }

    void Write(const Item& item) {
        SceneTracks& own = tracks[item.scene];
        switch (item.what) {
            case What::Expected:
                WriteSlice(own.expected, item, false);
                Add("}");
                break;
            case What::Actual:
                WriteSlice(own.actual, item, true);
                Add("}");
                break;
            case What::Stage:
                WriteStage(own, item);
                break;
            case What::InFlight:
                own.inFlight += item.stage;
                WriteCounter(item, "frames in flight", own.inFlight);
                break;
            case What::Interval:
                WriteCounter(item, "output interval (ms)",
                             static_cast<double>(FrameOf(item).interval) / 1000);
                break;
            case What::Finding:
                WriteFinding(own, item);
                break;
            case What::LeftOut: {
                const Scene::Disturbance& told = account.scenes[item.scene].leftOut[item.index];
                WriteDisturbance(
                    own, item, told.place,
                    told.amount > 0 ? fmt::format("{} lines lost", told.amount) : "lines lost");
                break;
            }
            case What::ClockStep: {
                const Scene::Disturbance& told = account.scenes[item.scene].clockSteps[item.index];
                WriteDisturbance(
                    own, item, told.place,
                    fmt::format("the clock jumped by {} ms", told.amount / MILLISECOND));
                break;
            }
        }
        if (text.size() > BUFFER) {
            out << text;
            text.clear();
        }
    }

    // All but the closing brace. Good frames stay quiet: the viewer gives equal words equal
    // colours.
    int64_t WriteSlice(Track& track, const Item& item, bool isTold) {
        const Frame& frame = FrameOf(item);
        const std::string_view word = WordOf(frame);
        const int64_t thread = ThreadOf(track, item.scene, item.span);
        BeginSlice(item.scene, thread, item.span);
        Add(",\"name\":\"", frame.number);
        if (isTold && !word.empty()) {
            Add(" ", word);
        }
        Add("\"");
        if (isTold && (item.what == What::Actual || !word.empty())) {
            Add(",\"args\":{\"status\":\"", NameOf(frame.status),
                "\",\"late\":", frame.isLate ? "true" : "false");
            if (frame.reason != Reason::None) {
                Add(",\"reason\":", Quote(ReasonOf(frame.reason)));
            }
            Add(",\"line\":", Quote(ToString(account, frame.place)), "}");
        }
        return thread;
    }

    void WriteStage(SceneTracks& own, const Item& item) {
        const Scene& scene = account.scenes[item.scene];
        const auto stage = static_cast<size_t>(item.stage);
        const int64_t thread = WriteSlice(own.stages[stage], item, true);
        Add("}");
        const Micros wait = scene.TimesOf(item.index, item.stage).wait;
        if (wait != NO_TIME && wait > 0) {
            BeginSlice(item.scene, thread,
                       {item.span.begin, std::min(item.span.begin + wait, item.span.end)});
            Add(",\"name\":\"waiting\"}");
        }
        if (item.flow != 0) {
            Begin(item.flow, item.scene, thread);
            Add(",\"ts\":", item.span.begin - origin,
                ",\"id\":", own.firstFlow + static_cast<int64_t>(item.index),
                ",\"cat\":\"frame\",\"name\":\"frame\"", item.flow == 's' ? "}" : ",\"bp\":\"e\"}");
        }
    }

    void WriteCounter(const Item& item, std::string_view name, auto value) {
        Begin('C', item.scene, 0);
        Add(",\"ts\":", item.span.begin - origin, ",\"name\":\"", name,
            "\",\"args\":{\"value\":", value, "}}");
    }

    void WriteFinding(SceneTracks& own, const Item& item) {
        const bool isScene = item.scene < account.scenes.size();
        const SceneFinding& finding =
            (isScene ? account.scenes[item.scene].findings : account.findings)[item.index];
        WriteInstant(
            own, item,
            NameOf(finding.check) + (finding.frame ? fmt::format(" {}", *finding.frame) : ""));
        Add(",\"args\":{\"severity\":\"", NameOf(finding.severity),
            "\",\"message\":", Quote(finding.message),
            ",\"line\":", Quote(ToString(account, finding.place)), "}}");
    }

    void WriteDisturbance(SceneTracks& own, const Item& item, const Place& place,
                          std::string_view name) {
        WriteInstant(own, item, name);
        Add(",\"args\":{\"line\":", Quote(ToString(account, place)), "}}");
    }

    void WriteInstant(SceneTracks& own, const Item& item, std::string_view name) {
        Begin('i', item.scene, ThreadOf(own.findings, item.scene, item.span));
        Add(",\"ts\":", item.span.begin - origin, ",\"s\":\"t\",\"name\":", Quote(name));
    }

    void BeginSlice(size_t scene, int64_t thread, const Span& span) {
        Begin('X', scene, thread);
        Add(",\"ts\":", span.begin - origin, ",\"dur\":", span.end - span.begin);
    }

    void Begin(char phase, size_t scene, int64_t thread) {
        Add(isFirst ? "" : ",\n", "{\"ph\":\"", std::string_view(&phase, 1),
            "\",\"pid\":", static_cast<int64_t>(scene) + 1, ",\"tid\":", thread);
        isFirst = false;
    }

    template <typename... Parts>
    void Add(const Parts&... parts) {
        (AddOne(parts), ...);
    }
    void AddOne(std::string_view part) { text += part; }
    void AddOne(int64_t number) { text += std::to_string(number); }
    void AddOne(double number) { text += std::to_string(number); }

    const Frame& FrameOf(const Item& item) const {
        return account.scenes[item.scene].frames[item.index];
    }

    static constexpr size_t BUFFER = 1 << 16;
    static constexpr uint64_t FAR_APART = 1000;

    std::ostream& out;
    const Account& account;
    std::string text;  // Not yet written.
    std::vector<SceneTracks> tracks;
    Micros origin = 0;
    int64_t threads = 0;
    bool isFirst = true;
};

}  // namespace

void WriteTrace(std::ostream& out, const Account& account) {
    TraceWriter(out, account).Write();
}

}  // namespace tools
