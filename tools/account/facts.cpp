#include "tools/account/facts.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "cameraframeboost/tarvocameraframeboostutils.h"
#include "tools/account/wording.h"
#include "tools/log/calls.h"
#include "tools/log/dump.h"

namespace tools {
namespace {

constexpr int32_t MAX_STAGES = 64;        // More is nonsense.
constexpr uint16_t MAX_REPORTERS = 1000;  // As a number of one: none.
constexpr size_t MAX_PROCESSES = 256;
constexpr size_t PLACES = FrameTracker::DEFAULT_MAX_FRAME_TRACKED;
// Less than a frame's time at 60 frames per second; several threads log within one.
constexpr Micros SILENCE = 15 * MILLISECOND;
// Where a scene has just ended, node ends of other threads may still be on their way.
constexpr Micros STRAGGLING = 500 * MILLISECOND;
// After that time a frame of the count before is not expected any more.
constexpr Micros LONG_AGO = 2 * SECOND;
// A number that goes down by more than this many frames in flight starts again.
constexpr int64_t FAR_BELOW = 4 * PLACES;

Reason ReasonOfViolation(MessageKind kind) {
    return kind == MessageKind::StageNotInRange   ? Reason::NoSuchStage
           : kind == MessageKind::StageOutOfOrder ? Reason::OutOfOrder
                                                  : Reason::OutOfTurn;
}

}  // namespace

// A scene that goes on, with what it takes to read its lines.
struct FactsMaker::Running {
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

    Scene scene;
    // Both by the library's keys, the low 32 bits of numbers: the latest frame, and its table.
    std::unordered_map<int32_t, uint32_t> latest;
    std::map<int32_t, uint32_t> inFlight;
    std::unordered_map<int32_t, Thread> threads;
    std::optional<int64_t> lastLeft;     // The number that last left stage 0,
    std::optional<int64_t> lastStarted;  // and the one that was last started.
    uint16_t epoch = 0;
    Micros last = 0;  // The time of the last line.

    void GrowStages(int32_t count) {
        count = std::min(count, MAX_STAGES);
        if (count <= scene.stageCount) {
            return;
        }
        const auto before = static_cast<size_t>(scene.stageCount);
        const auto after = static_cast<size_t>(count);
        std::vector<StagePass> passes(scene.frames.size() * after);
        for (size_t i = 0; i < scene.passes.size(); ++i) {
            passes[i / before * after + i % before] = scene.passes[i];
        }
        scene.passes = std::move(passes);
        scene.stageCount = count;
        scene.stageNames.resize(after);
        scene.order.resize(after);
    }

    std::optional<uint32_t> Find(int64_t number) const {
        const auto found = latest.find(static_cast<int32_t>(number));
        return found == latest.end() ? std::nullopt : std::optional(found->second);
    }

    uint32_t Open(int64_t number, const Place& place, Micros time) {
        const auto index = static_cast<uint32_t>(scene.frames.size());
        Frame& frame = scene.frames.emplace_back();
        frame.number = number;
        frame.place = place;
        frame.told = time;
        frame.epoch = epoch;
        scene.passes.resize(scene.frames.size() * static_cast<size_t>(scene.stageCount));
        latest[static_cast<int32_t>(number)] = index;
        return index;
    }

    uint32_t FindOrOpen(int64_t number, const Place& place, Micros time) {
        const auto found = Find(number);
        return found ? *found : Open(number, place, time);
    }

    bool IsThrough(uint32_t frame) const {
        const Frame& row = scene.frames[frame];
        // One that was pushed out before it came is still to come.
        return row.isEnded ||
               (row.isEvicted && (scene.stageCount == 0 || scene.PassOf(frame, 0).HasLeft())) ||
               (scene.stageCount > 0 && scene.PassOf(frame, scene.stageCount - 1).HasLeft());
    }

    // Whether it is the newest frame, and had only been opened.
    bool IsOpenedAlone(uint32_t frame) const {
        return !inFlight.empty() && inFlight.rbegin()->second == frame &&
               scene.frames[frame].isStarted && scene.PassOf(frame, 0).seen == STAGE_START;
    }

    static bool IsFarBelow(int64_t number, int64_t before) {
        return before >= std::numeric_limits<int64_t>::min() + FAR_BELOW &&
               number < before - FAR_BELOW;
    }

