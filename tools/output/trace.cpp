// The account as a trace, in Chrome's JSON form.

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/output/outputs.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

// What stands on a track for some time.
struct Slice {
    Span span;
    std::string name{};
    Json arguments{};
    bool isStanding = false;  // Of a frame that is not known to have gone on.
    Micros waiting = 0;       // For so long from its begin, which a slice within it says.
    char arrow = '\0';        // An arrow begins (s), goes on (t) or ends (f) in it,
    size_t arrowId = 0;       // and which.
};

// The one place that knows the form: an event a line.
class Events {
  public:
    Events(std::ostream& stream, Micros zero) : out(stream), origin(zero) {}

    // All that is added from here on belongs to it.
    void BeginProcess(size_t number, const std::string& name) {
        process = number;
        Add('M', 0, origin, "process_name", "", {{"name", name}});
        Add('M', 0, origin, "process_sort_index", "", {{"sort_index", number}});
    }

    size_t AddTrack(const std::string& name) {
        ++tracks;
        Add('M', tracks, origin, "thread_name", "", {{"name", name}});
        Add('M', tracks, origin, "thread_sort_index", "", {{"sort_index", tracks}});
        return tracks;
    }

    // Slices that overlap are spread over as few tracks as it takes. Those that stand come last, so
    // that they leave the first tracks to those that move.
    void AddSlices(const std::string& title, std::vector<Slice> slices) {
        std::ranges::stable_sort(slices, {}, [](const Slice& slice) {
            return std::pair(slice.isStanding, slice.span.begin);
        });
        const size_t first = AddTrack(title);
        std::vector<Micros> taken = {NO_TIME};  // Until when, a track each.
        for (const Slice& slice : slices) {
            const Span span = slice.span;
            size_t lane = 0;
            while (lane < taken.size() && taken[lane] > span.begin) {
                ++lane;
            }
            if (lane == taken.size()) {
                AddTrack(fmt::format("{} ({})", title, lane + 1));
                taken.emplace_back();
            }
            taken[lane] = span.end;
            AddSlice(first + lane, span, slice.name, slice.arguments);
            if (slice.arrow != '\0') {
                Add(slice.arrow, first + lane, span.begin, "frame",
                    fmt::format(R"(,"cat":"frame","id":{}{})", slice.arrowId,
                                slice.arrow == 's' ? "" : R"(,"bp":"e")"));
            }
            if (slice.waiting > 0) {
                AddSlice(first + lane, Cut(span, {span.begin, span.begin + slice.waiting}),
                         "waiting", {});
            }
        }
    }

    // `more`: further members, with a comma before each. What is not on a track is on track 0.
    void Add(char phase, size_t track, Micros time, std::string_view name, std::string_view more,
             const Json& arguments = {}) {
        // What was before the first scene is shown at its beginning.
        out << fmt::format(R"({}{{"ph":"{}","pid":{},"tid":{},"ts":{},"name":{}{})", separator,
                           phase, process, track, std::max<Micros>(time - origin, 0), Text(name),
                           more)
            << (arguments.is_null() ? "" : ",\"args\":" + Text(arguments)) << '}';
        separator = ",\n";
    }

    // Names come from captures, which hold any bytes; JSON holds UTF-8.
    static std::string Text(const Json& json) {
        return json.dump(-1, ' ', false, Json::error_handler_t::replace);
    }

  private:
    void AddSlice(size_t track, Span span, std::string_view name, const Json& arguments) {
        Add('X', track, span.begin, name, fmt::format(R"(,"dur":{})", span.Length()), arguments);
    }

    std::ostream& out;
    Micros origin;
    std::string_view separator;
    size_t process = 0, tracks = 0;
};

// What is shown of a scene.
struct View {
    const Account& account;
    const Scheduling* scheduling;
    const size_t index;
    // Only these frames are shown, with all that is known of them; without it, all frames.
    const std::optional<std::pair<int64_t, int64_t>>& range;
    const size_t firstArrow;  // Of its frames, a row each.
    const JudgedScene& scene = account.scenes[index];
    // Of all frames that are shown: in it things are shown that are no frame's.
    Span span{std::numeric_limits<Micros>::max(), NO_TIME};

