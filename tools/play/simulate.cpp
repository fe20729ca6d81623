#include "tools/play/simulate.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <queue>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "host/desktop.h"
#include "tools/play/log_writer.h"
#include "tools/play/player.h"
#include "tools/session/session.h"

namespace tools {
namespace {

// The beginning of a capture whose clock counts from the start of the device.
constexpr int64_t SINCE_BOOT = 5'000'000'000;
constexpr Micros MILLISECOND = 1000;

// A node at work.
struct Station {
    Line report;  // Its node end, for frame and port to be filled in.
    const CameraNode* node = nullptr;
    int32_t stage = -1;  // -1: a branch.
    int32_t thread = 0;
    std::vector<size_t> receivers;  // Stations that frames are handed on to.
    std::deque<int64_t> queue;      // Frames that wait; the one being worked on is the first.
    std::optional<int64_t> held;    // Is done, but comes out after the next.
};

class Simulation {
  public:
    Simulation(const Camera& simulated, std::ostream& capture, const SimulateOptions& theOptions)
        : camera(simulated),
          options(theOptions),
          log(capture, options.format, options.format.isMonotonic ? SINCE_BOOT : CAPTURE_BEGIN) {
        for (const Fault& fault : camera.faults) {
            faults.emplace(fault.frame, fault);
        }
    }

    Simulated Run() {
        // The library is loaded.
        player.emplace([this](const Step& step, auto effects) { OnStep(step, effects); },
                       Player::Pace());
        MakeStations();
        WriteBeginning();
        StartScene();
        events.push({now + 50 * MILLISECOND, 0, SENSOR});
        while (!events.empty()) {
            const Event event = events.top();
            events.pop();
            now = event.time;
            if (event.station == SENSOR) {
                Deliver();
            } else {
                Finish(event.station);
            }
        }
        now += 100 * MILLISECOND;
        Make("TcfbtNotifySceneEnd", {});
        return result;
    }

  private:
    static constexpr size_t SENSOR = SIZE_MAX;

    struct Event {
        Micros time;
        uint64_t order;  // Of two at the same time, that which was planned first happens first.
        size_t station;  // Whose work is done; SENSOR: a frame is due.

        bool operator>(const Event& other) const {
            return std::pair(time, order) > std::pair(other.time, other.order);
        }
    };

    void OnStep(const Step& step, std::span<const desktop::Effect> effects) {
        if (step.loaded && !step.loaded->modes.empty()) {
            firstMode = step.loaded->modes.front();
        }
        // No call but the start of the scene has such a result before the scene runs.
        result.isBoosted = result.isBoosted || step.result == 0;
        log.SetMoment(now, thread);
        for (const desktop::Effect& effect : effects) {
            if (!std::holds_alternative<desktop::LogLine>(effect.event)) {
                continue;
            }
            if (linesToLose > 0) {
                --linesToLose;
                ++result.linesLost;
            } else {
                ++result.lines;
                log.OnEffect(effect);
            }
        }
    }

    // Tells a reader of the session what to expect of it.
    void WriteBeginning() {
        if (options.session == nullptr) {
            return;
        }
        *options.session << "# A simulated camera: " << camera.frames << " frames at " << camera.fps
                         << " fps, seed " << camera.seed << ".\n";
        for (const Fault& fault : camera.faults) {
            *options.session << "# Frame " << fault.frame << ": " << Describe(fault, camera)
                             << ".\n";
        }
    }

    void Play(const Line& line) {
        if (options.session != nullptr) {
            *options.session << WriteLine(line) << '\n';
        }
        player->Play(line, 0);
    }

    // Makes the call now.
    void Make(const Line& call, int32_t onThread) {
        if (now > played) {
            Play(Wait{now - std::exchange(played, now)});
        }
        thread = onThread;
        Play(call);
    }

    void Make(const char* operation, std::vector<Value> arguments) {
        Make(Call{FindOperation(operation), std::move(arguments)}, CAPTURE_PROCESS);
    }

    void MakeStations() {
        size_t last = 0;  // The last station that is no branch.
        int32_t stage = 0;
        for (const CameraNode& node : camera.nodes) {
            const size_t index = stations.size();
            if (index != 0) {
                stations[last].receivers.push_back(index);
            }
            last = node.isBranch ? last : index;
            Station& station = stations.emplace_back();
            station.report =
                Call{FindOperation("TcfbtNotifyNodeEnd"),
                     {int64_t{0}, node.name, node.ports.front(), camera.id, camera.isMaster}};
            station.node = &node;
            station.stage = node.isBranch ? -1 : stage++;
            station.thread = CAPTURE_PROCESS + 100 + static_cast<int32_t>(index);
        }
        stageCount = stage;
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
        Make("TcfbtNotifySceneStart", {camera.mode.value_or(firstMode)});
    }

