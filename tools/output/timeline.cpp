#include "tools/output/timeline.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tools/base/text.h"
#include "tools/output/gzip.h"
#include "tools/output/naming.h"

namespace tools {
namespace {

// Numbers of any size, small ones in one byte: seven bits a byte, the lowest first, and the sign in
// the lowest of all. 0 stands for what is not known.
class Columns {
  public:
    void Put(int64_t value) {
        auto rest = (static_cast<uint64_t>(value) << 1) ^ static_cast<uint64_t>(value >> 63);
        for (; rest >= 128; rest >>= 7) {
            bytes += static_cast<char>(rest | 128);
        }
        bytes += static_cast<char>(rest);
    }
    // As the difference to what the reader knows by then.
    void PutTime(Micros time, Micros unit, int64_t& known) {
        if (time == NO_TIME) {
            Put(0);
            return;
        }
        const int64_t units = time / unit;
        const int64_t step = units - known;
        Put(step >= 0 ? step + 1 : step);  // Never 0.
        known = units;
    }

    std::string bytes;
};

// A column a row of a frame: its number, what became of it, when it was started, when it left each
// stage, and when the HAL ended it, in units of the resolution since the scene's begin.
std::string DataOf(const Scene& scene, Micros unit) {
    Columns columns;
    int64_t number = 0;
    for (const Frame& frame : scene.frames) {
        columns.Put(static_cast<int64_t>(static_cast<uint64_t>(frame.number) -
                                         static_cast<uint64_t>(number)));
        number = frame.number;
    }
    for (const Frame& frame : scene.frames) {
        columns.Put(static_cast<int>(frame.status) + 16 * (frame.isLate ? 1 : 0) +
                    32 * (frame.isNeverOut ? 1 : 0) + 64 * (frame.isUntold ? 1 : 0));
    }
    std::vector<int64_t> known(scene.frames.size());
    const auto put = [&](Micros time, size_t frame) {
        columns.PutTime(time == NO_TIME ? NO_TIME : time - scene.begin, unit, known[frame]);
    };
    for (size_t i = 0; i < scene.frames.size(); ++i) {
        known[i] = i == 0 ? 0 : known[i - 1];
        put(scene.frames[i].start, i);
    }
    for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
        for (size_t i = 0; i < scene.frames.size(); ++i) {
            put(scene.PassOf(i, stage).left, i);
        }
    }
    for (size_t i = 0; i < scene.frames.size(); ++i) {
        put(scene.frames[i].end, i);
    }
    return columns.bytes;
}

double Seconds(Micros time) {
    return static_cast<double>(time) / 1e6;
}

// When the log's clock was set, since the scene's begin, and by how much; each step once, whichever
// scenes it fell into. Nothing where it was set between scenes, of which the size is not kept.
std::optional<std::map<double, double>> ClockSteps(const Account& account, const Scene& scene) {
    for (const SceneFinding& finding : account.findings) {
        if (finding.check == Check::ClockJump && finding.time <= scene.begin) {
            return {};
        }
    }
    std::map<double, double> steps;
    for (const Scene& any : account.scenes) {
        for (const Scene::Disturbance& step : any.clockSteps) {
            steps[Seconds(step.time - scene.begin)] = Seconds(step.amount);
        }
    }
    return steps;
}

using Json = nlohmann::ordered_json;

// What a thread did when it did not sleep, in microseconds: for each time, how long after the one
// before it began, how long it took, and the state with the CPU above that.
class ThreadData {
  public:
    explicit ThreadData(Micros sceneBegin) : end(sceneBegin) {}
    void Add(Span span, ThreadState state, int32_t cpu) {
        if (state != ThreadState::Running && state != ThreadState::Runnable &&
            state != ThreadState::Blocked) {
            return;
        }
        ++count;
        columns.Put(span.begin - end);
        columns.Put(span.end - span.begin);
        columns.Put(static_cast<int64_t>(state) + int64_t{8} * (cpu + 1));
        end = span.end;
    }
    Json ToJson(int32_t stage, int32_t tid, const std::string& name) const {
        return {{"stage", stage},
                {"id", tid},
                {"name", name},
                {"count", count},
                {"data", Base64(Gzip(columns.bytes))}};
    }