    bool Has(size_t row) const { return Shown{true, range}.Has(scene, row); }
    bool HasTime(Micros time) const { return !range || (time >= span.begin && time <= span.end); }
    // Whether all that is known of the frame is shown.
    bool IsTold(size_t row) const {
        return range || HarmOf(scene.FateOf(row)) != Harm::None ||
               scene.frames[row].trouble.line != 0;
    }
};

// When the frame was in the stage, where it stands if it never left that; to NO_TIME where it was
// not, or that is not known.
Span StayOf(const JudgedScene& scene, size_t row, int32_t stage) {
    const StageTimes times = scene.TimesOf(row, stage);
    const Micros gone = GoneOf(scene, row);
    const bool stands = times.end == NO_TIME && !scene.FateOf(row).isOut &&
                        stage == scene.NextStage(row) && gone > times.start;
    const Micros end = stands && times.start != NO_TIME ? gone : times.end;
    return {times.start == NO_TIME ? end : times.start, end};
}

// From the first to the last that is known of the frame.
Span LifeOf(const JudgedScene& scene, size_t row) {
    const Fate& fate = scene.FateOf(row);
    return {scene.frames[row].seen, std::max({scene.LastOf(row).second, scene.frames[row].end,
                                              fate.isOut ? fate.output : GoneOf(scene, row)})};
}

View ViewOf(const Account& account, const Scheduling* scheduling, size_t index,
            const std::optional<std::pair<int64_t, int64_t>>& range, size_t firstArrow) {
    View view{account, scheduling, index, range, firstArrow};
    for (size_t row = 0; row < view.scene.frames.size(); ++row) {
        if (view.Has(row)) {
            const Span life = LifeOf(view.scene, row);
            // A frame that never came out may stand there for long.
            const Micros end = view.scene.FateOf(row).isNeverOut ? life.begin : life.end;
            view.span = {std::min(view.span.begin, life.begin), std::max(view.span.end, end)};
        }
    }
    return view;
}

// The frame's slice. Good frames stay quiet: the viewer gives equal words equal colours.
Slice SliceOf(const View& view, size_t row, Span span, bool hasLeft) {
    const Frame& frame = view.scene.frames[row];
    const Fate& fate = view.scene.FateOf(row);
    const std::string word = WordOf(fate);
    Slice slice{.span = span,
                .name = fmt::format("{}{}{}", frame.number, word.empty() ? "" : " ", word),
                .isStanding = !hasLeft};
    if (view.IsTold(row)) {
        slice.arguments = {{"status", NameOf(fate.status)},
                           {"late", fate.isLate},
                           {"reason", DescriptionOf(fate)},
                           {"line", ToString(view.account, frame.place)}};
    }
    return slice;
}

void WriteFrames(Events& events, const View& view) {
    std::vector<Slice> slices;
    for (size_t row = 0; row < view.scene.frames.size(); ++row) {
        if (view.Has(row)) {
            slices.push_back(
                SliceOf(view, row, LifeOf(view.scene, row), view.scene.FateOf(row).isOut));
        }
    }
    events.AddSlices("frames", std::move(slices));
}

// What the frame's slice in the stage has of the arrow that goes through all of the frame's.
char ArrowOf(const JudgedScene& scene, size_t row, int32_t stage) {
    std::vector<std::pair<Micros, int32_t>> begins;
    for (int32_t any = 0; any < scene.stageCount; ++any) {
        if (const Span stay = StayOf(scene, row, any); stay.end != NO_TIME) {
            begins.emplace_back(stay.begin, any);
        }
    }
    const auto [first, last] = std::ranges::minmax(begins);
    if (first == last) {
        return '\0';
    }
    const char behind = last.second == stage ? 'f' : 't';
    return first.second == stage ? 's' : behind;
}

void WriteStage(Events& events, const View& view, int32_t stage) {
    const JudgedScene& scene = view.scene;
    std::vector<Slice> slices;
    for (size_t row = 0; row < scene.frames.size(); ++row) {
        const Span stay = StayOf(scene, row, stage);
        if (stay.end != NO_TIME && view.Has(row)) {
            Slice slice = SliceOf(view, row, stay, scene.PassOf(row, stage).HasLeft());
            slice.waiting = scene.TimesOf(row, stage).wait;
            slice.arrow = view.IsTold(row) ? ArrowOf(scene, row, stage) : '\0';
            slice.arrowId = view.firstArrow + row;
            slices.push_back(std::move(slice));
        }
    }
    events.AddSlices(StageTitleOf(scene, static_cast<size_t>(stage)), std::move(slices));
}

