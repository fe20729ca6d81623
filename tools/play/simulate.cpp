#include "tools/play/simulate.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "cameraframeboost/tarvocameraframeboostutils.h"
#include "host/desktop.h"
#include "tools/play/player.h"
#include "tools/session/session.h"

namespace tools {
namespace {

// The beginning of a capture whose clock counts from the start of the device.
constexpr int64_t SINCE_BOOT = 5'000'000'000;

// A frame that a node works on.
struct Work {
    int64_t frame;
    bool isDone = false;
};

// A node at work.
struct Station {
    const CameraNode& node;
    uint64_t index;  // Among the camera's nodes.
    int32_t stage;   // -1: a branch.
    int32_t thread;
    std::vector<Station*> receivers{};  // Frames are handed on to them.
    std::deque<int64_t> waiting{};
    std::deque<Work> works{};  // In the order of the frames. Those that are done wait for others.
    std::optional<int64_t> held{};  // Is done, but comes out after the next.
    bool isDead = false;
};

// A number as good as random, the same for the same seed, place and number on all machines.
uint64_t Hash(uint64_t seed, uint64_t place, uint64_t number) {
    // The mixing steps of SplitMix64, once for each.
    uint64_t hash = 0;
    for (const uint64_t part : {seed, place, number}) {
        hash = (hash ^ part) + 0x9E3779B97F4A7C15;
        hash = (hash ^ (hash >> 30)) * 0xBF58476D1CE4E5B9;
        hash = (hash ^ (hash >> 27)) * 0x94D049BB133111EB;
        hash ^= hash >> 31;
    }
    return hash;
}

using Json = nlohmann::ordered_json;

Json MillisOf(Micros time) {
    return time == NO_TIME ? Json() : Json(static_cast<double>(time) / MILLISECOND);
}

// What a simulation did, to judge the account of its log by: see SimulateOptions. Times are those
// of the simulation, which the log's clock shows until a fault sets it.
struct Truth {
    struct Acted {
        Micros from = NO_TIME;
        Micros to = NO_TIME;
    };

    const Camera& camera;
    int32_t stageCount;  // How many the library is configured for.
    // What the library keeps of frames.
    Micros near = FrameTracker::DEFAULT_MAX_FRAME_TRACKED * SECOND / camera.fps;
    Json frames = Json::array();
    // Of the frames that the service knows, by their numbers: how many stage events it got; nothing
    // for a frame in error.
    std::unordered_map<int32_t, std::optional<int32_t>> stageEvents{};
    std::vector<Acted> acted = std::vector<Acted>(camera.faults.size());  // By fault.
    Micros lastOut = NO_TIME;

    // The sensor delivered its next frame, to which the HAL gives that number, or dropped it.
    void OnDelivered(int64_t number, Micros time, bool isDropped) {
        frames.push_back({{"frame", frames.size()},
                          {"number", number},
                          {"delivered", MillisOf(isDropped ? NO_TIME : time)},
                          {"left", std::vector<Json>(camera.Stages().size())},
                          {"out", nullptr},
                          {"late", false},
                          {"boosted", false}});
    }

    // The HAL reported that a frame left a stage.
    void OnLeft(int64_t frame, int32_t stage, Micros time) {
        Json& one = frames.at(static_cast<size_t>(frame));
        Json& left = one["left"].at(static_cast<size_t>(stage));
        if (!left.is_null()) {
            return;  // Reported on a second port.
        }
        left = MillisOf(time);
        if (&left == &one["left"].back()) {
            one["out"] = left;
            one["late"] = lastOut != NO_TIME && time - lastOut > 3 * SECOND / 2 / camera.fps;
            lastOut = time;
        }
    }

    void OnService(const desktop::ServiceCall& call) {
        using enum desktop::ServiceFunction;
        const int32_t number = call.Argument("frame");
        std::optional<int32_t>& events = stageEvents[number];
        if (call.function == FrameStart) {
            events = 0;
        } else if (call.function == NotifyErrOfUser) {
            events.reset();
        } else if (events && (call.function == StageStart || call.function == StageEnd)) {
            ++*events;
        } else if (call.function == FrameEnd) {
            const auto frame =
                std::find_if(frames.rbegin(), frames.rend(), [number](const Json& one) {
                    return static_cast<int32_t>(one["number"].get<int64_t>()) == number;
                });
            (*frame)["boosted"] = events == 2 * stageCount;
            stageEvents.erase(number);
        }
    }

    // The fault of that index in the camera's list acted, until then.
    static constexpr Micros FOREVER = std::numeric_limits<Micros>::max() / 2;
    void OnFault(size_t fault, Micros from, Micros to) {
        Acted& span = acted.at(fault);
        span.from = span.from == NO_TIME ? from : span.from;
        span.to = std::max(span.to, to);
    }