    // A number that is below the one before it, and has been through or is far below, starts a new
    // count.
    void NoteNumber(int64_t number, int64_t before) {
        const auto known = Find(number);
        const bool isOfThisCount = known && scene.frames[*known].epoch == epoch;
        const bool isAgain = isOfThisCount ? IsThrough(*known) : IsFarBelow(number, before);
        if (number < before && isAgain && epoch < UINT16_MAX) {
            ++epoch;
            lastLeft = number;
            if (lastStarted) {
                lastStarted = number;
            }
        }
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
        StagePass& pass = scene.PassOf(frame, stage);
        if (how == NODE_END && (pass.seen & NODE_END) != 0) {
            scene.repeats.push_back({frame, stage, end.reporter, end.place, end.time});
            NoteTrouble(frame, end.place, end.time);
            return;
        }
        if ((how & pass.seen & STAGE_END) != 0) {
            scene.impossible.push_back(end.time);
        }
        if (how == NODE_END && scene.frames[frame].isEnded) {
            scene.frames[frame].isNotInFlight = true;  // What follows from it is refused.
        }
        pass.seen |= how;
        if (how == NODE_END || !pass.HasLeft()) {
            pass.reporter = end.reporter;
            pass.thread = thread;
        }
        if (!pass.HasLeft()) {
            pass.left = end.time;
            pass.place = end.place;
            scene.order[static_cast<size_t>(stage)].push_back(frame);
        }
    }

    // Whether a node end of the frame's number is another frame's. `before`: the number that last
    // left stage 0.
    bool IsOfAnother(uint32_t frame, const NodeEnd& end, std::optional<int64_t> before) const {
        const Frame& row = scene.frames[frame];
        // In a new count, or when its frame is through, it is.
        if (end.stage == 0) {
            return before != end.frame && (IsThrough(frame) || row.epoch != epoch);
        }
        if (row.epoch == epoch || !before) {
            return false;
        }
        if (*before >= end.frame) {
            return row.isEnded || scene.PassOf(frame, end.stage).HasLeft();
        }
        // As it is where lines are missing, the count has got there and its frame stood long.
        return static_cast<uint64_t>(end.frame) - static_cast<uint64_t>(*before) < PLACES &&
               end.time - LastOf(frame) > LONG_AGO;
    }

