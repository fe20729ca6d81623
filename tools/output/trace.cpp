// The account as a trace, in Chrome's JSON form.

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "tools/output/outputs.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

// Numbers of frames may be anything: those farther apart have nothing to do with one another.
constexpr int64_t FAR_APART = 1000;
// So many frames before and after one that is remarkable have arrows as well.
constexpr size_t NEAR = 5;

// An arrow begins (s), goes on (t) or ends (f) in a slice.
struct Arrow {
    char phase = '\0';  // '\0': there is none.
    std::string_view name{};
    size_t id = 0;
};

// What stands on a track for some time.
struct Slice {
    size_t track = 0;
    Span span;
    std::string name{};
    Json arguments{};
    Arrow arrow{};
};

// The one place that knows the form: an event a line.
class Events {
  public:
    Events(std::ostream& stream, Micros zero) : out(stream), origin(zero) {}

    // All that is added from here on belongs to it.
    void BeginProcess(size_t number, const std::string& name) {
        process = number;
        Name("process", "", name, number);
    }

    size_t AddTrack(const std::string& name) {
        ++tracks;
        Name("thread", fmt::format(R"(,"tid":{})", tracks), name, tracks);
        return tracks;
    }

    size_t AddArrow() { return ++arrows; }

    void Add(const Slice& slice) {
        const auto& [track, span, name, arguments, arrow] = slice;
        Add('X', span.begin, name, fmt::format(R"(,"tid":{},"dur":{})", track, span.Length()),
            arguments);
        if (arrow.phase != '\0') {
            Add(arrow.phase, span.begin, arrow.name,
                fmt::format(R"(,"tid":{},"cat":"{}","id":{}{})", track, arrow.name, arrow.id,
                            arrow.phase == 's' ? "" : R"(,"bp":"e")"));
        }
    }

    // Frames overlap: viewers put all events of a name on one track, however many it takes. So the
    // name is the same for all frames, and what is to be said of a frame is an event within its
    // own. `remark`: where it has no arguments there is none.
    void AddFrame(std::string_view name, size_t id, int64_t number, const Slice& remark) {
        const std::string which = fmt::format(R"(,"cat":"{}","id":{})", name, id);
        const Span span = remark.span;
        Add('b', span.begin, name, which, {{"frame", number}});
        if (!remark.arguments.is_null()) {
            Add('b', span.begin, remark.name, which, remark.arguments);
            Add('e', span.end, remark.name, which);
        }
        Add('e', span.end, name, which);
    }

    void AddMoment(size_t track, Micros time, std::string_view name, const Json& arguments) {
        Add('i', time, name, fmt::format(R"(,"tid":{},"s":"t")", track), arguments);
    }

    void AddValue(std::string_view counter, Micros time, double value) {
        Add('C', time, counter, "", {{"value", value}});
    }

    // Names come from captures, which hold any bytes; JSON holds UTF-8.
    static std::string Text(const Json& json) {
        return json.dump(-1, ' ', false, Json::error_handler_t::replace);
    }

  private:
    // `more`: further members, with a comma before each.
    void Add(char phase, Micros time, std::string_view name, std::string_view more,
             const Json& arguments = {}) {
        // What was before the first scene is shown at its beginning.
        out << fmt::format(R"({}{{"ph":"{}","pid":{},"ts":{},"name":{}{})", separator, phase,
                           process, std::max<Micros>(time - origin, 0), Text(name), more)
            << (arguments.is_null() ? "" : ",\"args\":" + Text(arguments)) << '}';
        separator = ",\n";
    }

    void Name(const std::string& kind, std::string_view which, const std::string& name,
              size_t order) {
        Add('M', origin, kind + "_name", which, {{"name", name}});
        Add('M', origin, kind + "_sort_index", which, {{"sort_index", order}});
    }

    std::ostream& out;
    Micros origin;
    std::string_view separator;
    size_t process = 0, tracks = 0, arrows = 0;
};

// What is shown of a scene.
struct View {
    const Account& account;
    const JudgedScene& scene;
    // Only these frames are shown, with all that is known of them; without it, all frames.
    const std::optional<std::pair<int64_t, int64_t>>& range;
    size_t firstId = 0;             // Of its frames, which count from here.
    std::vector<Span> stays{};      // Of each pass when the frame was in the stage, and
    std::vector<Span> lives{};      // of each row from the first to the last that is known of the
                                    // frame. These begin with NO_TIME where there is none.
    std::vector<bool> hasArrows{};  // Of each row.
    Span span{NO_TIME, NO_TIME};    // In which things are shown that are no frame's.