    // Several frames wait for a stage: what faults did is not over yet.
    void OnBacklog(Micros time) {
        for (Acted& span : acted) {
            if (span.from != NO_TIME && span.to + near >= time) {
                span.to = std::max(span.to, time);
            }
        }
    }

    // To be called once, last.
    void Write(std::ostream& out, Micros sceneBegin, Micros sceneEnd) {
        Json json = {{"fps", camera.fps}, {"stages", Json::array()}};
        for (const CameraNode& node : camera.Stages()) {
            json["stages"].push_back(node.name);
        }
        json["scene"] = {{"begin", MillisOf(sceneBegin)}, {"end", MillisOf(sceneEnd)}};
        json["frames"] = std::move(frames);
        auto& faults = json["faults"] = Json::array();
        for (size_t i = 0; i < acted.size(); ++i) {
            const Fault& fault = camera.faults[i];
            faults.push_back({{"fault", ToString(fault)},
                              {"kind", fault.kind},
                              {"first", fault.frame},
                              {"last", fault.last},
                              {"stage", fault.stage < 0 ? Json() : Json(fault.stage)},
                              {"amount", fault.amount == 0 ? Json() : Json(fault.amount)},
                              {"from", MillisOf(acted[i].from)},
                              {"to", MillisOf(std::min(acted[i].to, sceneEnd))},
                              {"hidden", IsHidden(i)}});
        }
        out << json << '\n';
    }

    bool IsHidden(size_t fault) const {
        const Micros from = acted[fault].from;
        return from == NO_TIME || std::any_of(acted.begin(), acted.end(), [&](const Acted& other) {
                   return &other != &acted[fault] && other.from != NO_TIME &&
                          other.from - near <= from && from <= other.to + near;
               });
    }
};

struct Simulation {
    const Camera& camera;
    std::ostream& capture;
    const SimulateOptions& options;
    std::optional<Truth> truth{};
    std::deque<Station> stations{};
    // What happens when. Of two at the same time, the task that was planned first comes first.
    std::multimap<Micros, std::function<void()>> planned{};
    std::vector<bool> isOver = std::vector<bool>(camera.faults.size());  // The faults that acted.
    Micros now = 0;
    Micros played = 0;                 // The moment that the player has come to.
    int32_t thread = CAPTURE_PROCESS;  // That calls now.
    int32_t stageCount = 0;
    int64_t inPipeline = 0;
    int64_t linesToLose = 0;
    size_t losing = 0;                    // The fault that they are of.
    Micros clockStep = 0;                 // By which the log's clock is ahead.
    std::vector<int64_t> numberedFrom{};  // The frames after which the HAL numbers from 1.
    Simulated result{};
    // Last, as it tells of the library's loading at once.
    Player player{[this](const Played& call) { OnPlayed(call); }};

    Simulated Run() {
        if (options.truth != nullptr) {
            truth.emplace(Truth{camera, *player.Loaded().stageCount});
        }
        MakeStations();
        WriteBeginning();
        StartScene();
        const Micros sceneBegin = now;
        After(50 * MILLISECOND, [this] { Deliver(); });
        while (!planned.empty()) {
            const auto next = planned.extract(planned.begin());
            now = next.key();
            next.mapped()();
            if (truth && HasBacklog()) {
                truth->OnBacklog(now);
            }
        }
        now += camera.wait;
        Make("TcfbtNotifySceneEnd", {});
        if (truth) {
            truth->Write(*options.truth, sceneBegin, now);
        }
        return result;
    }

    void OnPlayed(const Played& call) {
        if (call.call != nullptr && call.call->form->name == "TcfbtNotifySceneStart") {
            result.isBoosted = call.result == 0;
        }
        const int64_t begin = options.format.isMonotonic ? SINCE_BOOT : CAPTURE_BEGIN;
        for (const desktop::Effect& effect : call.effects) {
            const auto* service = std::get_if<desktop::ServiceCall>(&effect.event);
            if (truth && service != nullptr) {
                truth->OnService(*service);
            }
            const auto* line = std::get_if<desktop::LogLine>(&effect.event);
            if (line == nullptr) {
                continue;
            }
            if (linesToLose > 0) {
                --linesToLose;
                if (truth) {
                    truth->OnFault(losing, now, now);
                }
            } else {
                ++result.lines;
                WriteLogLine(capture, options.format, begin + now + clockStep, thread, *line);
            }
        }
    }

    // Says at the session's beginning what happens in it.
    void WriteBeginning() {
        if (options.session == nullptr) {
            return;
        }
        *options.session << "# A simulated camera: " << camera.frames << " frames at " << camera.fps
                         << " fps, seed " << camera.seed << ".\n";
        for (const Fault& fault : camera.faults) {
            *options.session << "# " << Describe(fault, camera) << ".\n";
        }
    }

