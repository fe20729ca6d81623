#include "tools/account/reader.h"

#include <algorithm>
#include <deque>
#include <numeric>
#include <string>
#include <unordered_map>

#include "cameraframeboost/tarvocameraframeboostutils.h"
#include "tools/account/limits.h"
#include "tools/log/calls.h"
#include "tools/log/dump.h"

namespace tools {
namespace {

constexpr int32_t MAX_STAGES = 64;        // More is nonsense.
constexpr uint16_t MAX_REPORTERS = 1000;  // As the index of a reporter: none.
constexpr size_t MAX_PROCESSES = 256;
constexpr size_t PLACES = FrameTracker::DEFAULT_MAX_FRAME_TRACKED;

bool IsFarBelow(int64_t number, int64_t before) {
    return number<before&& static_cast<uint64_t>(before) - static_cast<uint64_t>(number)> PLACES;
}

// Puts rows in the order of their numbers.
void SortRows(Scene& scene) {
    std::vector<uint32_t> order(scene.frames.size());
    std::iota(order.begin(), order.end(), 0);
    const auto byNumber = [&scene](uint32_t one, uint32_t other) {
        return scene.frames[one].number < scene.frames[other].number;
    };
    if (std::is_sorted(order.begin(), order.end(), byNumber)) {
        return;
    }
    std::sort(order.begin(), order.end(), byNumber);
    const auto stages = static_cast<size_t>(scene.stageCount);
    std::vector<Frame> frames;
    std::vector<Pass> passes;
    std::vector<uint32_t> rowOf(order.size());
    frames.reserve(order.size());
    passes.reserve(scene.passes.size());
    for (const uint32_t old : order) {
        rowOf[old] = static_cast<uint32_t>(frames.size());
        frames.push_back(scene.frames[old]);
        const auto first = scene.passes.begin() + static_cast<std::ptrdiff_t>(old * stages);
        passes.insert(passes.end(), first, first + static_cast<std::ptrdiff_t>(stages));
    }
    scene.frames = std::move(frames);
    scene.passes = std::move(passes);
    for (Scene::Repeat& repeat : scene.repeats) {
        repeat.frame = rowOf[repeat.frame];
    }
}

}  // namespace

// A scene that goes on, with what it takes to read its lines.
class SceneReader::Running {
  public:
    Running(Scene begun, Micros time) : scene(std::move(begun)), last(time) {}

    Scene scene;
    Micros last;                        // The time of the last line.
    std::optional<int64_t> lastOpened;  // The number that an event last opened, or tried to open.
    // Nothing came for long, or the clock was set: what follows may be another capture.
    bool isBehindGap = false, isBehindStep = false;

    void GrowStages(int32_t count) {
        count = std::min(count, MAX_STAGES);
        if (count <= scene.stageCount) {
            return;
        }
        const auto before = static_cast<size_t>(scene.stageCount);
        const auto after = static_cast<size_t>(count);
        std::vector<Pass> passes(scene.frames.size() * after);
        for (size_t i = 0; i < scene.passes.size(); ++i) {
            passes[i / before * after + i % before] = scene.passes[i];
        }
        scene.passes = std::move(passes);
        scene.stageCount = count;
        scene.stageNames.resize(after);
    }

    bool Has(int64_t number) const { return rows.contains(static_cast<int32_t>(number)); }

    // Whether numbers fell to this one: by more than a table's frames, or to a frame that is
    // through.
    bool IsAgain(int64_t number) const {
        // A HAL may start a frame itself while stage 0 is still behind: that goes on with its
        // count.
        if (lastLeft && number >= *lastLeft && StepOf(*lastLeft, number) <= 1) {
            return false;
        }
        const auto known = Find(number);
        return lastOpened && number < *lastOpened &&
               (IsFarBelow(number, *lastOpened) || (known && number >= 1 && IsThrough(*known)));
    }

    // How many stages some frame has left.
    int32_t StagesLeft() const {
        int32_t stages = scene.stagesBefore;
        for (size_t row = 0; row < scene.frames.size() && stages < scene.stageCount; ++row) {
            stages = std::max(stages, scene.NextStage(row));
        }
        return stages;
    }