// What the threads of a stage did when they did not sleep.
void WriteThreads(Events& events, const View& view, int32_t stage) {
    for (const DrawnThread& drawn : DrawnThreadsOf(view.account, view.scheduling, view.index)) {
        if (drawn.stage != stage) {
            continue;
        }
        std::vector<Slice> slices;
        for (const StateSpan& one : AwakeOf(*view.scheduling, drawn.thread, view.span)) {
            const bool isRunnable = one.state == ThreadState::Runnable;
            slices.push_back({one, isRunnable ? "waiting for a CPU" : NameOf(one.state),
                              one.state == ThreadState::Running ? Json{{"CPU", one.cpu}} : Json()});
        }
        const SchedThread& known = view.scheduling->trace.threads[drawn.thread];
        events.AddSlices(fmt::format("thread {} ({})", known.tid, known.name), std::move(slices));
    }
}

void WriteCounters(Events& events, const View& view) {
    const auto add = [&](const char* name, Micros time, const Json& value) {
        if (view.HasTime(time)) {
            events.Add('C', 0, time, name, "", {{"value", value}});
        }
    };
    for (const auto& [time, count] : InFlightOf(view.scene)) {
        add("frames in flight", time, count);
    }
    for (const Fate& fate : view.scene.columns.fates) {
        if (fate.interval != NO_TIME) {
            add("output interval (ms)", fate.output, static_cast<double>(fate.interval) / 1000);
        }
    }
}

// `otherwise`: where a finding stands whose time is not known. `view`: null for all.
void WriteFindings(Events& events, const Account& account,
                   const std::vector<SceneFinding>& findings, Micros otherwise, const View* view) {
    const size_t track = events.AddTrack("findings");
    for (const SceneFinding& finding : findings) {
        const Micros time = finding.time == NO_TIME ? otherwise : finding.time;
        const std::string frame = finding.frame ? fmt::format(" {}", *finding.frame) : "";
        if (view == nullptr || view->HasTime(time)) {
            events.Add('i', track, time, NameOf(finding.kind) + frame, R"(,"s":"t")",
                       {{"severity", NameOf(finding.severity)},
                        {"message", finding.message},
                        {"line", ToString(account, finding.place)}});
        }
    }
}

// What the clock of the log showed at a time; empty where that is not known.
std::string ClockAt(const Account& account, Micros time) {
    return account.from.empty() ? "" : ClockText(account.clock + time);
}

}  // namespace

void WriteTrace(std::ostream& out, const Account& account,
                const std::optional<std::pair<int64_t, int64_t>>& frames,
                const Scheduling* scheduling) {
    const auto first = std::ranges::min_element(account.scenes, {}, &Scene::begin);
    const Micros origin = first == account.scenes.end() ? 0 : first->begin;
    Events events(out, origin);
    out << "{\"traceEvents\":[\n";
    size_t firstArrow = 1;
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        const JudgedScene& scene = account.scenes[i];
        const View view = ViewOf(account, scheduling, i, frames, firstArrow);
        firstArrow += scene.frames.size();
        if (frames && view.span.end == NO_TIME) {
            continue;
        }
        events.BeginProcess(i + 1,
                            TitleOf(account, i) + ", begins at " + ClockAt(account, scene.begin));
        WriteFindings(events, account, scene.findings, scene.begin, &view);
        WriteFrames(events, view);
        for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
            WriteStage(events, view, stage);
            WriteThreads(events, view, stage);
        }
        WriteThreads(events, view, -1);
        WriteCounters(events, view);
    }
    if (!account.findings.empty()) {
        events.BeginProcess(account.scenes.size() + 1, "the capture as a whole");
        WriteFindings(events, account, account.findings, origin, nullptr);
    }
    const Json about{{"inputs", account.inputs}, {"clock at 0", ClockAt(account, origin)}};
    out << "\n],\"otherData\":" << Events::Text(about) << "}\n";
}

}  // namespace tools