    void Play(const Line& line) {
        if (options.session != nullptr) {
            *options.session << WriteLine(line) << '\n';
        }
        player.Play(line);
    }

    // Makes the call now.
    void Make(std::string_view operation, std::vector<Value> arguments,
              int32_t onThread = CAPTURE_PROCESS) {
        if (now > played) {
            Play(Wait{now - std::exchange(played, now)});
        }
        thread = onThread;
        Play(Call{FormOf(operation), std::move(arguments)});
    }

    void MakeStations() {
        Station* last = nullptr;  // The last one that is no branch.
        for (const CameraNode& node : camera.nodes) {
            const size_t index = stations.size();
            Station& station =
                stations.emplace_back(Station{node, index, node.isBranch ? -1 : stageCount++,
                                              CAPTURE_PROCESS + 100 + static_cast<int32_t>(index)});
            if (last != nullptr) {
                last->receivers.push_back(&station);
            }
            last = node.isBranch ? last : &station;
        }
    }

    void StartScene() {
        now = 200 * MILLISECOND;
        Make("TcfbtSetVersion", {2});
        int32_t tid = CAPTURE_PROCESS + 10;
        for (const char* manager :
             {"SoloThreadManager", "AuxThreadManager", "RecyclThreadManager"}) {
            Make("TcfbtAddPersistTids", {std::string(manager), tid++});
        }
        for (const Station& station : stations) {
            Make("TcfbtAddTempTids", {station.thread});
        }
        now += 20 * MILLISECOND;
        Make("TcfbtSetSceneInfo", {true, camera.width, camera.fps});
        const std::vector<int32_t>& modes = player.Loaded().modes;
        Make("TcfbtNotifySceneStart", {camera.mode.value_or(modes.empty() ? 0 : modes.front())});
    }

    // The sensor's next frame is due.
    void Deliver() {
        const int64_t frame = result.frames;
        clockStep += Take("clock", frame).value_or(0) * MILLISECOND;
        if (const auto milliseconds = Take("freeze", frame)) {
            return Freeze(*milliseconds * MILLISECOND);
        }
        if (const auto milliseconds = Take("stall", frame)) {
            // It comes later, as a frame without the fault.
            return After(*milliseconds * MILLISECOND, [this] { Deliver(); });
        }
        ++result.frames;
        if (Take("restart", frame)) {
            numberedFrom.push_back(frame - 1);
        }
        const bool isRecovered = Take("recovered", frame).has_value();
        const bool isDropped = Take("drop", frame).has_value() || isRecovered;
        const bool isOverrun = !isDropped && inPipeline >= camera.buffers;
        if (truth) {
            truth->OnDelivered(NumberOf(frame), now, isDropped || isOverrun);
        }
        if (isDropped || isOverrun) {
            result.overruns += isOverrun ? 1 : 0;
            Make("TcfbtNotifyErrorFrame", {NumberOf(frame), 0});
            if (isRecovered) {
                Recover(NumberOf(frame));
            }
        } else {
            ++inPipeline;
            HandTo(stations.front(), frame);
        }
        if (options.onProgress(result.frames, camera.frames) && result.frames < camera.frames) {
            // Periods that are no whole microseconds add up right all the same.
            const int64_t fps = Take("rate", frame).value_or(camera.fps);
            const auto periodEnd = [fps](int64_t number) { return number * SECOND / fps; };
            After(periodEnd(frame + 1) - periodEnd(frame), [this] { Deliver(); });
        }
    }

    // What the HAL does about a frame that never leaves stage 0.
    void Recover(int64_t number) {
        Make("TcfbtNotifyFrameStart", {number + 1});
        Make("TcfbtNotifyStageStart", {0, number + 1, 0, 20, stations.front().node.name});
        Make("TcfbtNotifyFrameEnd", {number});
    }

    // The frame that was due, and all else that was to happen, comes later.
    void Freeze(Micros duration) {
        for (auto& [time, task] : std::exchange(planned, {})) {
            planned.emplace(time + duration, task);
        }
        After(duration, [this] { Deliver(); });
    }

    // The HAL's number of a frame.
    int64_t NumberOf(int64_t frame) const {
        const auto before = std::find_if(numberedFrom.rbegin(), numberedFrom.rend(),
                                         [frame](int64_t one) { return one < frame; });
        return before == numberedFrom.rend() ? frame : frame - *before;
    }

    void HandTo(Station& station, int64_t frame) {
        // A branch that does not keep up skips frames. The others cannot have more than there are.
        const size_t frames = station.waiting.size() + station.works.size();
        if (station.stage >= 0 || static_cast<int64_t>(frames) < camera.buffers) {
            station.waiting.push_back(frame);
            BeginNext(station);
        }
    }