    // The number of the frame that the message opens, or would open if the library took it.
    std::optional<int64_t> Opened(const Message& message, const Configuration* known) const {
        switch (message.kind) {
            case MessageKind::NodeEnd:
                if (message.stage == 0 && (known == nullptr || !known->stageCount ||
                                           known->IsStagePort(message.name, message.port))) {
                    return message.frame;
                }
                return {};
            case MessageKind::FrameStart:
            case MessageKind::FrameNotContinuous:
            case MessageKind::FrameAlreadyExists:
                return message.frame;
            default:
                return {};
        }
    }

    // `configuration`: null where it is not known.
    void Take(const Message& message, int32_t tid, Configuration* configuration, Micros time) {
        isBehindGap = isBehindStep = false;
        last = std::max(last, time);
        scene.to = message.place;
        scene.end = std::max(scene.end, time);
        const auto [found, isNew] = threads.try_emplace(tid);
        Thread& thread = found->second;
        if (isNew && scene.threads.size() < UINT16_MAX) {
            thread.index = static_cast<uint16_t>(scene.threads.size());
            scene.threads.push_back(tid);
        }
        if (message.kind == MessageKind::NodeEnd) {
            if (configuration != nullptr) {
                configuration->stageCount = message.count;
            }
            return OnNodeEnd(message, thread, configuration, time);
        }
        NodeEnd& before = thread.last;
        if (before.isOpen &&
            EventLines(EventsOf(before.frame, before.stage, before.stageCount)).Take(message)) {
            Take(before, thread.index);
        }
        OnEvent(message, thread, time);
    }

    void Forget(Micros before);

    // The whole scene, for good. To be called once.
    Scene Closed(Stop stopped, Micros stop, const Configuration* known) {
        if (isBehindStep && stopped != Stop::SceneEnd) {
            scene.clockSteps.pop_back();  // Nothing of the scene came behind it.
            stop = scene.end;
        }
        scene.stopped = stopped;
        scene.stop = std::max(stop, scene.end);
        for (const auto& [key, row] : inFlight) {
            scene.frames[row].isHeld = true;
        }
        if (known != nullptr) {
            scene.configured = known->stages;
            for (const ConfiguredStage& stage : known->stages) {
                if (stage.stage >= 0 && stage.stage < scene.stageCount) {
                    scene.stageNames[static_cast<size_t>(stage.stage)] = stage.node;
                }
            }
        }
        for (const Reporter& reporter : scene.reporters) {
            if (reporter.counts == true && reporter.stage >= 0 &&
                reporter.stage < scene.stageCount) {
                std::string& name = scene.stageNames[static_cast<size_t>(reporter.stage)];
                name = name.empty() ? reporter.node : name;
            }
        }
        PlaceRefused();
        scene.isAlone = !scene.frames.empty() && !hasStages && !scene.opener;
        SortRows(scene);
        return std::move(scene);
    }

  private:
    struct NodeEnd {
        int64_t frame = 0;
        int32_t stage = -1;
        int32_t stageCount = 0;
        uint16_t reporter = 0;
        Place place;
        Micros time = 0;
        bool isOpen = false;  // Whether it counts is not known yet.
    };
    struct Thread {
        uint16_t index = 0;
        NodeEnd last;
    };
    // An event that the library refused as its frame was not in flight.
    struct Refused {
        uint32_t row;
        Place place;
        Micros time;
    };

    std::optional<uint32_t> Find(int64_t number) const {
        const auto found = rows.find(static_cast<int32_t>(number));
        return found == rows.end() ? std::nullopt : std::optional(found->second);
    }

    uint32_t FindOrOpen(int64_t number, const Place& place, Micros time) {
        const auto [found, isNew] = rows.try_emplace(static_cast<int32_t>(number),
                                                     static_cast<uint32_t>(scene.frames.size()));
        if (isNew) {
            Frame& frame = scene.frames.emplace_back();
            frame.number = number;
            frame.place = place;
            frame.seen = time;
            scene.passes.resize(scene.frames.size() * static_cast<size_t>(scene.stageCount));
        }
        return found->second;
    }

    bool IsThrough(uint32_t frame) const {
        const Frame& row = scene.frames[frame];
        return row.isEnded || row.evicted != NO_TIME ||
               (scene.stageCount > 0 && scene.PassOf(frame, scene.stageCount - 1).HasLeft());
    }

    // A frame in error leaves the table without a word.
    bool IsSound(uint32_t frame) const {
        return scene.frames[frame].isStarted && scene.frames[frame].violation == Violation::None;
    }