    // The sensor's next frame is due.
    void Deliver() {
        const int64_t frame = result.frames;
        if (const auto milliseconds = Take(FaultKind::Stall, frame)) {
            // It comes later, as a frame without the fault.
            events.push({now + *milliseconds * MILLISECOND, ++planned, SENSOR});
            return;
        }
        ++result.frames;
        const bool isDropped = Take(FaultKind::Drop, frame).has_value();
        const bool isOverrun = !isDropped && inPipeline >= camera.buffers;
        if (isDropped || isOverrun) {
            result.overruns += isOverrun ? 1 : 0;
            Make("TcfbtNotifyErrorFrame", {frame, 0});
        } else {
            ++inPipeline;
            HandTo(0, frame);
        }
        if (options.onProgress(result.frames, camera.frames) && result.frames < camera.frames) {
            // Periods that are no whole microseconds add up right all the same.
            const auto periodEnd = [this](int64_t number) {
                return number * 1'000'000 / camera.fps;
            };
            events.push({now + periodEnd(frame + 1) - periodEnd(frame), ++planned, SENSOR});
        }
    }

    void HandTo(size_t index, int64_t frame) {
        Station& station = stations[index];
        // A branch that does not keep up skips frames. The others cannot have more than there are.
        if (station.stage < 0 && static_cast<int64_t>(station.queue.size()) >= camera.buffers) {
            return;
        }
        station.queue.push_back(frame);
        if (station.queue.size() == 1) {
            Begin(index);
        }
    }

    void Begin(size_t index) {
        const Station& station = stations[index];
        const int64_t frame = station.queue.front();
        const Micros extra = Take(FaultKind::Slow, frame, station.stage).value_or(0) * MILLISECOND;
        events.push({now + WorkOf(index, frame) + extra, ++planned, index});
    }

    // How long a node takes for a frame: like a logarithmic normal distribution, with a longer tail
    // above the median than below, but within bounds. In whole numbers, and from nothing but the
    // frame: a fault changes no other frame's.
    Micros WorkOf(size_t index, int64_t frame) const {
        constexpr int64_t half = 3 * 0xFFFF / 2;
        const uint64_t random = Hash(camera.seed, index, static_cast<uint64_t>(frame));
        const auto sum = static_cast<int64_t>((random & 0xFFFF) + (random >> 16 & 0xFFFF) +
                                              (random >> 32 & 0xFFFF));
        const CameraNode& node = *stations[index].node;
        const int64_t offset = std::min(sum - half, half) * node.spread;
        return node.median + offset / (offset > 0 ? half : 2 * half);
    }

    // The station is done with its first frame.
    void Finish(size_t index) {
        Station& station = stations[index];
        const int64_t frame = station.queue.front();
        station.queue.pop_front();
        if (!station.queue.empty()) {
            Begin(index);
        }
        if (Take(FaultKind::Lost, frame, station.stage)) {
            --inPipeline;
            return;
        }
        if (Take(FaultKind::Swap, frame, station.stage)) {
            station.held = frame;
            return;
        }
        HandOn(station, frame);
        if (station.held) {
            HandOn(station, *std::exchange(station.held, std::nullopt));
        }
    }

    void HandOn(Station& station, int64_t frame) {
        if (!Take(FaultKind::Unreported, frame, station.stage)) {
            Report(station, frame, 0);
        }
        if (Take(FaultKind::SecondPort, frame, station.stage)) {
            Report(station, frame, 1);
        }
        for (const size_t receiver : station.receivers) {
            HandTo(receiver, frame);
        }
        if (station.stage == stageCount - 1) {
            --inPipeline;
            ++result.completed;
        }
    }

    void Report(Station& station, int64_t frame, size_t port) {
        linesToLose += Take(FaultKind::LogLost, frame).value_or(0);
        auto& arguments = std::get<Call>(station.report).arguments;
        arguments[0] = frame;
        arguments[2] = station.node->ports[port];
        Make(station.report, station.thread);
    }

    // The amount of a fault that is due; it is so once.
    std::optional<int64_t> Take(FaultKind kind, int64_t frame, int32_t stage = -1) {
        const auto [first, last] = faults.equal_range(frame);
        for (auto fault = first; fault != last; ++fault) {
            if (fault->second.kind == kind && fault->second.stage == stage) {
                const int64_t amount = fault->second.amount;
                faults.erase(fault);
                return amount;
            }
        }
        return std::nullopt;
    }

    const Camera& camera;
    const SimulateOptions& options;
    LogWriter log;
    std::optional<Player> player;
    std::vector<Station> stations;
    std::priority_queue<Event, std::vector<Event>, std::greater<>> events;
    std::multimap<int64_t, Fault> faults;  // Those to come, by frame.
    Micros now = 0;
    Micros played = 0;                 // The moment that the player has come to.
    int32_t thread = CAPTURE_PROCESS;  // That calls now.
    int32_t firstMode = 0;             // Of the configuration.
    uint64_t planned = 0;
    int32_t stageCount = 0;
    int64_t inPipeline = 0;
    int64_t linesToLose = 0;
    Simulated result;
};

}  // namespace

Simulated Simulate(const Camera& camera, std::ostream& capture, const SimulateOptions& options) {
    CheckFaults(camera);
    return Simulation(camera, capture, options).Run();
}

}  // namespace tools
