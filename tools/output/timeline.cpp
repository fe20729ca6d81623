// The part of the page that a script draws: the frames of all scenes, and their threads, as data.

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/base/text.h"
#include "tools/output/outputs.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

constexpr Micros PARTS = 200;  // Of a scene, in the overview.

// A column of numbers, times in microseconds for example, each as the step from the last one that
// is known, at first from `origin`; null where it is not known. So they take little room.
template <typename All, typename ValueOf = std::identity>
Json StepsOf(int64_t origin, const All& all, ValueOf valueOf = {}) {
    Json steps = Json::array();
    for (const auto& one : all) {
        const int64_t value = valueOf(one);
        steps.push_back(value == NO_TIME ? Json() : Json(value - origin));
        origin = value == NO_TIME ? origin : value;
    }
    return steps;
}

double Seconds(Micros time) {
    return static_cast<double>(time) / 1e6;
}

// A replay may take no time.
Micros LengthOf(const JudgedScene& scene) {
    return std::max(scene.stop - scene.begin, scene.Period());
}

// The numbers of frames, as the first of each run of consecutive ones, in text as they may be
// larger than a script's numbers, and how many there are; what became of each frame; and when it
// came out, else when it was last heard of.
Json FramesOf(const JudgedScene& scene) {
    std::vector<int64_t> numbers;
    std::vector<Micros> moments;
    Json runs = Json::array(), words = Json::array();
    for (size_t row = 0; row < scene.frames.size(); ++row) {
        const Fate& fate = scene.FateOf(row);
        numbers.push_back(scene.frames[row].number);
        moments.push_back(fate.isOut ? fate.output : scene.LastOf(row).second);
        words.push_back(fmt::format("{}{}{}{}", NameOf(fate.status), fate.isLate ? ", late" : "",
                                    fate.isNeverOut ? ", never out" : "",
                                    fate.isUnknown ? ", lines missing" : ""));
    }
    for (const FrameRange& run : RangesOf(numbers)) {
        runs.push_back({std::to_string(run.first), run.last - run.first + 1});
    }
    return {{"numbers", runs}, {"words", words}, {"moments", StepsOf(scene.begin, moments)}};
}

// A frame that never came out, in the stage in which it was last: until a later one passed it,
// until it was ended, or as long as the scene went on.
Json StandOf(const JudgedScene& scene, const Lost& lost, uint32_t row,
             const std::vector<uint32_t>& order) {
    const auto leftOf = [&](uint32_t other) { return scene.LeftOf(other, lost.stage); };
    const auto later = std::partition_point(
        order.begin(), order.end(), [&](uint32_t other) { return leftOf(other) <= lost.since; });
    const auto passed =
        std::find_if(later, order.end(), [row](uint32_t other) { return other > row; });
    const Micros end = scene.frames[row].end;
    const Micros over = end == NO_TIME ? scene.stop : std::max(end, lost.since);
    const Micros until = passed == order.end() ? over : leftOf(*passed);
    return {{"frame", row},
            {"since", Seconds(lost.since - scene.begin)},
            {"until", Seconds(until - scene.begin)}};
}

// The frames of a stage in the order in which they left it: when each left, how long it had waited,
// and how long the stage had worked on it; those that never left; and for an overview, of each part
// of the scene in which frames left, the median and the 95th percentile of how long they had been
// in the stage. Adds the percentiles to `highs`.
Json StageOf(const JudgedScene& scene, int32_t stage, std::vector<Micros>& highs) {
    const Columns& columns = scene.columns;
    const bool isLeft = stage < columns.stages && !scene.isAlone;
    const auto order = isLeft ? columns.order[stage] : std::vector<uint32_t>();
    const auto beginOf = [&](uint32_t row) { return columns.begin[columns.PassOf(row, stage)]; };
    // The sensor has no queue: it delivers one frame after the other.
    const auto cameOf = [&](uint32_t row) {
        const Micros came = stage == 0 ? beginOf(row) : scene.ArrivalOf(row, stage);
        return came == NO_TIME ? scene.frames[row].start : came;
    };
    const auto begunOf = [&](uint32_t row) { return std::max(beginOf(row), cameOf(row)); };
    const auto waitOf = [&](uint32_t row) { return begunOf(row) - cameOf(row); };
    const auto leftOf = [&](uint32_t row) { return scene.LeftOf(row, stage); };
    const auto workOf = [&](uint32_t row) {
        return begunOf(row) == NO_TIME ? NO_TIME : leftOf(row) - begunOf(row);
    };
    Json stands = Json::array(), parts = Json::array();
    for (const auto& [number, lost] : columns.lost) {
        if (const uint32_t row = scene.RowOf(number); row != NO_INDEX && lost.stage == stage) {
            stands.push_back(StandOf(scene, lost, row, order));
        }
    }
    std::map<Micros, std::vector<Micros>> stays;
    for (const uint32_t row : order) {
        if (cameOf(row) != NO_TIME) {
            const Micros part = (leftOf(row) - scene.begin) * PARTS / LengthOf(scene);
            stays[std::min(part, PARTS - 1)].push_back(leftOf(row) - cameOf(row));
        }
    }
    for (auto& [part, times] : stays) {
        highs.push_back(QuantileOf(times, 0.95, 0));
        parts.push_back({{"part", part}, {"median", MedianOf(times, 0)}, {"high", highs.back()}});
    }
    return {{"name", scene.stageNames[static_cast<size_t>(stage)]},
            {"frames", StepsOf(0, order)},
            {"left", StepsOf(scene.begin, order, leftOf)},
            {"waits", StepsOf(0, order, waitOf)},
            {"works", StepsOf(0, order, workOf)},
            {"stands", stands},
            {"parts", parts}};
}