    const Span& StayOf(size_t row, int32_t stage) const {
        return stays[row * static_cast<size_t>(scene.stageCount) + static_cast<size_t>(stage)];
    }
    bool Has(size_t row) const {
        return lives[row].begin != NO_TIME && Shown{true, range}.Has(scene, row);
    }
    bool HasTime(Micros time) const {
        return time != NO_TIME && (!range || (time >= span.begin && time <= span.end));
    }
    bool IsRemarkable(size_t row) const {
        return HarmOf(scene.FateOf(row)) != Harm::None || scene.frames[row].trouble.line != 0;
    }
};

// Makes a span that begins with NO_TIME hold the moment, where that is known.
void Include(Span& span, Micros time) {
    if (time != NO_TIME) {
        span.begin = span.begin == NO_TIME ? time : std::min(span.begin, time);
        span.end = std::max(span.end, time);  // NO_TIME is the least of all times.
    }
}

// When a frame went. It stays until it was ended or pushed out, or as long as the scene is known to
// have gone on. NO_TIME where that is not known.
Micros GoneOf(const JudgedScene& scene, size_t row) {
    const Frame& frame = scene.frames[row];
    if (frame.end != NO_TIME || scene.FateOf(row).isUnknown) {
        return frame.end;
    }
    return frame.evicted != NO_TIME ? frame.evicted : scene.stop;
}

Span StayOf(const JudgedScene& scene, size_t row, int32_t stage) {
    const StageTimes times = scene.TimesOf(row, stage);
    const Micros gone = GoneOf(scene, row);
    const bool stands = !scene.FateOf(row).isOut && times.start != NO_TIME && gone != NO_TIME &&
                        stage == scene.NextStage(row);
    Span stay{NO_TIME, NO_TIME};
    if (stands || scene.PassOf(row, stage).HasLeft()) {
        Include(stay, times.start);
        Include(stay, stands ? gone : times.end);
    }
    return stay;
}

View ViewOf(const Account& account, const JudgedScene& scene,
            const std::optional<std::pair<int64_t, int64_t>>& range, size_t firstId) {
    View view{account, scene, range, firstId};
    view.hasArrows.assign(scene.frames.size(), range.has_value());
    for (size_t row = 0; row < scene.frames.size(); ++row) {
        const Fate& fate = scene.FateOf(row);
        for (size_t near = row - std::min(row, NEAR);
             view.IsRemarkable(row) && near < std::min(row + NEAR + 1, scene.frames.size());
             ++near) {
            view.hasArrows[near] = true;
        }
        Span life{NO_TIME, NO_TIME};
        Include(life, scene.frames[row].start);
        Include(life, scene.frames[row].end);
        Include(life, fate.isOut ? fate.output : NO_TIME);
        for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
            view.stays.push_back(StayOf(scene, row, stage));
            Include(life, view.stays.back().begin);
            Include(life, view.stays.back().end);
        }
        view.lives.push_back(life);
        if (view.Has(row)) {
            Include(view.span, life.begin);
            // A frame that never came out may stand there for long.
            Include(view.span, fate.isNeverOut ? NO_TIME : life.end);
        }
    }
    return view;
}

// The frame's slice. Good frames stay quiet: the viewer gives equal words equal colours.
Slice SliceOf(const View& view, size_t row, Span span, bool hasLeft) {
    const Frame& frame = view.scene.frames[row];
    const Fate& fate = view.scene.FateOf(row);
    const std::string_view word = WordOf(fate);
    Slice slice{.span = span,
                .name = fmt::format("{}{}{}", frame.number, word.empty() ? "" : " ", word)};
    if (!view.range && !view.IsRemarkable(row) && word.empty()) {
        return slice;
    }
    slice.arguments = {{"status", NameOf(fate.status)}, {"late", fate.isLate}};
    if (const std::string reason = DescriptionOf(fate); !reason.empty()) {
        slice.arguments["reason"] = reason;
    }
    if (!hasLeft) {
        slice.arguments["left"] = "never";
        if (frame.end != NO_TIME) {
            slice.arguments["left"] = "never; until it was ended";
        } else if (frame.evicted != NO_TIME) {
            slice.arguments["left"] = "never; until it was pushed out";
        }
    }
    slice.arguments["line"] = ToString(view.account, frame.place);
    return slice;
}

