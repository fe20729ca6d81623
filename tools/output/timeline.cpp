// The part of the page that a script draws: the frames of all scenes, and their threads, as data.

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tools/base/text.h"
#include "tools/output/outputs.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

// Names come from captures, which hold any bytes; JSON holds UTF-8.
std::string Text(const Json& json) {
    return json.dump(-1, ' ', true, Json::error_handler_t::replace);
}

// Times in units since `origin`, each as the step from the last one that is known; null where a
// time is not known.
Json StepsOf(const std::vector<Micros>& times, Micros origin, Micros unit) {
    Json steps = Json::array();
    int64_t known = 0;
    for (const Micros time : times) {
        const int64_t units = time == NO_TIME ? known : (time - origin) / unit;
        steps.push_back(time == NO_TIME ? Json() : Json(units - known));
        known = units;
    }
    return steps;
}

// What became of each frame; when it was started, when each stage began with it, when it left each,
// and when the HAL ended it, a frame after the other; and what its threads did.
Json DataOf(const JudgedScene& scene, Micros unit, const Json& threads) {
    Json codes = Json::array();
    std::vector<Micros> times;
    for (size_t i = 0; i < scene.frames.size(); ++i) {
        const Frame& frame = scene.frames[i];
        const Fate& fate = scene.FateOf(i);
        codes.push_back(static_cast<int>(fate.status) + 16 * (fate.isLate ? 1 : 0) +
                        32 * (fate.isNeverOut ? 1 : 0) + 64 * (fate.isUnknown ? 1 : 0));
        times.push_back(frame.start);
        for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
            const bool isQueue = stage < scene.columns.stages && !scene.isAlone;
            const size_t pass = scene.columns.PassOf(static_cast<uint32_t>(i), stage);
            const Micros begin = isQueue ? scene.columns.begin[pass] : NO_TIME;
            const bool isBehindAnother = begin != NO_TIME && stage > 0;
            times.push_back(isBehindAnother ? std::max(begin, scene.ArrivalOf(i, stage)) : begin);
        }
        for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
            times.push_back(scene.PassOf(i, stage).left);
        }
        times.push_back(frame.end);
    }
    return {{"codes", codes}, {"times", StepsOf(times, scene.begin, unit)}, {"threads", threads}};
}

// The numbers of frames, as the first of each run of consecutive ones, in text as they may be
// larger than a script's numbers, and how many there are.
std::vector<std::pair<std::string, int64_t>> NumbersOf(const JudgedScene& scene) {
    std::vector<std::pair<std::string, int64_t>> runs;
    const Frame* before = nullptr;
    for (const Frame& frame : scene.frames) {
        if (before == nullptr || frame.number <= before->number ||
            frame.number - 1 != before->number) {
            runs.emplace_back(std::to_string(frame.number), 0);
        }
        ++runs.back().second;
        before = &frame;
    }
    return runs;
}

double Seconds(Micros time) {
    return static_cast<double>(time) / 1e6;
}

// When the log's clock was set, since the scene's begin, and by how much; each step once, whichever
// scenes it fell into. Nothing where it was set between scenes, of which the size is not kept.
std::optional<std::map<double, double>> ClockSteps(const Account& account,
                                                   const JudgedScene& scene) {
    for (const SceneFinding& finding : account.findings) {
        if (finding.kind == Kind::ClockJump && finding.time <= scene.begin) {
            return {};
        }
    }
    std::map<double, double> steps;
    for (const JudgedScene& any : account.scenes) {
        for (const Scene::Disturbance& step : any.clockSteps) {
            steps[Seconds(step.time - scene.begin)] = Seconds(step.amount);
        }
    }
    return steps;
}

// What a thread did when it did not sleep, in microseconds: from when to when, one after the other,
// and the state with the CPU above that.
Json ThreadOf(Micros origin, int32_t stage, const SchedThread& thread,
              const std::vector<Awake>& awake) {
    Json codes = Json::array();
    std::vector<Micros> times;
    for (const Awake& one : awake) {
        codes.push_back(static_cast<int64_t>(one.state) + int64_t{8} * (one.cpu + 1));
        times.insert(times.end(), {one.span.begin, one.span.end});
    }
    return {{"stage", stage},
            {"id", thread.tid},
            {"name", thread.name},
            {"codes", codes},
            {"times", StepsOf(times, origin, 1)}};
}

// The threads of a scene: the pipeline's by their stages, then those that kept them.
Json ThreadsOf(const JudgedScene& scene, const Scheduling& scheduling,
               const SceneScheduling& ofScene) {
    std::set<int32_t> others;
    for (const SceneFinding& finding : scene.findings) {
        for (const CauseLink& link : finding.chain) {
            others.insert(link.thread);
        }
    }
    Json threads = Json::array();
    const std::vector<SchedThread>& known = scheduling.trace->threads;
    const auto add = [&](uint32_t thread, int32_t stage) {
        threads.push_back(ThreadOf(scene.begin, stage, known[thread],
                                   AwakeOf(scheduling, thread, {scene.begin, scene.end})));
        others.erase(known[thread].tid);
    };
    for (const ThreadUse& use : ofScene.threads) {
        if (!use.stages.empty()) {
            add(use.thread, use.stages.front());
        }
    }
    for (uint32_t thread = 0; thread < known.size(); ++thread) {
        if (others.contains(known[thread].tid)) {
            add(thread, -1);
        }
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
        // One for each column of data, whatever the configuration says.
        std::vector<std::string> names = scene.stageNames;
        names.resize(static_cast<size_t>(scene.stageCount));
        const auto steps = ClockSteps(account, scene);
        const Json threads = scheduling == nullptr
                                 ? Json::array()
                                 : ThreadsOf(scene, *scheduling, scheduling->scenes[i]);
        Json words = Json::array();
        for (size_t status = 0; status < FRAME_STATUSES; ++status) {
            words.push_back(NameOf(FrameStatus(status)));
        }
        scenes.push_back(
            {{"scene", i + 1},
             {"title", TitleOf(account, i)},
             {"begin", Seconds(scene.begin)},
             {"stop", Seconds(std::max(scene.stop, scene.end) - scene.begin)},
             {"clock", steps ? account.from : ""},
             {"steps", steps.value_or(std::map<double, double>{})},
             {"period", 1.0 / scene.Rate()},
             {"unit", Seconds(account.resolution)},
             {"stages", names},
             {"words", words},
             {"numbers", NumbersOf(scene)},
             {"wakes", WakesOf(scene)},
             {"data", Base64(Gzip(Text(DataOf(scene, account.resolution, threads))))}});
    }
    if (scenes.empty()) {
        return;
    }
    // JSON in HTML: no end of the element may stand in it.
    std::string text = Text(scenes);
    for (size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at)) {
        text.replace(at, 1, "\\u003c");
    }
    out << "<section id=timeline aria-labelledby=timeline-head><h2 id=timeline-head>Timeline</h2>\n"
           "<script type=\"application/json\" id=data>"
        << text << "</script>\n</section>\n";
}

}  // namespace tools