// Frames in the order in which they came out, and the places therein of those that came late.
Json OutputsOf(const JudgedScene& scene) {
    std::vector<uint32_t> frames;
    Json late = Json::array();
    for (const uint32_t row : scene.columns.outputs) {
        const Fate& fate = scene.FateOf(row);
        if (fate.isOut && fate.isLate && !frames.empty()) {
            late.push_back(frames.size());
        }
        if (fate.isOut) {
            frames.push_back(row);
        }
    }
    return {{"frames", StepsOf(0, frames)}, {"late", late}};
}

// How many frames were in flight, from each time on.
Json FlightOf(const JudgedScene& scene) {
    const std::map<Micros, int64_t> all = InFlightOf(scene);
    Json counts = Json::array();
    for (const auto& [time, count] : all) {
        counts.push_back(count);
    }
    const auto timeOf = [](const auto& one) { return one.first; };
    return {{"times", StepsOf(scene.begin, all, timeOf)}, {"counts", counts}};
}

// What the log's clock showed at the capture's begin, and when it was set, since the scene's begin,
// and by how much; each step once, whichever scenes it fell into.
Json ClockOf(const Account& account, const JudgedScene& scene) {
    std::map<double, double> steps;
    for (const JudgedScene& any : account.scenes) {
        for (const Scene::Disturbance& step : any.clockSteps) {
            steps[Seconds(step.time - scene.begin)] = Seconds(step.amount);
        }
    }
    // Where it was set between scenes, by how much is not kept.
    const bool isKnown = std::none_of(
        account.findings.begin(), account.findings.end(), [&](const SceneFinding& finding) {
            return finding.kind == Kind::ClockJump && finding.time <= scene.begin;
        });
    return {{"from", isKnown ? account.from : ""}, {"steps", steps}};
}

// What a thread did when it did not sleep: from when to when, in which state, and on which CPU.
Json ThreadOf(const JudgedScene& scene, const Scheduling& scheduling, uint32_t thread,
              int32_t stage) {
    const StateSpans all = AwakeOf(scheduling, thread, {scene.begin, scene.end});
    Json states = Json::array(), cpus = Json::array();
    for (const StateSpan& one : all) {
        states.push_back(NameOf(one.state));
        cpus.push_back(one.cpu);
    }
    const SchedThread& known = scheduling.trace.threads[thread];
    return {{"stage", stage},
            {"id", known.tid},
            {"name", known.name},
            {"begin", StepsOf(scene.begin, all, [](const StateSpan& one) { return one.begin; })},
            {"end", StepsOf(scene.begin, all, [](const StateSpan& one) { return one.end; })},
            {"states", states},
            {"cpus", cpus}};
}

// The threads of a scene: the pipeline's with the first of their stages, and those that kept them.
Json ThreadsOf(const Account& account, const Scheduling* scheduling, size_t scene) {
    Json threads = Json::array();
    for (const DrawnThread& one : DrawnThreadsOf(account, scheduling, scene)) {
        threads.push_back(ThreadOf(account.scenes[scene], *scheduling, one.thread, one.stage));
    }
    return threads;
}

// Who woke whom, where that made a frame late: when, and the threads.
Json WakesOf(const JudgedScene& scene) {
    Json wakes = Json::array();
    for (const SceneFinding& finding : scene.findings) {
        for (size_t i = 0; i + 1 < finding.chain.size(); ++i) {
            const CauseLink& link = finding.chain[i];
            wakes.push_back({{"time", Seconds(link.begin + link.piece - scene.begin)},
                             {"from", finding.chain[i + 1].thread},
                             {"to", link.thread}});
        }
    }
    return wakes;
}

}  // namespace

void WriteTimeline(std::ostream& out, const Account& account, const Scheduling* scheduling) {
    Json scenes;
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        const JudgedScene& scene = account.scenes[i];
        if (scene.columns.isMixed || scene.frames.empty()) {
            continue;
        }
        Json stages = Json::array();
        std::vector<Micros> highs;
        for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
            stages.push_back(StageOf(scene, stage, highs));
        }
        const Json data = {{"begin", Seconds(scene.begin)},
                           {"stop", Seconds(LengthOf(scene))},
                           {"clock", ClockOf(account, scene)},
                           {"parts", PARTS},
                           {"period", 1.0 / scene.Rate()},
                           {"frames", FramesOf(scene)},
                           {"stages", stages},
                           {"top", QuantileOf(highs, 0.98, 1)},  // Stays seldom exceed it.
                           {"outputs", OutputsOf(scene)},
                           {"flight", FlightOf(scene)},
                           {"threads", ThreadsOf(account, scheduling, i)},
                           {"wakes", WakesOf(scene)}};
        // Names come from captures, which hold any bytes; JSON holds UTF-8.
        const std::string text = data.dump(-1, ' ', true, Json::error_handler_t::replace);
        scenes.push_back(
            {{"scene", i + 1}, {"title", TitleOf(account, i)}, {"data", Base64(Gzip(text))}});
    }
    if (!scenes.empty()) {
        // Nothing that a capture names stands there as it is, so there is no markup in it.
        out << "<section id=timeline aria-labelledby=timeline-head><h2 id=timeline-head>Timeline"
               "</h2>\n<script type=\"application/json\" id=data>"
            << scenes << "</script>\n</section>\n";
    }
}

}  // namespace tools