    // Begins with the next frame, if there is one, somebody to work on it and, for a node that
    // looks ahead, enough behind it.
    void BeginNext(Station& station) {
        const auto busy = std::count_if(station.works.begin(), station.works.end(),
                                        [](const Work& work) { return !work.isDone; });
        if (busy >= station.node.workers || station.isDead ||
            station.waiting.size() <= static_cast<size_t>(station.node.ahead)) {
            return;
        }
        const int64_t frame = station.waiting.front();
        station.isDead = Take("die", frame, station.stage).has_value();
        if (station.isDead) {
            return;
        }
        station.waiting.pop_front();
        Work& work = station.works.emplace_back(Work{frame});
        const Micros extra = Take("slow", frame, station.stage).value_or(0) * MILLISECOND;
        After(TimeOf(station, frame) + extra, [this, &station, &work] {
            work.isDone = true;
            Finish(station);
        });
    }

    // How long a node takes for a frame: like a logarithmic normal distribution, with a longer tail
    // above the median than below, but within bounds. In whole numbers, and from nothing but the
    // frame: a fault changes no other frame's.
    Micros TimeOf(const Station& station, int64_t frame) const {
        constexpr int64_t half = 3 * 0xFFFF / 2;
        const uint64_t random = Hash(camera.seed, station.index, static_cast<uint64_t>(frame));
        const auto sum = static_cast<int64_t>((random & 0xFFFF) + (random >> 16 & 0xFFFF) +
                                              (random >> 32 & 0xFFFF));
        const int64_t offset = std::min(sum - half, half) * station.node.spread;
        return station.node.median + offset / (offset > 0 ? half : 2 * half);
    }

    // The station is done with a frame. Frames come out when those before them have.
    void Finish(Station& station) {
        BeginNext(station);
        while (!station.works.empty() && station.works.front().isDone) {
            const int64_t done = station.works.front().frame;
            station.works.pop_front();
            ComeOut(station, done);
        }
    }

    void ComeOut(Station& station, int64_t frame) {
        if (Take("lost", frame, station.stage)) {
            --inPipeline;
        } else if (Take("swap", frame, station.stage)) {
            station.held = frame;
        } else {
            HandOn(station, frame);
            if (station.held) {
                HandOn(station, *std::exchange(station.held, std::nullopt));
            }
        }
    }

    void HandOn(Station& station, int64_t frame) {
        if (!Take("unreported", frame, station.stage)) {
            Report(station, frame, 0);
        }
        if (Take("second-port", frame, station.stage)) {
            Report(station, frame, 1);
        }
        for (Station* const receiver : station.receivers) {
            HandTo(*receiver, frame);
        }
        if (station.stage == stageCount - 1) {
            --inPipeline;
            ++result.completed;
        }
    }

    void Report(Station& station, int64_t frame, size_t port) {
        linesToLose += Take("log-lost", frame).value_or(0);
        if (truth && station.stage >= 0) {
            truth->OnLeft(frame, station.stage, now);
        }
        const CameraNode& node = station.node;
        Make("TcfbtNotifyNodeEnd",
             {NumberOf(frame), node.name, node.ports[port], camera.id, camera.isMaster},
             station.thread);
    }

    // The amount of a fault that is due for the frame. One that cannot happen to several in a row
    // is due once.
    std::optional<int64_t> Take(std::string_view kind, int64_t frame, int32_t stage = -1) {
        for (size_t i = 0; i < camera.faults.size(); ++i) {
            const Fault& fault = camera.faults[i];
            const int64_t last = kind == "die" ? MAX_FRAMES : fault.last;
            if (fault.kind == kind && fault.stage == stage && frame >= fault.frame &&
                frame <= last && !isOver[i]) {
                isOver[i] = frame == last;
                losing = kind == "log-lost" ? i : losing;
                if (truth) {
                    const bool isForever = kind == "die" || kind == "restart";
                    const bool isDelay = kind == "slow" || kind == "stall" || kind == "freeze";
                    const Micros over = now + (isDelay ? fault.amount * MILLISECOND : 0);
                    truth->OnFault(i, now, isForever ? Truth::FOREVER : over);
                }
                return fault.amount;
            }
        }
        return std::nullopt;
    }

    // Whether more than one frame waits for a stage.
    bool HasBacklog() const {
        return std::any_of(stations.begin(), stations.end(), [](const Station& station) {
            return station.stage >= 0 &&
                   station.waiting.size() > static_cast<size_t>(station.node.ahead) + 1;
        });
    }

    void After(Micros duration, std::function<void()> task) {
        planned.emplace(now + duration, std::move(task));
    }
};

}  // namespace

Simulated Simulate(const Camera& camera, std::ostream& capture, const SimulateOptions& options) {
    return Simulation{camera, capture, options}.Run();
}

}  // namespace tools