    void NoteTrouble(uint32_t frame, const Place& place, Micros time) {
        Frame& row = scene.frames[frame];
        if (row.trouble.line == 0) {
            row.trouble = place;
            row.troubleTime = time;
        }
    }

    uint16_t ReporterOf(const Message& message) {
        std::vector<Reporter>& reporters = scene.reporters;
        const auto found =
            std::find_if(reporters.begin(), reporters.end(), [&message](const Reporter& known) {
                return known.port == message.port && known.camera == message.camera &&
                       known.stage == message.stage && known.node == message.name;
            });
        if (found == reporters.end() && reporters.size() < MAX_REPORTERS) {
            reporters.push_back({.node = std::string(message.name),
                                 .port = message.port,
                                 .camera = message.camera,
                                 .stage = message.stage,
                                 .place = message.place});
            return static_cast<uint16_t>(reporters.size() - 1);
        }
        return static_cast<uint16_t>(
            std::min<std::ptrdiff_t>(found - reporters.begin(), MAX_REPORTERS - 1));
    }

    void Leave(uint32_t frame, int32_t stage, uint8_t how, const NodeEnd& end, uint16_t thread) {
        if (stage < 0 || stage >= scene.stageCount) {
            return;
        }
        Pass& pass = scene.PassOf(frame, stage);
        if (how == NODE_END && (pass.seen & NODE_END) != 0) {
            scene.repeats.push_back({frame, stage, end.reporter, end.place, end.time});
            scene.endedAgain += stage == 0 ? 1 : 0;
            NoteTrouble(frame, end.place, end.time);
            return;
        }
        if (how == NODE_END && scene.frames[frame].isEnded) {
            NoteRefused(frame, end.time);  // What follows from it is.
        }
        pass.seen |= how;
        if (how == NODE_END || !pass.HasLeft()) {
            pass.reporter = end.reporter;
            pass.thread = thread;
        }
        if (!pass.HasLeft()) {
            pass.left = end.time;
            pass.place = end.place;
        }
    }

    void NoteRefused(uint32_t frame, Micros time) {
        Micros& first = scene.frames[frame].refused;
        first = first == NO_TIME ? time : first;
    }

    // A node end that counts.
    void Take(NodeEnd& end, uint16_t thread) {
        end.isOpen = false;
        hasStages = true;
        scene.hasNodes = scene.hasNodes || end.stage > 0;
        scene.reporters[end.reporter].counts = true;
        if (end.stage == 0) {
            scene.descents += lastLeft && end.frame < *lastLeft ? 1 : 0;
            lastLeft = end.frame;
            if (!scene.opener) {
                scene.opener = end.frame;
                scene.opened = end.time;
            }
        }
        if (end.frame >= 1) {
            const uint32_t frame = FindOrOpen(end.frame, end.place, end.time);
            Leave(frame, end.stage, NODE_END, end, thread);
            if (end.stage == scene.stageCount - 1 && end.stage > 0) {
                inFlight.erase(static_cast<int32_t>(end.frame));
            }
        }
    }

    void OnNodeEnd(const Message& message, Thread& thread, const Configuration* configuration,
                   Micros time) {
        GrowStages(message.count);
        const uint16_t index = ReporterOf(message);
        Reporter& reporter = scene.reporters[index];
        ++reporter.times;
        if (!reporter.counts && (configuration != nullptr || message.stage < 0)) {
            reporter.counts =
                message.stage >= 0 && configuration->IsStagePort(message.name, message.port);
        }
        NodeEnd& end = thread.last;
        end = {message.frame, message.stage, message.count, index, message.place, time, false};
        if (reporter.counts == true) {
            Take(end, thread.index);
        } else {
            end.isOpen = !reporter.counts;
        }
    }

