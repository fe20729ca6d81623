// The account as a trace, in Chrome's JSON form.

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "tools/output/outputs.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

// Numbers of frames may be anything: those farther apart have nothing to do with one another.
constexpr uint64_t FAR_APART = 1000;
// So many frames before and after one that is remarkable have flows as well.
constexpr size_t NEAR = 5;

// Names come from captures, which hold any bytes; JSON holds UTF-8.
std::string Text(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

class Events {
  public:
    Events(std::ostream& stream, Micros zero) : out(stream), origin(zero) {}

    // `more`: further members, with a comma before each.
    void Add(char phase, size_t process, Micros time, std::string_view name,
             std::string_view more) {
        // What was before the first scene is shown at its beginning.
        out << fmt::format(R"({}{{"ph":"{}","pid":{},"ts":{},"name":{}{}}})", separator, phase,
                           process, std::max<Micros>(time - origin, 0), Text(name), more);
        separator = ",\n";
    }

    void NameProcess(size_t process, const std::string& name) {
        Name("process", process, "", name, process);
    }

    void AddSlice(size_t process, size_t track, Span span, std::string_view name,
                  std::string_view arguments = "") {
        Add('X', process, span.begin, name,
            fmt::format(R"(,"tid":{},"dur":{}{})", track, span.end - span.begin, arguments));
    }

    // One end of an arrow, or a step of it, in the slice there: `phase` is s, t or f.
    void AddFlow(char phase, size_t process, size_t track, Micros time, std::string_view name,
                 size_t id) {
        Add(phase, process, time, name,
            fmt::format(R"(,"tid":{},"cat":"{}","id":{}{})", track, name, id,
                        phase == 's' ? "" : R"(,"bp":"e")"));
    }

    // The thread that it is.
    size_t AddTrack(size_t process, const std::string& name) {
        ++threads;
        Name("thread", process, fmt::format(R"(,"tid":{})", threads), name, threads);
        return threads;
    }

    // The id of an arrow from a thread to another.
    size_t AddArrow() { return ++arrows; }

  private:
    void Name(std::string_view kind, size_t process, const std::string& thread,
              const std::string& name, size_t order) {
        Add('M', process, origin, fmt::format("{}_name", kind),
            fmt::format(R"({},"args":{{"name":{}}})", thread, Text(name)));
        Add('M', process, origin, fmt::format("{}_sort_index", kind),
            fmt::format(R"({},"args":{{"sort_index":{}}})", thread, order));
    }

    std::ostream& out;
    Micros origin;
    std::string_view separator;
    size_t threads = 0;
    size_t arrows = 0;
};

// A frame in a stage, or all in all.
struct Slice {
    Span span;
    size_t frame = 0;
    bool hasLeft = true;  // Else it stood there to the end.
};

// What is shown of a scene.
struct View {
    const Account& account;
    const JudgedScene& scene;
    size_t process = 0;
    size_t firstId = 0;   // Of its frames, which count from here.
    bool isPart = false;  // Only the frames asked for are shown, with all that is known of them.
    std::vector<Micros> gone;     // When each frame went that was not seen to leave; NO_TIME where
                                  // that is not known.
    std::vector<bool> hasFlow;    // Of each frame.
    std::vector<Slice> frames;    // In the order of the scene.
    Span span{NO_TIME, NO_TIME};  // In which things are shown that are no frame's.

    const Frame& FrameOf(const Slice& slice) const { return scene.frames[slice.frame]; }
    const Fate& FateOf(const Slice& slice) const { return scene.FateOf(slice.frame); }
    bool Has(Micros time) const {
        return time != NO_TIME && (!isPart || (time >= span.begin && time <= span.end));
    }
};

// Makes a span that begins with NO_TIME hold the moment, where that is known.
void Include(Span& span, Micros time) {
    if (time != NO_TIME) {
        span.begin = span.begin == NO_TIME ? time : std::min(span.begin, time);
        span.end = std::max(span.end, time);  // NO_TIME is the least of all times.
    }
}

// A frame stays until it was ended or pushed out, or as long as the scene is known to have gone on.
std::vector<Micros> GoneOf(const JudgedScene& scene) {
    std::vector<Micros> gone;
    for (size_t row = 0; row < scene.frames.size(); ++row) {
        const Frame& frame = scene.frames[row];
        const Micros until = frame.evicted != NO_TIME ? frame.evicted : scene.stop;
        const bool isKnown = frame.end != NO_TIME || scene.FateOf(row).isUnknown;
        gone.push_back(isKnown ? frame.end : until);
    }
    return gone;
}

// When the frame is shown in the stage; a span that begins with NO_TIME where it is not.
Slice SliceOf(const View& view, size_t frame, int32_t stage) {
    const JudgedScene& scene = view.scene;
    const StageTimes times = scene.TimesOf(frame, stage);
    Slice slice{{NO_TIME, NO_TIME}, frame, scene.PassOf(frame, stage).HasLeft()};
    bool isThere = !scene.FateOf(frame).isOut && times.start != NO_TIME &&
                   view.gone[frame] != NO_TIME &&
                   (stage == 0 || scene.PassOf(frame, stage - 1).HasLeft());
    for (int32_t later = stage; later < scene.stageCount; ++later) {
        isThere = isThere && !scene.PassOf(frame, later).HasLeft();
    }
    if (slice.hasLeft || isThere) {
        Include(slice.span, times.start);
        Include(slice.span, isThere ? view.gone[frame] : times.end);
    }
    return slice;
}

// From the first to the last that is known of a frame.
Slice SliceOf(const View& view, size_t frame) {
    const Frame& row = view.scene.frames[frame];
    Slice slice{{NO_TIME, NO_TIME}, frame};
    Include(slice.span, row.start);
    Include(slice.span, row.end);
    Include(slice.span, view.scene.FateOf(frame).isOut ? view.scene.FateOf(frame).output : NO_TIME);
    for (int32_t stage = 0; stage < view.scene.stageCount; ++stage) {
        const Span part = SliceOf(view, frame, stage).span;
        Include(slice.span, part.begin);
        Include(slice.span, part.end);
    }
    return slice;
}

bool IsRemarkable(const JudgedScene& scene, size_t row) {
    return HarmOf(scene.FateOf(row)) != Harm::None || scene.frames[row].trouble.line != 0;
}

View ViewOf(const Account& account, size_t number, size_t firstId,
            const std::optional<std::pair<int64_t, int64_t>>& range) {
    const JudgedScene& scene = account.scenes[number];
    View view{account, scene, number + 1, firstId, range.has_value(), GoneOf(scene), {}, {}};
    view.hasFlow.assign(scene.frames.size(), view.isPart);
    for (size_t frame = 0; frame < scene.frames.size(); ++frame) {
        if (IsRemarkable(scene, frame)) {
            const size_t last = std::min(frame + NEAR, scene.frames.size() - 1);
            for (size_t near = frame - std::min(frame, NEAR); near <= last; ++near) {
                view.hasFlow[near] = true;
            }
        }
        const Slice slice = SliceOf(view, frame);
        if (slice.span.begin != NO_TIME && Shown{true, range}.Has(scene, frame)) {
            view.frames.push_back(slice);
            Include(view.span, slice.span.begin);
            // One that never came out may stand there for long.
            Include(view.span, scene.FateOf(frame).isNeverOut ? NO_TIME : slice.span.end);
        }
    }
    return view;
}

// Good frames stay quiet: the viewer gives equal words equal colours.
std::string NameOf(const View& view, const Slice& slice) {
    const std::string_view word = WordOf(view.FateOf(slice));
    return fmt::format("{}{}{}", view.FrameOf(slice).number, word.empty() ? "" : " ", word);
}

// Empty where nothing is to be said of the frame.
std::string ArgumentsOf(const View& view, const Slice& slice) {
    const Frame& frame = view.FrameOf(slice);
    const Fate& fate = view.FateOf(slice);
    if (!view.isPart && !IsRemarkable(view.scene, slice.frame) && *WordOf(fate) == '\0') {
        return "";
    }
    Json arguments{{"status", NameOf(fate.status)}, {"late", fate.isLate}};
    if (const std::string reason = DescriptionOf(fate); !reason.empty()) {
        arguments["reason"] = reason;
    }
    if (!slice.hasLeft) {
        arguments["left"] = "never";
        if (frame.end != NO_TIME) {
            arguments["left"] = "never; until it was ended";
        } else if (frame.evicted != NO_TIME) {
            arguments["left"] = "never; until it was pushed out";
        }
    }
    arguments["line"] = ToString(view.account, frame.place);
    return ",\"args\":" + Text(arguments);
}

// Frames overlap: viewers put all events of a name on one track, however many it takes. So it is
// the same for all frames, and what is to be said of one is an event within its own.
void WritePair(Events& events, const View& view, const Slice& slice, std::string_view name) {
    const std::string which =
        fmt::format(R"(,"cat":"{}","id":{})", name, view.firstId + slice.frame);
    const Frame& frame = view.FrameOf(slice);
    const std::string arguments = name == "actual" ? ArgumentsOf(view, slice) : "";
    events.Add('b', view.process, slice.span.begin, name,
               fmt::format(R"({},"args":{{"frame":{}}})", which, frame.number));
    if (!arguments.empty()) {
        events.Add('b', view.process, slice.span.begin, NameOf(view, slice), which + arguments);
        events.Add('e', view.process, slice.span.end, NameOf(view, slice), which);
    }
    events.Add('e', view.process, slice.span.end, name, which);
}

// A frame is due so many periods after the last one that came out as numbers are between the two.
void WriteExpected(Events& events, const View& view) {
    const JudgedScene& scene = view.scene;
    const Frame* before = nullptr;
    Micros dueFrom = 0;
    auto shown = view.frames.begin();
    for (size_t i = 0; i < scene.frames.size(); ++i) {
        const Frame& frame = scene.frames[i];
        const uint64_t gap = before == nullptr ? 0
                                               : static_cast<uint64_t>(frame.number) -
                                                     static_cast<uint64_t>(before->number);
        if (shown != view.frames.end() && shown->frame == i) {
            const Micros begin = (shown++)->span.begin;
            if (gap > 0 && gap < FAR_APART) {
                const Micros due = dueFrom + scene.Period() * static_cast<Micros>(gap);
                WritePair(events, view, {{begin, std::max(begin, due)}, i}, "expected");
            }
        }
        if (scene.FateOf(i).isOut) {
            before = &frame;
            dueFrom = scene.FateOf(i).output;
        }
    }
}

// The phase of the frame's flow in the stage: it begins, goes on or ends there; 0 for none.
char FlowOf(const View& view, const Slice& slice, int32_t stage) {
    bool isFirst = true, isLast = true;
    for (int32_t other = 0; view.hasFlow[slice.frame] && other < view.scene.stageCount; ++other) {
        const Micros begin = SliceOf(view, slice.frame, other).span.begin;
        if (begin != NO_TIME && other != stage) {
            const bool isBefore = std::pair(begin, other) < std::pair(slice.span.begin, stage);
            (isBefore ? isFirst : isLast) = false;
        }
    }
    if (isFirst) {
        return isLast ? '\0' : 's';
    }
    return isLast ? 'f' : 't';
}

void WriteStage(Events& events, const View& view, int32_t stage) {
    std::vector<Slice> slices;
    for (const Slice& frame : view.frames) {
        const Slice slice = SliceOf(view, frame.frame, stage);
        if (slice.span.begin != NO_TIME) {
            slices.push_back(slice);
        }
    }
    // Frames that are still there come last, so that they leave the first track to those that move.
    // What encloses goes before what it encloses.
    const auto key = [](const Slice& slice) {
        return std::tuple(!slice.hasLeft, slice.span.begin, -slice.span.end, slice.frame);
    };
    std::sort(slices.begin(), slices.end(),
              [&key](const Slice& one, const Slice& other) { return key(one) < key(other); });
    // Those that overlap are spread over as few tracks as it takes.
    std::vector<std::pair<Micros, size_t>> lanes;  // When each is free again, and its track.
    for (const Slice& slice : slices) {
        const auto [begin, end] = slice.span;
        size_t lane = 0;
        while (lane < lanes.size() && lanes[lane].first > begin) {
            ++lane;
        }
        if (lane == lanes.size()) {
            const std::string which = lane == 0 ? "" : fmt::format(" ({})", lane + 1);
            const std::string title = StageTitleOf(view.scene, static_cast<size_t>(stage));
            lanes.emplace_back(end, events.AddTrack(view.process, title + which));
        }
        lanes[lane].first = end;
        const size_t track = lanes[lane].second;
        events.AddSlice(view.process, track, slice.span, NameOf(view, slice),
                        ArgumentsOf(view, slice));
        if (const char phase = FlowOf(view, slice, stage); phase != '\0') {
            events.AddFlow(phase, view.process, track, begin, "frame", view.firstId + slice.frame);
        }
        const Micros wait = view.scene.TimesOf(slice.frame, stage).wait;
        if (wait != NO_TIME && wait > 0) {
            events.AddSlice(view.process, track, {begin, std::min(begin + wait, end)}, "waiting");
        }
    }
}

// What a thread did when it did not sleep.
void WriteThread(Events& events, const View& view, const Scheduling& scheduling, uint32_t thread) {
    const SchedThread& known = scheduling.trace.threads[thread];
    const size_t track =
        events.AddTrack(view.process, fmt::format("thread {} ({})", known.tid, known.name));
    for (const StateSpan& one : AwakeOf(scheduling, thread, view.span)) {
        const bool isRunning = one.state == ThreadState::Running;
        const bool isRunnable = one.state == ThreadState::Runnable;
        events.AddSlice(view.process, track, one,
                        isRunnable ? "waiting for a CPU" : NameOf(one.state),
                        isRunning ? fmt::format(R"(,"args":{{"CPU":{}}})", one.cpu) : "");
    }
}

// From what kept each late frame to the thread of its stage: who was late made the next one late.
// On tracks of their own, as viewers want the slices of a track in order.
void WriteChains(Events& events, const View& view) {
    struct Piece {
        size_t track = 0;
        Span span;
        std::string name;
        char flow = '\0';  // The phase of an arrow that begins or ends in the piece.
        size_t arrow = 0;
    };
    std::vector<Piece> pieces;
    std::map<int32_t, size_t> tracks;  // By the ids of threads.
    for (const SceneFinding& finding : view.scene.findings) {
        if (finding.chain.size() < 2 || !view.Has(finding.time)) {
            continue;
        }
        const CauseLink* woken = nullptr;
        for (const CauseLink& link : finding.chain) {
            const auto [track, isNew] = tracks.try_emplace(link.thread);
            if (isNew) {
                track->second = events.AddTrack(
                    view.process,
                    fmt::format("thread {} ({}), late frames", link.thread, link.name));
            }
            pieces.push_back(
                {track->second,
                 {link.begin, link.begin + link.piece},
                 fmt::format("{} for frame {}", NameOf(link.state), finding.frame.value_or(0))});
            if (woken != nullptr) {
                const Micros end = woken->begin + woken->piece;
                const size_t arrow = events.AddArrow();
                pieces.push_back({track->second, {end - 1, end}, "wakes", 's', arrow});
                pieces.push_back({tracks[woken->thread], {end - 1, end}, "is woken", 'f', arrow});
            }
            woken = &link;
        }
    }
    std::stable_sort(pieces.begin(), pieces.end(), [](const Piece& one, const Piece& other) {
        return std::pair(one.span.begin, other.span.end) <
               std::pair(other.span.begin, one.span.end);
    });
    for (const Piece& piece : pieces) {
        events.AddSlice(view.process, piece.track, piece.span, piece.name);
        if (piece.flow != '\0') {
            events.AddFlow(piece.flow, view.process, piece.track, piece.span.begin, "cause",
                           piece.arrow);
        }
    }
}

// The values by their times. Written is what is different.
void WriteCounter(Events& events, const View& view, std::string_view name,
                  const std::map<Micros, double>& values) {
    double shown = NAN;
    for (const auto& [time, value] : values) {
        if (value != shown && view.Has(time)) {
            events.Add('C', view.process, time, name,
                       fmt::format(R"(,"args":{{"value":{}}})", value));
            shown = value;
        }
    }
}

void WriteCounters(Events& events, const View& view) {
    std::map<Micros, double> inFlight, intervals;
    for (size_t i = 0; i < view.scene.frames.size(); ++i) {
        const Frame& frame = view.scene.frames[i];
        if (frame.start != NO_TIME) {
            // What is still in the table keeps its place; of others it is not known when they went.
            const bool isKnown = frame.end != NO_TIME || frame.evicted != NO_TIME || frame.isHeld;
            ++inFlight[frame.start];
            --inFlight[isKnown && view.gone[i] != NO_TIME ? view.gone[i]
                                                          : SliceOf(view, i).span.end];
        }
        const Fate& fate = view.scene.FateOf(i);
        if (fate.interval != NO_TIME) {
            intervals[fate.output] = static_cast<double>(fate.interval) / 1000;
        }
    }
    double count = 0;
    for (auto& [time, change] : inFlight) {
        change = count += change;
    }
    WriteCounter(events, view, "frames in flight", inFlight);
    WriteCounter(events, view, "output interval (ms)", intervals);
}

// `otherwise`: where a finding stands whose time is not known.
void WriteFindings(Events& events, size_t process, const Account& account,
                   const std::vector<SceneFinding>& findings, Micros otherwise,
                   const View* view = nullptr) {
    std::multimap<Micros, const SceneFinding*> shown;
    for (const SceneFinding& finding : findings) {
        const Micros time = finding.time == NO_TIME ? otherwise : finding.time;
        if (view == nullptr || view->Has(time)) {
            shown.emplace(time, &finding);
        }
    }
    const size_t track = shown.empty() ? 0 : events.AddTrack(process, "findings");
    for (const auto& [time, finding] : shown) {
        const Json arguments{{"severity", NameOf(finding->severity)},
                             {"message", finding->message},
                             {"line", ToString(account, finding->place)}};
        events.Add(
            'i', process, time,
            NameOf(finding->kind) + (finding->frame ? fmt::format(" {}", *finding->frame) : ""),
            fmt::format(R"(,"tid":{},"s":"t","args":{})", track, Text(arguments)));
    }
}

// What the clock of the log showed at a time, in the form of `Account::from`: a date, which may
// lack its year, and a time of day; or seconds.
std::string ClockAt(const Account& account, Micros time) {
    const std::string& from = account.from;
    for (const std::string form : {"%Y-%m-%d %T", "%m-%d %T"}) {
        std::tm date{};
        date.tm_year = 100;  // A leap year.
        const char* const rest = strptime(from.c_str(), form.c_str(), &date);
        if (rest != nullptr && *rest == '.') {
            const int64_t passed = time / MILLISECOND + std::strtol(rest + 1, nullptr, 10);
            return fmt::format(fmt::runtime("{:" + form + "}.{:03}"),
                               fmt::gmtime(timegm(&date) + passed / 1000), passed % 1000);
        }
    }
    return from.empty() ? ""
                        : fmt::format("{:.3f}", std::strtod(from.c_str(), nullptr) +
                                                    static_cast<double>(time) / SECOND);
}

void WriteScene(Events& events, const View& view, const Scheduling* scheduling) {
    events.NameProcess(view.process, TitleOf(view.account, view.process - 1) + ", begins at " +
                                         ClockAt(view.account, view.scene.begin));
    WriteFindings(events, view.process, view.account, view.scene.findings, view.scene.begin, &view);
    WriteExpected(events, view);
    for (const Slice& slice : view.frames) {
        WritePair(events, view, slice, "actual");
    }
    for (int32_t stage = 0; stage < view.scene.stageCount; ++stage) {
        WriteStage(events, view, stage);
        if (scheduling == nullptr) {
            continue;
        }
        for (const ThreadUse& use : scheduling->scenes[view.process - 1].threads) {
            if (!use.stages.empty() && use.stages.front() == stage) {
                WriteThread(events, view, *scheduling, use.thread);
            }
        }
    }
    WriteChains(events, view);
    WriteCounters(events, view);
}

}  // namespace

void WriteTrace(std::ostream& out, const Account& account,
                const std::optional<std::pair<int64_t, int64_t>>& frames,
                const Scheduling* scheduling) {
    Span scenes{NO_TIME, NO_TIME};
    for (const JudgedScene& scene : account.scenes) {
        Include(scenes, scene.begin);
    }
    const Micros origin = scenes.begin == NO_TIME ? 0 : scenes.begin;
    Events events(out, origin);
    out << "{\"traceEvents\":[\n";
    size_t firstId = 1;
    for (size_t s = 0; s < account.scenes.size(); ++s) {
        const View view = ViewOf(account, s, firstId, frames);
        firstId += view.scene.frames.size();
        if (view.scene.begin != NO_TIME && (!view.isPart || !view.frames.empty())) {
            WriteScene(events, view, scheduling);
        }
    }
    if (!account.findings.empty()) {
        const size_t process = account.scenes.size() + 1;
        events.NameProcess(process, "the capture as a whole");
        WriteFindings(events, process, account, account.findings, origin);
    }
    const Json about{{"inputs", account.inputs}, {"clock at 0", ClockAt(account, origin)}};
    out << "\n],\"otherData\":" << Text(about) << "}\n";
}

}  // namespace tools