// A frame is due so many periods after the last one that came out as numbers are between the two.
void WriteFrames(Events& events, const View& view) {
    const JudgedScene& scene = view.scene;
    std::optional<size_t> before;  // The last one that came out.
    for (size_t row = 0; row < scene.frames.size(); ++row) {
        const int64_t number = scene.frames[row].number;
        const int64_t steps = before ? StepOf(scene.frames[*before].number, number) : 0;
        if (view.Has(row)) {
            const Span life = view.lives[row];
            if (steps > 0 && steps < FAR_APART) {
                const Micros due = scene.FateOf(*before).output + scene.Period() * steps;
                events.AddFrame("expected", view.firstId + row, number,
                                {.span = {life.begin, std::max(life.begin, due)}});
            }
            events.AddFrame("actual", view.firstId + row, number, SliceOf(view, row, life, true));
        }
        before = scene.FateOf(row).isOut ? row : before;
    }
}

// What the slice of a frame in a stage has of the arrow that goes through all slices of the frame.
Arrow ArrowOf(const View& view, size_t row, int32_t stage) {
    bool isFirst = true, isLast = true;
    for (int32_t other = 0; other < view.scene.stageCount; ++other) {
        const Micros begin = view.StayOf(row, other).begin;
        if (begin != NO_TIME && other != stage) {
            const bool isBefore =
                std::pair(begin, other) < std::pair(view.StayOf(row, stage).begin, stage);
            (isBefore ? isFirst : isLast) = false;
        }
    }
    if (!view.hasArrows[row] || (isFirst && isLast)) {
        return {};
    }
    const char behind = isLast ? 'f' : 't';
    return {isFirst ? 's' : behind, "frame", view.firstId + row};
}

void WriteStage(Events& events, const View& view, int32_t stage) {
    const JudgedScene& scene = view.scene;
    std::vector<size_t> rows;
    for (size_t row = 0; row < scene.frames.size(); ++row) {
        if (view.Has(row) && view.StayOf(row, stage).begin != NO_TIME) {
            rows.push_back(row);
        }
    }
    // Frames that are still there come last, so that they leave the first track to those that move.
    // What encloses goes before what it encloses.
    std::ranges::sort(rows, {}, [&](size_t row) {
        const Span stay = view.StayOf(row, stage);
        return std::tuple(!scene.PassOf(row, stage).HasLeft(), stay.begin, -stay.end, row);
    });
    // Frames that overlap are spread over as few tracks as it takes.
    std::vector<std::pair<Micros, size_t>> lanes;  // When each is free again, and its track.
    for (const size_t row : rows) {
        const Span stay = view.StayOf(row, stage);
        auto lane = std::ranges::find_if(
            lanes, [&stay](const auto& one) { return one.first <= stay.begin; });
        if (lane == lanes.end()) {
            const std::string which = lanes.empty() ? "" : fmt::format(" ({})", lanes.size() + 1);
            const std::string title = StageTitleOf(scene, static_cast<size_t>(stage));
            lane = lanes.insert(lane, {0, events.AddTrack(title + which)});
        }
        lane->first = stay.end;
        Slice slice = SliceOf(view, row, stay, scene.PassOf(row, stage).HasLeft());
        slice.track = lane->second;
        slice.arrow = ArrowOf(view, row, stage);
        events.Add(slice);
        if (const Micros wait = scene.TimesOf(row, stage).wait; wait > 0) {
            events.Add(
                {slice.track, {stay.begin, std::min(stay.begin + wait, stay.end)}, "waiting"});
        }
    }
}

// What a thread did when it did not sleep.
void WriteThread(Events& events, const View& view, const Scheduling& scheduling, uint32_t thread) {
    const SchedThread& known = scheduling.trace.threads[thread];
    const size_t track = events.AddTrack(fmt::format("thread {} ({})", known.tid, known.name));
    for (const StateSpan& one : AwakeOf(scheduling, thread, view.span)) {
        const bool isRunnable = one.state == ThreadState::Runnable;
        events.Add({track, one, isRunnable ? "waiting for a CPU" : NameOf(one.state),
                    one.state == ThreadState::Running ? Json{{"CPU", one.cpu}} : Json()});
    }
}