    void OnStart(const Message& message, Micros time) {
        const int64_t number = message.frame;
        const auto key = static_cast<int32_t>(number);
        const bool isForwarded = message.kind == MessageKind::FrameStart;
        const uint32_t frame = FindOrOpen(number, message.place, time);
        const bool isNext = inFlight.empty() || !IsSound(inFlight.rbegin()->second) ||
                            int64_t{inFlight.rbegin()->first} + 1 == number;
        if (isForwarded && (!isNext || (inFlight.contains(key) && IsSound(inFlight[key])))) {
            inFlight.clear();  // What it was taken to hold has left by lines that are missing.
        }
        Frame& row = scene.frames[frame];
        scene.startedAgain += isForwarded && row.isStarted ? 1 : 0;
        if (isForwarded) {
            row.start = row.isStarted ? row.start : time;
            row.place = row.isStarted ? row.place : message.place;
            row.isStarted = true;
        } else if (!row.isStarted) {
            row.start = row.isGap ? row.start : time;
            row.isGap = true;
            row.newestBefore = message.lastFrame;
            NoteTrouble(frame, message.place, time);
        }
        // Where a frame is refused, the line that it pushes another one out comes behind this one.
        while (inFlight.size() > (isForwarded ? PLACES - 1 : PLACES)) {
            const auto inError = std::find_if(inFlight.begin(), inFlight.end(),
                                              [&](const auto& it) { return !IsSound(it.second); });
            inFlight.erase(inError == inFlight.end() ? inFlight.begin() : inError);
        }
        inFlight[key] = frame;
    }

    // The library says only that it made room: the lowest number leaves.
    void OnEviction(const Place& place, Micros time) {
        const auto oldest = std::find_if(inFlight.begin(), inFlight.end(), [this](const auto& it) {
            return scene.frames[it.second].isStarted && !IsThrough(it.second);
        });
        if (oldest != inFlight.end()) {
            scene.frames[oldest->second].evicted = time;
            NoteTrouble(oldest->second, place, time);
            inFlight.erase(oldest);
        }
        scene.evictions.push_back(time);
    }

    void OnStageEvent(const Message& message, const Thread& thread, Micros time) {
        GrowStages(std::min(message.stage, MAX_STAGES - 1) + 1);
        hasStages = true;
        const uint32_t frame = FindOrOpen(message.frame, message.place, time);
        const NodeEnd by{.reporter = MAX_REPORTERS, .place = message.place, .time = time};
        if (message.kind == MessageKind::StageEnd) {
            return Leave(frame, message.stage, STAGE_END, by, thread.index);
        }
        if (message.stage > 0) {
            Leave(frame, message.stage - 1, 0, by, thread.index);
        }
        if (message.stage >= 0 && message.stage < scene.stageCount) {
            scene.PassOf(frame, message.stage).seen |= STAGE_START;
        }
    }

    void OnEnd(const Message& message, Micros time) {
        Frame& row = scene.frames[FindOrOpen(message.frame, message.place, time)];
        row.isEnded = true;
        row.end = row.end == NO_TIME ? time : row.end;
        inFlight.erase(static_cast<int32_t>(message.frame));
    }

    void OnViolation(const Message& message, Violation violation, Micros time) {
        const uint32_t frame = FindOrOpen(message.frame, message.place, time);
        Frame& row = scene.frames[frame];
        NoteTrouble(frame, message.place, time);
        if (row.violation == Violation::None || row.violation == Violation::NoSuchStage) {
            row.violation = violation;
            row.violationStage = message.stage;
            row.violationOther = message.otherStage;
        }
    }

    void OnEvent(const Message& message, const Thread& thread, Micros time) {
        switch (message.kind) {
            case MessageKind::StageStart:
            case MessageKind::StageEnd:
                return OnStageEvent(message, thread, time);
            case MessageKind::FrameAlreadyExists: {
                const uint32_t frame = FindOrOpen(message.frame, message.place, time);
                scene.frames[frame].isDuplicate = true;
                return NoteTrouble(frame, message.place, time);
            }
            case MessageKind::FrameStart:
            case MessageKind::FrameNotContinuous:
                return OnStart(message, time);
            case MessageKind::TableFull:
                return OnEviction(message.place, time);
            case MessageKind::FrameEnd:
                return OnEnd(message, time);
            case MessageKind::EndedFrameNotExist:
                if (const auto frame = Find(message.frame)) {
                    Micros& end = scene.frames[*frame].refusedEnd;
                    end = end == NO_TIME ? time : end;
                }
                return;
            case MessageKind::FrameNotExist:
                // Of a number that nobody knows there is no frame.
                if (const auto frame = Find(message.frame)) {
                    if (!scene.frames[*frame].isEnded) {
                        NoteRefused(*frame, time);
                    }
                    // What a node's end led to says no more than that.
                    const bool isOfNode = thread.last.frame == message.frame &&
                                          time - thread.last.time <= limits::TOGETHER;
                    if (!isOfNode) {
                        refused.push_back({*frame, message.place, time});
                    }
                }
                return;
            case MessageKind::StageNotInRange:
                return OnViolation(message, Violation::NoSuchStage, time);
            case MessageKind::StageOutOfOrder:
                return OnViolation(message, Violation::OutOfOrder, time);
            case MessageKind::StageOutOfTurn:
                return OnViolation(message, Violation::OutOfTurn, time);
            default:
                return;
        }
    }

