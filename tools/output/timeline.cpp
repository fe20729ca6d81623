// The part of the page that a script draws: the frames of all scenes, and their threads, as tracks.

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/base/text.h"
#include "tools/output/outputs.h"

namespace tools {
namespace {

// Things of a kind on a track. What each shows and says of itself is in page.js, under `shape`.
struct Layer {
    const char* shape;
    std::string text;               // What is read of a thing: {} is its level, else its length.
    std::vector<Micros> times{};    // When each began, and when it ended.
    std::vector<int64_t> values{};  // The row of the frame that it is; of flights and durations,
                                    // its level.

    void Add(Micros begin, Micros end, int64_t value = 0) {
        times.insert(times.end(), {begin, end});
        values.push_back(value);
    }
};

// A column of numbers, times in microseconds for example, each as the step from the last one that
// is known, at first from `origin`; null where it is not known. So they take little room.
Json StepsOf(int64_t origin, const std::vector<int64_t>& values) {
    Json steps = Json::array();
    for (const int64_t value : values) {
        steps.push_back(value == NO_TIME ? Json() : Json(value - origin));
        origin = value == NO_TIME ? origin : value;
    }
    return steps;
}

// `id`: unique among the tracks of a scene. `name`: empty for one that belongs to the one above it.
// `height`: in pixels.
Json TrackOf(const JudgedScene& scene, const std::string& id, const std::string& name, int height,
             const std::vector<Layer>& layers) {
    Json packed = Json::array();
    for (const Layer& layer : layers) {
        packed.push_back({{"shape", layer.shape},
                          {"text", layer.text},
                          {"times", StepsOf(scene.begin, layer.times)},
                          {"values", StepsOf(0, layer.values)}});
    }
    return {{"id", id}, {"name", name}, {"height", height}, {"layers", packed}};
}

double Seconds(Micros time) {
    return static_cast<double>(time) / 1e6;
}

// The numbers of frames, as the first of each run of consecutive ones, in text as they may be
// larger than a script's numbers, and how many there are; what became of each frame; and when it
// came out, else when it was last heard of.
Json FramesOf(const JudgedScene& scene) {
    std::vector<int64_t> numbers, moments;
    Json runs = Json::array(), words = Json::array();
    for (size_t row = 0; row < scene.frames.size(); ++row) {
        const Fate& fate = scene.FateOf(row);
        numbers.push_back(scene.frames[row].number);
        moments.push_back(fate.isOut ? fate.output : scene.LastOf(row).time);
        words.push_back(WordsOf(fate));
    }
    for (const FrameRange& run : RangesOf(numbers)) {
        runs.push_back({std::to_string(run.first), run.last - run.first + 1});
    }
    return {{"numbers", runs}, {"words", words}, {"moments", StepsOf(scene.begin, moments)}};
}

// Findings, each a layer of its own, in their order.
Json FindingsOf(const JudgedScene& scene) {
    std::vector<Layer> layers;
    for (const SceneFinding& finding : scene.findings) {
        const uint32_t row = finding.frame ? scene.RowOf(*finding.frame) : NO_INDEX;
        layers.push_back({NameOf(SeverityOf(finding)), finding.message});
        layers.back().Add(finding.at.time, finding.at.time, row == NO_INDEX ? -1 : int64_t{row});
    }
    return TrackOf(scene, "findings", "findings", 24, layers);
}

// Frames as they came out, each from when the one before it did.
Json OutputsOf(const JudgedScene& scene) {
    Layer good{"output", "came out {} after the one before"}, late{"late", good.text};
    Micros before = NO_TIME;
    for (const uint32_t row : scene.columns.outputs) {
        if (const Fate& fate = scene.FateOf(row); fate.isOut) {
            (fate.isLate ? late : good).Add(before, fate.output, row);
            before = fate.output;
        }
    }
    return TrackOf(scene, "output", "output", 34, {good, late});
}

// How many frames were in flight.
Json FlightOf(const JudgedScene& scene) {
    Layer flight{"flight", "{} frames in flight"};
    Micros since = scene.begin;
    int64_t flying = 0;
    for (const auto& [time, count] : InFlightOf(scene)) {
        flight.Add(since, time, flying);
        since = time;
        flying = count;
    }
    return TrackOf(scene, "flight", "in flight", 34, {flight});
}

// Adds what a stage did, and which frames waited for it meanwhile.
void AddStage(Json& tracks, const JudgedScene& scene, int32_t stage) {
    const Columns& columns = scene.columns;
    // The sensor has no queue: it delivers one frame after the other.
    Layer work = stage == 0 ? Layer{"since", "stage 0: {} since the frame before"}
                            : Layer{"work", fmt::format("stage {} took {{}}", stage)};
    Layer wait{"wait", fmt::format("waited {{}} for stage {}", stage)};
    Layer stands{"stands", fmt::format("never seen to leave stage {}", stage)};
    const bool isLeft = stage < columns.stages && !scene.isAlone;
    for (const uint32_t row : isLeft ? columns.order[stage] : std::vector<uint32_t>()) {
        const Micros came = stage == 0 ? NO_TIME : scene.ArrivalOf(row, stage);
        const Micros begun = std::max(columns.begin[columns.PassOf(row, stage)], came);
        work.Add(begun, scene.LeftOf(row, stage), row);
        if (came != NO_TIME && came < begun) {
            wait.Add(came, begun, row);
        }
    }
    // Where others passed it, it is not known when it went.
    for (const auto& [number, lost] : columns.lost) {
        if (const uint32_t row = scene.RowOf(number); row != NO_INDEX && lost.stage == stage) {
            const bool isPassed = lost.how == Lost::How::Dropped || lost.how == Lost::How::Passed;
            const Micros until = isPassed ? lost.since + scene.Period() : GoneOf(scene, row);
            stands.Add(lost.since, std::max(until, lost.since), row);
        }
    }
    const std::string id = std::to_string(stage);
    tracks.push_back(TrackOf(scene, id, id + ' ' + scene.stageNames[static_cast<size_t>(stage)], 28,
                             {work, stands}));
    tracks.push_back(TrackOf(scene, "queue " + id, "", 8, {wait}));
}

std::string IdOf(int32_t thread) {
    return fmt::format("thread {}", thread);
}

// What a thread did when it did not sleep.
Json ThreadOf(const JudgedScene& scene, const DrawnThread& drawn) {
    std::vector<Layer> layers;
    for (const StateSpan& span : drawn.awake) {
        const bool hasCpu =
            span.state == ThreadState::Running || span.state == ThreadState::Runnable;
        const std::string text = fmt::format("{} for {{}}{}", NameOf(span.state),
                                             hasCpu ? fmt::format(", CPU {}", span.cpu) : "");
        auto layer = std::ranges::find(layers, text, &Layer::text);
        layer = layer == layers.end() ? layers.insert(layer, {NameOf(span.state), text}) : layer;
        layer->Add(span.begin, span.end);
    }
    std::ranges::sort(layers, {}, &Layer::text);
    const auto& [tid, name] = drawn.thread;
    return TrackOf(scene, IdOf(tid), fmt::format("{} {}", tid, name), 20, layers);
}

// The clock of the log: what it showed when the capture began, as text, and, from each time on at
// which it was set, what it showed when the scene began or would have, in seconds. Each step once,
// whichever scenes it fell into.
Json ClockOf(const Account& account, const JudgedScene& scene) {
    std::map<Micros, Micros> steps = {{0, account.clock + scene.begin}};
    for (const JudgedScene& any : account.scenes) {
        for (const Scene::Disturbance& step : any.clockSteps) {
            steps[step.time] = step.amount;
        }
    }
    Json clocks = Json::array();
    Micros clock = 0;
    for (const auto& [time, step] : steps) {
        clocks.push_back({Seconds(time - scene.begin), Seconds(clock += step)});
    }
    // Where it was set between scenes, by how much is not kept.
    const bool isUnknown = std::ranges::any_of(account.findings, [&](const SceneFinding& finding) {
        return KindOf(finding.what) == Kind::ClockJump && finding.at.time <= scene.begin;
    });
    return {{"from", isUnknown ? "" : account.from}, {"clocks", clocks}};
}

// `scheduling`: null where there is no scheduler trace.
Json SceneOf(const Account& account, size_t index, const Scheduling* scheduling) {
    const JudgedScene& scene = account.scenes[index];
    const std::vector<DrawnThread> threads =
        DrawnThreadsOf(account, scheduling, index, {scene.begin, scene.end});
    Json tracks = {FindingsOf(scene), OutputsOf(scene), FlightOf(scene)};
    for (int32_t stage = 0; stage <= scene.stageCount; ++stage) {
        const bool isStage = stage < scene.stageCount;  // Else those that kept the pipeline's come.
        if (isStage) {
            AddStage(tracks, scene, stage);
        }
        for (const DrawnThread& thread : threads) {
            if (thread.stage == (isStage ? stage : -1)) {
                tracks.push_back(ThreadOf(scene, thread));
            }
        }
    }
    // Who woke whom, where that made a frame late.
    Json wakes = Json::array();
    for (const SceneFinding& finding : scene.findings) {
        for (size_t i = 1; i < finding.chain.size(); ++i) {
            const CauseLink& woken = finding.chain[i - 1];
            wakes.push_back({{"time", Seconds(woken.begin + woken.piece - scene.begin)},
                             {"from", IdOf(finding.chain[i].thread)},
                             {"to", IdOf(woken.thread)}});
        }
    }
    // A replay may take no time.
    return {{"stop", Seconds(std::max(scene.stop - scene.begin, scene.Period()))},
            {"clock", ClockOf(account, scene)},
            {"frames", FramesOf(scene)},
            {"tracks", tracks},
            {"wakes", wakes}};
}

}  // namespace

void WriteTimeline(std::ostream& out, const Account& account, const Scheduling* scheduling) {
    Json scenes;
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        const JudgedScene& scene = account.scenes[i];
        if (scene.columns.isMixed || scene.frames.empty()) {
            continue;
        }
        // Names come from captures, which hold any bytes; JSON holds UTF-8.
        const std::string text =
            SceneOf(account, i, scheduling).dump(-1, ' ', true, Json::error_handler_t::replace);
        scenes.push_back(
            {{"scene", i + 1}, {"title", TitleOf(account, i)}, {"data", Base64(Packed(text))}});
    }
    if (!scenes.empty()) {
        // Nothing that a capture names stands there as it is, so there is no markup in it.
        out << "<section id=timeline><h2>Timeline</h2>\n<script type=\"application/json\" id=data>"
            << scenes << "</script>\n</section>\n";
    }
}

}  // namespace tools