    // A node end that counts.
    void Take(NodeEnd& end, uint16_t thread) {
        end.isOpen = false;
        scene.reporters[end.reporter].counts = true;
        const std::optional<int64_t> before = lastLeft;
        if (end.stage == 0 && before) {
            NoteNumber(end.frame, *before);
        }
        if (end.frame >= 1) {
            auto frame = Find(end.frame);
            // One that had only been opened when numbers started again is opened for this count,
            // too.
            if (frame && end.stage == 0 && IsOpenedAlone(*frame)) {
                scene.frames[*frame].epoch = epoch;
            }
            if (!frame || IsOfAnother(*frame, end, before)) {
                frame = Open(end.frame, end.place, end.time);
            }
            Leave(*frame, end.stage, NODE_END, end, thread);
            if (end.stage == scene.stageCount - 1 && end.stage > 0) {
                inFlight.erase(static_cast<int32_t>(end.frame));
            }
        } else if (end.stage == 0 && scene.order[0].empty()) {
            scene.opened = end.time;
            scene.opener = end.frame;
        }
        if (end.stage == 0) {
            lastLeft = end.frame;
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

    // A frame in error leaves the table without a word.
    bool IsSound(uint32_t frame) const {
        return scene.frames[frame].isStarted && scene.frames[frame].violation == Reason::None;
    }

    // Whether the library may have started the frame: it is not in the table, and follows the
    // newest one there.
    bool IsPossible(int64_t number) const {
        const auto same = inFlight.find(static_cast<int32_t>(number));
        return (same == inFlight.end() || !IsSound(same->second)) &&
               (inFlight.empty() || !IsSound(inFlight.rbegin()->second) ||
                int64_t{inFlight.rbegin()->first} + 1 == number);
    }

    // The frame that is being started: the one that is known, unless it was before.
    uint32_t FindOrOpenToStart(const Message& message, Micros time) {
        const auto known = Find(message.frame);
        const bool isAgain =
            known && (scene.frames[*known].isStarted || scene.frames[*known].isGap ||
                      scene.frames[*known].epoch != epoch || IsThrough(*known));
        return known && !isAgain ? *known : Open(message.frame, message.place, time);
    }

    void OnDuplicate(const Message& message, Micros time) {
        const uint32_t frame = FindOrOpen(message.frame, message.place, time);
        scene.frames[frame].isDuplicate = true;
        NoteTrouble(frame, message.place, time);
    }

    void OnStart(const Message& message, Micros time) {
        const int64_t number = message.frame;
        const bool isForwarded = message.kind == MessageKind::FrameStart;
        // A HAL that starts a frame by itself may be ahead of the count of stage 0.
        const bool isNext = lastLeft && number > *lastLeft && number - 1 == *lastLeft;
        if (lastStarted && !isNext) {
            NoteNumber(number, *lastStarted);
        }
        lastStarted = number;
        if (isForwarded && !IsPossible(number)) {
            scene.impossible.push_back(time);
            inFlight.clear();  // What it was taken to hold has left by lines that are missing.
        }
        const uint32_t frame = FindOrOpenToStart(message, time);
        Frame& row = scene.frames[frame];
        row.start = time;
        row.isStarted = isForwarded;
        row.isGap = !isForwarded;
        if (isForwarded) {
            row.place = message.place;
        } else {
            row.newestBefore = message.lastFrame;
            NoteTrouble(frame, message.place, time);
        }
        // Where a frame is refused, the line that it pushes another one out comes behind this one.
        while (inFlight.size() > (isForwarded ? PLACES - 1 : PLACES)) {
            const auto inError = std::find_if(inFlight.begin(), inFlight.end(),
                                              [&](const auto& it) { return !IsSound(it.second); });
            inFlight.erase(inError == inFlight.end() ? inFlight.begin() : inError);
        }
        inFlight[static_cast<int32_t>(number)] = frame;
    }

    // The library says only that it made room: the lowest number leaves.
    void OnEviction(const Message& message, Micros time) {
        const auto oldest = std::find_if(inFlight.begin(), inFlight.end(), [this](const auto& it) {
            return scene.frames[it.second].isStarted && !IsThrough(it.second);
        });
        Scene::Eviction eviction{{}, message.place, time};
        if (oldest != inFlight.end()) {
            eviction.frame = oldest->second;
            scene.frames[oldest->second].isEvicted = true;
            inFlight.erase(oldest);
        }
        scene.evictions.push_back(eviction);
    }

    void OnStageEvent(const Message& message, const Thread& thread, Micros time) {
        GrowStages(std::min(message.stage, MAX_STAGES - 1) + 1);
        const uint32_t frame = FindOrOpen(message.frame, message.place, time);
        const NodeEnd by{.reporter = MAX_REPORTERS, .place = message.place, .time = time};
        if (message.kind == MessageKind::StageEnd) {
            Leave(frame, message.stage, STAGE_END, by, thread.index);
            return;
        }
        if (message.stage > 0) {
            Leave(frame, message.stage - 1, 0, by, thread.index);
        }
        if (message.stage >= 0 && message.stage < scene.stageCount) {
            StagePass& pass = scene.PassOf(frame, message.stage);
            if ((pass.seen & STAGE_START) != 0) {
                scene.impossible.push_back(time);
            }
            pass.seen |= STAGE_START;
        }
    }

    // When the frame was last told of.
    Micros LastOf(uint32_t frame) const {
        const Frame& row = scene.frames[frame];
        Micros time = std::max({row.told, row.start, row.end});
        for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
            time = std::max(time, scene.PassOf(frame, stage).left);
        }
        return time;
    }

    // Forgets the frames at the beginning that nothing was told of since.
    void Forget(Micros before) {
        uint32_t old = 0;
        while (old < scene.frames.size() && LastOf(old) < before) {
            ++old;
        }
        if (old == 0) {
            return;
        }
        const auto stages = static_cast<size_t>(scene.stageCount);
        scene.frames.erase(scene.frames.begin(), scene.frames.begin() + old);
        scene.passes.erase(scene.passes.begin(),
                           scene.passes.begin() + static_cast<std::ptrdiff_t>(old * stages));
        for (auto& left : scene.order) {
            std::erase_if(left, [old](uint32_t frame) { return frame < old; });
            std::transform(left.begin(), left.end(), left.begin(),
                           [old](uint32_t frame) { return frame - old; });
        }
        const auto moveAll = [old](auto& map) {
            std::erase_if(map, [old](const auto& it) { return it.second < old; });
            for (auto& [key, frame] : map) {
                frame -= old;
            }
        };
        moveAll(latest);
        moveAll(inFlight);
        std::erase_if(scene.repeats, [old](const auto& repeat) { return repeat.frame < old; });
        for (auto& repeat : scene.repeats) {
            repeat.frame -= old;
        }
        const auto isOld = [before](const auto& it) { return it.time < before; };
        std::erase_if(scene.evictions, isOld);
        for (auto& eviction : scene.evictions) {
            eviction.frame = eviction.frame && *eviction.frame >= old
                                 ? std::optional(*eviction.frame - old)
                                 : std::nullopt;
        }
        std::erase_if(scene.leftOut, isOld);
        std::erase_if(scene.clockSteps, isOld);
        std::erase_if(scene.impossible, [before](Micros time) { return time < before; });
        std::erase_if(scene.silences, [before](const auto& it) { return it.end < before; });
        scene.opener.reset();
        scene.isBeginningMissing = true;
        scene.begin = before;
    }

    void OnEnd(const Message& message, Micros time) {
        Frame& row = scene.frames[FindOrOpen(message.frame, message.place, time)];
        row.isEnded = true;
        row.end = row.end == NO_TIME ? time : row.end;
        inFlight.erase(static_cast<int32_t>(message.frame));
    }

    void OnViolation(const Message& message, Micros time) {
        const uint32_t frame = FindOrOpen(message.frame, message.place, time);
        Frame& row = scene.frames[frame];
        NoteTrouble(frame, message.place, time);
        if (row.violation == Reason::None || row.violation == Reason::NoSuchStage) {
            row.violation = ReasonOfViolation(message.kind);
            row.violationStage = message.stage;
            row.violationOther = message.otherStage;
        }
    }

    void OnEvent(const Message& message, Thread& thread, Micros time) {
        switch (message.kind) {
            case MessageKind::StageStart:
            case MessageKind::StageEnd:
                return OnStageEvent(message, thread, time);
            case MessageKind::FrameAlreadyExists:
                return OnDuplicate(message, time);
            case MessageKind::FrameStart:
            case MessageKind::FrameNotContinuous:
                return OnStart(message, time);
            case MessageKind::TableFull:
                return OnEviction(message, time);
            case MessageKind::FrameEnd:
                return OnEnd(message, time);
            case MessageKind::FrameNotExist: {
                // Of a number that nobody knows there is no frame.
                const auto frame = Find(message.frame);
                if (frame && !IsThrough(*frame)) {
                    scene.frames[*frame].isNotInFlight = true;
                }
                return;
            }
            case MessageKind::StageNotInRange:
            case MessageKind::StageOutOfOrder:
            case MessageKind::StageOutOfTurn:
                return OnViolation(message, time);
            default:
                return;
        }
    }
};

struct FactsMaker::Process {
    int32_t number = -1;
    size_t configuration = 0;  // Of `configurations`, plus one.
    Dumping dumping{};
    bool isDescribed = false, isVideo = false;
    int32_t width = 0, fps = 0;
    // A description as no video, until it shows whether anything comes of it.
    std::optional<std::pair<Place, Micros>> pending{};
    std::set<int32_t> setThreads{};
    std::unique_ptr<Running> running{};
    std::optional<Micros> endedAt{};  // When its last scene ended.
};

FactsMaker::FactsMaker() = default;
FactsMaker::~FactsMaker() = default;

FactsMaker::Process& FactsMaker::ProcessOf(int32_t number) {
    auto found = processes.find(number);
    if (found == processes.end()) {
        if (processes.size() >= MAX_PROCESSES) {
            for (auto& [other, process] : processes) {
                EndScene(process, false, {}, NO_TIME);
            }
            processes.clear();
        }
        found = processes.try_emplace(number).first;
        found->second.number = number;
    }
    return found->second;
}

void FactsMaker::OnMessage(const Message& message, const Moment& moment) {
    const Micros time = moment.time;
    latest = std::max(latest, time);
    hasThreads = hasThreads || moment.thread != -1;
    Process& process = ProcessOf(moment.process);
    if (process.dumping.Begins(message)) {
        Load(process, time);
    }
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
            return Refuse(process, Check::Disabled, message.place, time,
                          DisabledText(ConfigurationOf(configurations, process.configuration)),
                          Severity::Error);
        case MessageKind::SceneStart:
            process.pending.reset();
            return message.flag ? Start(process, message.place, time)
                                : Refuse(process, Check::SceneRefused, message.place, time,
                                         wording::SERVICE_REFUSED, Severity::Error);
        case MessageKind::SceneEnd:
            EndScene(process, true, message.place, time);
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
            return OnEvent(process, message, moment, time);
    }
}

// A process loads the library once: it is a new one.
void FactsMaker::Load(Process& process, Micros time) {
    EndScene(process, false, {}, time);
    RefusePending(process);
    configurations.push_back({process.number, {}, {}});
    process = Process{.number = process.number,
                      .configuration = configurations.size(),
                      .dumping = process.dumping};
}

void FactsMaker::Describe(Process& process, const Message& message, Micros time) {
    RefusePending(process);
    process.isDescribed = true;
    process.isVideo = message.kind == MessageKind::Video;
    process.width = message.width;
    process.fps = message.fps;
    if (!process.isVideo) {
        // Precedes the end of a scene that runs.
        if (process.running == nullptr) {
            process.pending = {message.place, time};
        }
        return;
    }
    // What comes of the description is in it.
    Configuration* configuration = ConfigurationOf(configurations, process.configuration);
    if (message.acceptedFps == 0) {
        return Refuse(process, Check::SceneRefused, message.place, time,
                      NotBoostedText(true, message.width, message.fps, configuration),
                      Severity::Warning);
    }
    if (configuration != nullptr && message.width != BOOST_WIDTH) {
        configuration->additionalWidth = message.width;
    }
}

void FactsMaker::RefusePending(Process& process) {
    if (const auto pending = std::exchange(process.pending, std::nullopt)) {
        Refuse(process, Check::SceneRefused, pending->first, pending->second,
               NotBoostedText(false, process.width, process.fps, nullptr), Severity::Note);
    }
}

void FactsMaker::Refuse(Process& process, Check check, const Place& place, Micros time,
                        std::string message, Severity severity) {
    // A HAL that tries again and again is told of once.
    if (!ended.empty() && ended.back().process == process.number && !ended.back().isStarted &&
        ended.back().findings.front().message == message) {
        ++ended.back().findings.front().times;
        ended.back().to = place;
        ended.back().end = time;
        return;
    }
    Scene scene = Begin(process, place, time);
    scene.findings.push_back({check, severity, std::move(message), place, time});
    ended.push_back(std::move(scene));
}

Scene FactsMaker::Begin(const Process& process, const Place& place, Micros time) const {
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

void FactsMaker::Start(Process& process, const Place& place, Micros time) {
    if (process.running != nullptr) {
        return;  // The library goes on with the scene that runs.
    }
    process.running = std::make_unique<Running>();
    Running& running = *process.running;
    running.scene = Begin(process, place, time);
    running.scene.isStarted = true;
    running.last = time;
    if (const auto* known = ConfigurationOf(configurations, process.configuration)) {
        int32_t count = known->stageCount.value_or(0);
        for (const ConfiguredStage& stage : known->stages) {
            count = std::max(count, std::min(stage.stage, MAX_STAGES - 1) + 1);
        }
        running.GrowStages(count);
    }
}

// Node ends that race with the end of a scene are no scene.
bool FactsMaker::IsStraggling(const Process& process) {
    const Scene& scene = process.running->scene;
    return scene.isAfterEnd && process.running->last - scene.begin < STRAGGLING;
}

void FactsMaker::EndScene(Process& process, bool hasEnd, const Place& place, Micros time) {
    if (process.running == nullptr) {
        return;
    }
    if (!IsStraggling(process)) {
        Scene& scene = process.running->scene;
        if (hasEnd) {
            scene.hasEnd = true;
            scene.to = place;
            scene.end = std::max(scene.end, time);
        }
        ended.push_back(Closed(process, std::move(scene), time));
    }
    process.setThreads.clear();
    process.running.reset();
}

// What is known when nothing more comes.
Scene FactsMaker::Closed(const Process& process, Scene scene, Micros stop) const {
    scene.stop = std::max(stop, scene.end);
    scene.hasThreads = hasThreads;
    scene.setThreads = process.setThreads;
    for (const auto& [key, frame] : process.running->inFlight) {
        scene.frames[frame].isHeld = true;
    }
    if (const auto* known = ConfigurationOf(configurations, process.configuration)) {
        for (const ConfiguredStage& stage : known->stages) {
            if (stage.stage >= 0 && stage.stage < scene.stageCount) {
                scene.stageNames[static_cast<size_t>(stage.stage)] = stage.node;
            }
        }
    }
    for (const Reporter& reporter : scene.reporters) {
        if (reporter.counts == true && reporter.stage >= 0 && reporter.stage < scene.stageCount) {
            std::string& name = scene.stageNames[static_cast<size_t>(reporter.stage)];
            name = name.empty() ? reporter.node : name;
        }
    }
    return scene;
}

void FactsMaker::OnEvent(Process& process, const Message& message, const Moment& moment,
                         Micros time) {
    if (process.running == nullptr) {
        process.pending.reset();
        const bool isAfterEnd = process.endedAt && time - *process.endedAt < STRAGGLING;
        Start(process, message.place, time);
        process.running->scene.isBeginningMissing = true;
        process.running->scene.isAfterEnd = isAfterEnd;
    }
    Running& running = *process.running;
    Scene& scene = running.scene;
    if (time - running.last > SILENCE) {
        scene.silences.push_back({{running.last, time}, message.place});
    }
    running.last = std::max(running.last, time);
    scene.to = message.place;
    scene.end = std::max(scene.end, time);

    const auto [found, isNew] = running.threads.try_emplace(moment.thread);
    Running::Thread& thread = found->second;
    if (isNew && scene.threads.size() < UINT16_MAX) {
        thread.index = static_cast<uint16_t>(scene.threads.size());
        scene.threads.push_back(moment.thread);
    }
    if (message.kind == MessageKind::NodeEnd) {
        Configuration* configuration = ConfigurationOf(configurations, process.configuration);
        if (configuration != nullptr) {
            configuration->stageCount = message.count;
        }
        return running.OnNodeEnd(message, thread, configuration, time);
    }
    Running::NodeEnd& last = thread.last;
    if (last.isOpen &&
        EventLines(EventsOf(last.frame, last.stage, last.stageCount)).Take(message)) {
        running.Take(last, thread.index);
    }
    running.OnEvent(message, thread, time);
}

void FactsMaker::OnLinesLeftOut(int64_t lines, const Moment& moment, const Place& place) {
    const auto found = processes.find(moment.process);
    if (found == processes.end()) {
        return;
    }
    if (found->second.running != nullptr) {
        found->second.running->scene.leftOut.push_back({moment.time, lines, place});
    } else {
        outside.push_back(OutsideFinding(Check::LinesLost, lines, place, moment.time));
    }
}

void FactsMaker::OnClockSet(Micros step, const Moment& moment, const Place& place) {
    bool isTold = false;
    for (auto& [number, process] : processes) {
        if (process.running != nullptr) {
            process.running->scene.clockSteps.push_back({moment.time, step, place});
            process.running->last = moment.time;
            isTold = true;
        }
    }
    if (!isTold) {
        outside.push_back(OutsideFinding(Check::ClockJump, step, place, moment.time));
    }
}

Account FactsMaker::Look(Micros last) const {
    std::vector<Scene> scenes = ended;
    for (const auto& [number, process] : processes) {
        if (process.running != nullptr && !IsStraggling(process)) {
            scenes.push_back(
                Closed(process, process.running->scene, last == NO_TIME ? latest : last));
            scenes.back().isGoingOn = true;
        }
    }
    return AccountOf(std::move(scenes));
}

Account FactsMaker::Finish(Micros last) {
    for (auto& [number, process] : processes) {
        EndScene(process, false, {}, last == NO_TIME ? latest : last);
        RefusePending(process);
    }
    return AccountOf(std::move(ended));
}

Account FactsMaker::AccountOf(std::vector<Scene> scenes) const {
    Account account;
    account.hasThreads = hasThreads;
    account.configurations = configurations;
    account.scenes = std::move(scenes);
    std::stable_sort(account.scenes.begin(), account.scenes.end(),
                     [](const Scene& one, const Scene& other) { return one.from < other.from; });
    for (const SceneFinding& finding : outside) {
        const auto known = std::find_if(
            account.findings.begin(), account.findings.end(),
            [&finding](const SceneFinding& other) { return other.check == finding.check; });
        if (known == account.findings.end()) {
            account.findings.push_back(finding);
        } else {
            ++known->times;
        }
    }
    return account;
}

// Frames are told of in about the order in which they come.
void FactsMaker::Forget(Micros before) {
    std::erase_if(ended, [before](const Scene& scene) { return scene.end < before; });
    for (auto& [number, process] : processes) {
        if (process.running != nullptr) {
            process.running->Forget(before);
        }
    }
}

}  // namespace tools