    // Where a HAL reports stages itself, the line of a refused event names no stage. Frames go
    // through stages in order, so each moment with such lines is the end of the next one.
    void PlaceRefused() {
        for (const Refused& event : refused) {
            int32_t next = 0;
            while (next < scene.stageCount && scene.PassOf(event.row, next).HasLeft()) {
                ++next;
            }
            const Micros came =
                next < scene.stageCount ? scene.ArrivalOf(event.row, next) : NO_TIME;
            if (event.time > std::max(came, scene.frames[event.row].seen)) {
                const NodeEnd by{
                    .reporter = MAX_REPORTERS, .place = event.place, .time = event.time};
                Leave(event.row, next, 0, by, 0);
            }
        }
    }

    std::unordered_map<int32_t, uint32_t> rows;  // By the library's keys: the low 32 bits.
    std::map<int32_t, uint32_t> inFlight;        // The library's table, by the same.
    std::map<int32_t, Thread> threads;
    std::optional<int64_t> lastLeft;  // The number that last left stage 0.
    std::vector<Refused> refused;
    bool hasStages = false;  // Some event was of a stage.
};

// Frames come in about the order of their rows.
void SceneReader::Running::Forget(Micros before) {
    uint32_t old = 0;
    while (old < scene.frames.size() &&
           std::max(scene.LastOf(old).second, scene.frames[old].end) < before) {
        ++old;
    }
    if (old == 0) {
        return;
    }
    scene.frames.erase(scene.frames.begin(), scene.frames.begin() + old);
    scene.passes.erase(scene.passes.begin(),
                       scene.passes.begin() + std::ptrdiff_t{old} * scene.stageCount);
    const auto isOld = [before](const auto& it) { return it.time < before; };
    const auto move = [old](auto& list, auto rowOf) {
        std::erase_if(list, [&](auto& it) { return rowOf(it) < old; });
        for (auto& it : list) {
            rowOf(it) -= old;
        }
    };
    const auto second = [](auto& it) -> auto& {
        return it.second;
    };
    std::erase_if(rows, [old](const auto& it) { return it.second < old; });
    std::erase_if(inFlight, [old](const auto& it) { return it.second < old; });
    std::for_each(rows.begin(), rows.end(), [&](auto& it) { second(it) -= old; });
    std::for_each(inFlight.begin(), inFlight.end(), [&](auto& it) { second(it) -= old; });
    move(
        scene.repeats, [](auto& it) -> auto& { return it.frame; });
    move(
        refused, [](auto& it) -> auto& { return it.row; });
    std::erase_if(scene.evictions, [before](Micros time) { return time < before; });
    std::erase_if(scene.leftOut, isOld);
    std::erase_if(scene.clockSteps, isOld);
    std::erase_if(scene.silences, [before](const auto& it) { return it.end < before; });
    scene.isBeginningMissing = true;
    scene.begin = before;
}

struct SceneReader::Process {
    int32_t number = -1;
    size_t configuration = 0;  // Of `configurations`, plus one.
    Dumping dumping{};
    bool isDescribed = false, isVideo = false;
    int32_t width = 0, fps = 0;
    // A description as no video, until it shows whether anything comes of it.
    std::optional<std::pair<Place, Micros>> pending{};
    std::set<int32_t> setThreads{};
    std::optional<Running> running{};
    // The scene before numbers started again, whose frames may still come out.
    std::optional<Running> before{};
    // Events since numbers fell, until enough have come to say whether they started again.
    struct Held {
        Message message;
        std::string name;
        Moment moment;
    };
    std::deque<Held> held{};
    std::optional<Micros> endedAt{};  // When its last scene ended.
    Micros last = NO_TIME;            // The time of its last line.
};

SceneReader::SceneReader() = default;
SceneReader::~SceneReader() = default;

SceneReader::Process& SceneReader::ProcessOf(int32_t number) {
    auto found = processes.find(number);
    if (found == processes.end()) {
        if (processes.size() >= MAX_PROCESSES) {
            for (auto& [other, process] : processes) {
                EndScene(process, Stop::ProcessGone, {}, process.last);
            }
            processes.clear();
        }
        found = processes.try_emplace(number).first;
        found->second.number = number;
    }
    return found->second;
}

void SceneReader::OnMessage(const Message& message, const Moment& moment) {
    const Micros time = moment.time;
    latest = std::max(latest, time);
    hasThreads = hasThreads || moment.thread != -1;
    Process& process = ProcessOf(moment.process);
    if (process.dumping.Begins(message)) {
        Load(process, time);
    }
    process.last = std::max(process.last, time);
    if (message.kind <= MessageKind::DumpStage) {
        AddDumped(message, configurations[process.configuration - 1].configuration);
        return;
    }
    switch (message.kind) {
        case MessageKind::NoVideo:
        case MessageKind::Video:
            return Describe(process, message, time);
        case MessageKind::SceneDisabled:
            process.pending.reset();
            return Refuse(process, Refusal::Disabled, message.place, time);
        case MessageKind::SceneStart:
            process.pending.reset();
            return message.flag ? Start(process, message.place, time)
                                : Refuse(process, Refusal::Service, message.place, time);
        case MessageKind::SceneEnd:
            EndScene(process, Stop::SceneEnd, message.place, time);
            process.endedAt = time;
            return;
        case MessageKind::SetTid:
            process.setThreads.insert(message.tid);
            return;
        case MessageKind::AddPersistTid:
        case MessageKind::RemoveTid:
        case MessageKind::DumpInfo:
            return;
        default:
            return OnEvent(process, message, moment);
    }
}

// A process loads the library once: it is a new one.
void SceneReader::Load(Process& process, Micros time) {
    EndScene(process, Stop::ProcessGone, {}, process.last);
    RefusePending(process);
    configurations.push_back({process.number, {}, {}});
    loads.emplace_back(time, process.number);
    process = Process{.number = process.number,
                      .configuration = configurations.size(),
                      .dumping = process.dumping};
}

void SceneReader::Describe(Process& process, const Message& message, Micros time) {
    RefusePending(process);
    process.isDescribed = true;
    process.isVideo = message.kind == MessageKind::Video;
    process.width = message.width;
    process.fps = message.fps;
    if (!process.isVideo) {
        // Precedes the end of a scene that runs.
        if (!process.running) {
            process.pending = {message.place, time};
        }
        return;
    }
    // What comes of the description is in it.
    Configuration* configuration = ConfigurationOf(configurations, process.configuration);
    if (message.acceptedFps == 0) {
        return Refuse(process, Refusal::Description, message.place, time);
    }
    if (configuration != nullptr && message.width != BOOST_WIDTH) {
        configuration->additionalWidth = message.width;
    }
}

void SceneReader::RefusePending(Process& process) {
    if (const auto pending = std::exchange(process.pending, std::nullopt)) {
        Refuse(process, Refusal::NoVideo, pending->first, pending->second);
    }
}

void SceneReader::Refuse(Process& process, Refusal why, const Place& place, Micros time) {
    Scene scene = Begin(process, place, time);
    scene.refusal = why;
    // A HAL that tries the same again and again has one such scene.
    const auto isSame = [&scene](const Scene& other) {
        return other.process == scene.process && other.refusal == scene.refusal &&
               other.width == scene.width && other.fps == scene.fps;
    };
    if (ended.empty() || !isSame(ended.back())) {
        ended.push_back(std::move(scene));
    }
    ++ended.back().refusals;
    ended.back().to = place;
    ended.back().end = time;
}

Scene SceneReader::Begin(const Process& process, const Place& place, Micros time) const {
    Scene scene;
    scene.from = scene.to = place;
    scene.begin = scene.end = time;
    scene.process = process.number;
    scene.isDescribed = process.isDescribed;
    scene.isVideo = process.isVideo;
    scene.width = process.width;
    scene.fps = process.fps;
    scene.configuration = process.configuration;
    return scene;
}

void SceneReader::Start(Process& process, const Place& place, Micros time) {
    if (process.running) {
        return;  // The library goes on with the scene that runs.
    }
    process.running.emplace(Begin(process, place, time), time);
    Running& running = *process.running;
    running.scene.isStarted = true;
    if (const auto* known = ConfigurationOf(configurations, process.configuration)) {
        int32_t count = known->stageCount.value_or(0);
        for (const ConfiguredStage& stage : known->stages) {
            count = std::max(count, std::min(stage.stage, MAX_STAGES - 1) + 1);
        }
        running.GrowStages(count);
    }
}

void SceneReader::OnEvent(Process& process, const Message& message, const Moment& moment) {
    if (!process.running) {
        process.pending.reset();
        const bool isAfterEnd =
            process.endedAt && moment.time - *process.endedAt < limits::STRAGGLING;
        Start(process, message.place, moment.time);
        process.running->scene.isBeginningMissing = true;
        process.running->scene.isAfterEnd = isAfterEnd;
        loads.emplace_back(moment.time, process.number);  // It had, before the capture.
    }
    Running& running = *process.running;
    const auto* known = ConfigurationOf(configurations, process.configuration);
    const auto opened = running.Opened(message, known);
    running.isBehindGap = running.isBehindGap || moment.time - running.last > limits::CUT;
    if (process.held.empty() && !running.isBehindGap && !(opened && running.IsAgain(*opened))) {
        return Take(process, message, moment);
    }
    process.held.push_back({message, std::string(message.name), moment});
    TakeHeld(process, false);
}

// Numbers have fallen. They started again if they stay low; two objects, or a line that is late,
// alternate with the numbers before. `isAll`: nothing more comes to tell.
void SceneReader::TakeHeld(Process& process, bool isAll) {
    const auto* known = ConfigurationOf(configurations, process.configuration);
    while (!process.held.empty()) {
        Running& running = *process.running;
        Process::Held& first = process.held.front();
        first.message.name = first.name;
        if (running.isBehindGap) {
            const Message* const next = NextStart(process);
            if (next == nullptr && !isAll) {
                return;
            }
            // The library would not take a frame of another count.
            const bool isTaken = next != nullptr && next->kind == MessageKind::FrameStart;
            if (isTaken && running.lastOpened && IsFarBelow(next->frame, *running.lastOpened)) {
                Cut(process);
                continue;
            }
        }
        const auto opened = running.Opened(first.message, known);
        if (opened && running.IsAgain(*opened)) {
            size_t opens = 0;
            bool isRestart = true;
            for (auto it = process.held.begin();
                 it != process.held.end() && opens < limits::RESTART_OPENS && isRestart; ++it) {
                it->message.name = it->name;
                if (const auto next = running.Opened(it->message, known)) {
                    ++opens;
                    isRestart = *next < *running.lastOpened;
                }
            }
            if (isRestart && opens < limits::RESTART_OPENS && !isAll) {
                return;
            }
            if (isRestart && opens > 1) {
                Restart(process);
            } else {
                ++running.scene.falls;
            }
        }
        const Process::Held taken = std::move(process.held.front());
        process.held.pop_front();
        Message message = taken.message;
        message.name = taken.name;
        Take(process, message, taken.moment);
    }
}

// The first of the held events that starts a frame, or would; null where none does.
const Message* SceneReader::NextStart(const Process& process) {
    const auto found =
        std::find_if(process.held.begin(), process.held.end(), [](const Process::Held& held) {
            return held.message.kind == MessageKind::FrameStart ||
                   held.message.kind == MessageKind::FrameNotContinuous;
        });
    return found == process.held.end() ? nullptr : &found->message;
}

// The held events are of another capture, in the middle of a scene.
void SceneReader::Cut(Process& process) {
    const std::deque<Process::Held> held = std::exchange(process.held, {});
    EndScene(process, Stop::CaptureEnd, {}, process.running->scene.end);
    process.held = held;
    Start(process, held.front().message.place, held.front().moment.time);
    process.running->scene.isBeginningMissing = true;
}

// Another scene begins with the first of the held events.
void SceneReader::Restart(Process& process) {
    const Process::Held& first = process.held.front();
    if (process.before) {
        ended.push_back(
            process.before->Closed(Stop::NumbersRestart, process.before->scene.stop,
                                   ConfigurationOf(configurations, process.configuration)));
    }
    process.before = std::move(process.running);
    process.running.reset();
    process.before->scene.stop = first.moment.time;
    Start(process, first.message.place, first.moment.time);
    process.running->scene.restartedAfter = process.before->lastOpened;
    process.running->scene.stagesBefore = process.before->StagesLeft();
    process.running->scene.hasNodes = process.before->scene.hasNodes;
    process.running->GrowStages(process.before->scene.stageCount);
}

void SceneReader::Take(Process& process, const Message& message, const Moment& moment) {
    Configuration* known = ConfigurationOf(configurations, process.configuration);
    Running& running = *process.running;
    if (const auto opened = running.Opened(message, known)) {
        running.lastOpened = *opened;
    }
    // A frame of the count before may still be on its way.
    const bool isOld = process.before && process.before->Has(message.frame) &&
                       !running.Has(message.frame) && message.kind != MessageKind::TableFull &&
                       message.frame > *running.lastOpened;
    // No thread of the process logged anything.
    const Span silence = {std::max(running.last, process.before ? process.before->last : NO_TIME),
                          moment.time};
    if (silence.Length() > limits::SILENCE) {
        running.scene.silences.push_back({silence, message.place});
        if (process.before) {
            process.before->scene.silences.push_back({silence, message.place});
        }
    }
    (isOld ? *process.before : running).Take(message, moment.thread, known, moment.time);
}

void SceneReader::EndScene(Process& process, Stop stopped, const Place& place, Micros time) {
    if (!process.running) {
        return;
    }
    TakeHeld(process, true);
    Scene& scene = process.running->scene;
    if (stopped == Stop::SceneEnd) {
        scene.to = place;
        scene.end = std::max(scene.end, time);
    }
    Close(process, std::move(process.before), std::move(*process.running), stopped, time, ended);
    process.setThreads.clear();
    process.running.reset();
    process.before.reset();
}

void SceneReader::Close(const Process& process, std::optional<Running> before, Running running,
                        Stop stopped, Micros stop, std::vector<Scene>& closed) const {
    const auto* known = ConfigurationOf(configurations, process.configuration);
    const auto close = [&](Running& one, Stop how, Micros when) {
        closed.push_back(one.Closed(how, when, known));
        closed.back().hasThreads = hasThreads;
        closed.back().setThreads = process.setThreads;
    };
    if (before) {
        close(*before, Stop::NumbersRestart, before->scene.stop);
    }
    // Node ends that race with the end of a scene are no scene.
    if (!running.scene.isAfterEnd || running.last - running.scene.begin >= limits::STRAGGLING) {
        close(running, stopped, stop);
    }
}

void SceneReader::OnLinesLeftOut(int64_t lines, const Moment& moment, const Place& place) {
    const auto found = processes.find(moment.process);
    if (found != processes.end()) {
        (found->second.running ? found->second.running->scene.leftOut : leftOutside)
            .push_back({moment.time, lines, place});
    }
}

void SceneReader::OnClockSet(Micros step, const Moment& moment, const Place& place) {
    bool isInScene = false;
    for (auto& [number, process] : processes) {
        if (process.running) {
            process.running->scene.clockSteps.push_back({moment.time, step, place});
            process.running->last = moment.time;
            process.running->isBehindGap = process.running->isBehindStep = step > 0;
            isInScene = true;
        }
    }
    if (!isInScene) {
        clockOutside.push_back({moment.time, step, place});
    }
}

Readings SceneReader::Look(Micros last) const {
    std::vector<Scene> scenes = ended;
    for (const auto& [number, process] : processes) {
        if (process.running) {
            Close(process, process.before, *process.running, Stop::Looked,
                  last == NO_TIME ? latest : last, scenes);
        }
    }
    return ReadingsOf(std::move(scenes));
}

Readings SceneReader::Finish(Micros last) {
    last = last == NO_TIME ? latest : last;
    for (auto& [number, process] : processes) {
        // A process that logs nothing from when another one loads the library is gone.
        const bool isReplaced = std::any_of(
            loads.begin(), loads.end(), [other = number, since = process.last](const auto& load) {
                return load.second != other && load.first >= since;
            });
        EndScene(process, isReplaced ? Stop::ProcessGone : Stop::CaptureEnd, {},
                 isReplaced ? process.last : last);
        RefusePending(process);
    }
    return ReadingsOf(std::move(ended));
}

Readings SceneReader::ReadingsOf(std::vector<Scene> scenes) const {
    std::stable_sort(scenes.begin(), scenes.end(),
                     [](const Scene& one, const Scene& other) { return one.from < other.from; });
    return {configurations, std::move(scenes), leftOutside, clockOutside, hasThreads};
}

void SceneReader::Forget(Micros before) {
    std::erase_if(ended, [before](const Scene& scene) { return scene.end < before; });
    for (auto& [number, process] : processes) {
        if (process.running) {
            process.running->Forget(before);
        }
        if (process.before && process.before->last < before) {
            process.before.reset();
        }
    }
}

}  // namespace tools