  private:
    Columns columns;
    Micros end;
    int64_t count = 0;
};

// The threads of a scene: the pipeline's by their stages, then those that kept them.
Json ThreadsOf(const Scene& scene, const Scheduling& scheduling, const SceneScheduling& ofScene) {
    Json threads = Json::array();
    std::set<int32_t> known;
    const Span span = {scheduling.tie->ToTrace(scene.begin), scheduling.tie->ToTrace(scene.end)};
    for (const ThreadUse& use : ofScene.threads) {
        if (use.stages.empty()) {
            continue;
        }
        ThreadData data(scene.begin);
        const auto [first, last] = scheduling.states->Within(use.thread, span);
        for (auto it = first; it != last; ++it) {
            data.Add({scheduling.tie->ToLog(std::max(it->begin, span.begin)),
                      scheduling.tie->ToLog(std::min(it->end, span.end))},
                     it->state, it->cpu);
        }
        const SchedThread& thread = scheduling.trace->threads[use.thread];
        known.insert(thread.tid);
        threads.push_back(data.ToJson(use.stages.front(), thread.tid, thread.name));
    }
    std::map<int32_t, std::vector<const CauseLink*>> others;
    for (const SceneFinding& finding : scene.findings) {
        for (const CauseLink& link : finding.chain) {
            if (!known.contains(link.thread)) {
                others[link.thread].push_back(&link);
            }
        }
    }
    for (auto& [tid, links] : others) {
        std::sort(links.begin(), links.end(), [](const CauseLink* one, const CauseLink* other) {
            return one->begin < other->begin;
        });
        ThreadData data(scene.begin);
        for (const CauseLink* link : links) {
            data.Add({link->begin, link->begin + link->piece}, link->state, link->cpu);
        }
        threads.push_back(data.ToJson(-1, tid, links.front()->name));
    }
    return threads;
}

// Who woke whom, where that made a frame late: when, and the threads.
Json WakesOf(const Scene& scene) {
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
    nlohmann::ordered_json scenes;
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        const Scene& scene = account.scenes[i];
        if (scene.isMixed || scene.frames.empty()) {
            continue;
        }
        // One for each column of data, whatever the configuration says.
        std::vector<std::string> names = scene.stageNames;
        names.resize(static_cast<size_t>(scene.stageCount));
        const auto steps = ClockSteps(account, scene);
        nlohmann::ordered_json words = nlohmann::json::array();
        for (size_t status = 0; status < FRAME_STATUSES; ++status) {
            words.push_back(NameOf(FrameStatus(status)));
        }
        scenes.push_back({{"scene", i + 1},
                          {"title", TitleOf(account, i)},
                          {"begin", Seconds(scene.begin)},
                          {"stop", Seconds(std::max(scene.stop, scene.end) - scene.begin)},
                          {"clock", steps ? account.from : ""},
                          {"steps", steps.value_or(std::map<double, double>{})},
                          {"period", 1.0 / scene.Rate()},
                          {"unit", Seconds(account.resolution)},
                          {"stages", names},
                          {"words", words},
                          {"frames", scene.frames.size()},
                          {"data", Base64(Gzip(DataOf(scene, account.resolution)))}});
        if (scheduling != nullptr) {
            scenes.back()["threads"] = ThreadsOf(scene, *scheduling, scheduling->scenes[i]);
            scenes.back()["wakes"] = WakesOf(scene);
        }
    }
    if (scenes.empty()) {
        return;
    }
    // JSON in HTML: no end of the element may stand in it.
    std::string text = scenes.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
    for (size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at)) {
        text.replace(at, 1, "\\u003c");
    }
    out << "<section id=timeline aria-labelledby=timeline-head><h2 id=timeline-head>Timeline</h2>\n"
           "<script type=\"application/json\" id=data>"
        << text << "</script>\n</section>\n";
}

}  // namespace tools