// From what kept each late frame to the thread of its stage: who was late made the next one late.
// On tracks of their own, as viewers want the slices of a track in order.
void WriteChains(Events& events, const View& view) {
    std::vector<Slice> slices;
    std::map<int32_t, size_t> tracks;  // By the ids of threads.
    for (const SceneFinding& finding : view.scene.findings) {
        if (finding.chain.size() < 2 || !view.HasTime(finding.time)) {
            continue;
        }
        const CauseLink* woken = nullptr;
        for (const CauseLink& link : finding.chain) {
            const auto [track, isNew] = tracks.try_emplace(link.thread);
            if (isNew) {
                track->second = events.AddTrack(
                    fmt::format("thread {} ({}), late frames", link.thread, link.name));
            }
            slices.push_back(
                {track->second,
                 {link.begin, link.begin + link.piece},
                 fmt::format("{} for frame {}", NameOf(link.state), finding.frame.value_or(0))});
            if (woken != nullptr) {
                const Micros end = woken->begin + woken->piece;
                const size_t arrow = events.AddArrow();
                slices.push_back(
                    {track->second, {end - 1, end}, "wakes", {}, {'s', "cause", arrow}});
                slices.push_back(
                    {tracks[woken->thread], {end - 1, end}, "is woken", {}, {'f', "cause", arrow}});
            }
            woken = &link;
        }
    }
    std::ranges::stable_sort(slices, {}, [](const Slice& slice) {
        return std::pair(slice.span.begin, -slice.span.end);
    });
    for (const Slice& slice : slices) {
        events.Add(slice);
    }
}

// Writes values by their times, where they differ from the one before.
void WriteCounter(Events& events, const View& view, std::string_view name,
                  const std::map<Micros, double>& values) {
    std::optional<double> shown;
    for (const auto& [time, value] : values) {
        if (value != shown && view.HasTime(time)) {
            events.AddValue(name, time, value);
            shown = value;
        }
    }
}

void WriteCounters(Events& events, const View& view) {
    std::map<Micros, double> inFlight, intervals;
    for (size_t row = 0; row < view.scene.frames.size(); ++row) {
        const Frame& frame = view.scene.frames[row];
        if (frame.start != NO_TIME) {
            // What is still in the table keeps its place; of others it is not known when they went.
            const bool isKnown = frame.end != NO_TIME || frame.evicted != NO_TIME || frame.isHeld;
            const Micros gone = isKnown ? GoneOf(view.scene, row) : NO_TIME;
            ++inFlight[frame.start];
            --inFlight[gone != NO_TIME ? gone : view.lives[row].end];
        }
        const Fate& fate = view.scene.FateOf(row);
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

// `otherwise`: where a finding stands whose time is not known. `view`: null for all.
void WriteFindings(Events& events, const Account& account,
                   const std::vector<SceneFinding>& findings, Micros otherwise, const View* view) {
    std::multimap<Micros, const SceneFinding*> shown;
    for (const SceneFinding& finding : findings) {
        const Micros time = finding.time == NO_TIME ? otherwise : finding.time;
        if (view == nullptr || view->HasTime(time)) {
            shown.emplace(time, &finding);
        }
    }
    const size_t track = shown.empty() ? 0 : events.AddTrack("findings");
    for (const auto& [time, finding] : shown) {
        events.AddMoment(
            track, time,
            NameOf(finding->kind) + (finding->frame ? fmt::format(" {}", *finding->frame) : ""),
            {{"severity", NameOf(finding->severity)},
             {"message", finding->message},
             {"line", ToString(account, finding->place)}});
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
    Span scenes{NO_TIME, NO_TIME};
    for (const JudgedScene& scene : account.scenes) {
        Include(scenes, scene.begin);
    }
    const Micros origin = scenes.begin == NO_TIME ? 0 : scenes.begin;
    Events events(out, origin);
    out << "{\"traceEvents\":[\n";
    size_t firstId = 1;
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        const JudgedScene& scene = account.scenes[i];
        const View view = ViewOf(account, scene, frames, firstId);
        firstId += scene.frames.size();
        if (scene.begin == NO_TIME || (frames && view.span.begin == NO_TIME)) {
            continue;
        }
        events.BeginProcess(i + 1,
                            TitleOf(account, i) + ", begins at " + ClockAt(account, scene.begin));
        WriteFindings(events, account, scene.findings, scene.begin, &view);
        WriteFrames(events, view);
        std::span<const ThreadUse> threads;
        if (scheduling != nullptr) {
            threads = scheduling->scenes[i].threads;
        }
        for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
            WriteStage(events, view, stage);
            for (const ThreadUse& use : threads) {
                if (!use.stages.empty() && use.stages.front() == stage) {
                    WriteThread(events, view, *scheduling, use.thread);
                }
            }
        }
        WriteChains(events, view);
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
