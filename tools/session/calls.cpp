#include "tools/session/calls.h"

#include <algorithm>
#include <iterator>
#include <span>

namespace tools {
namespace {

// Lines of one call follow one another at once; a scene's end and a description that led to it
// stand no further apart.
constexpr Micros AT_ONCE = 10'000;
// A call without a line for that many lines of others has had its last one.
constexpr uint64_t OLD_LINES = 4096;
// No call leaves more lines than this, but for lists of threads; input that says so is nonsense.
constexpr size_t MOST_LINES = 4096;
constexpr size_t MOST_NODE_LINES = 32;
constexpr size_t MOST_THREADS = 4096;
constexpr size_t MOST_PROCESSES = 256;
constexpr size_t MOST_SLOTS = 64;

// Stands for a thread where the form has none; slots of nodes come behind it.
constexpr int64_t NO_THREAD = -1;
constexpr int64_t FIRST_SLOT = int64_t{1} << 32;

// What a derived stage start passes, which is what a HAL passes as a rule.
constexpr int32_t STAGE_ARG2 = 20;
// The statement that refuses the end of a stage that is not running; another one does the start.
constexpr int32_t LINE_OF_END_OUT_OF_TURN = 401;

bool IsDump(MessageKind kind) {
    return kind <= MessageKind::DumpStage;
}

// Whether it is about the scene as a whole: what was before it is over.
bool IsOfScene(MessageKind kind) {
    return kind >= MessageKind::NoVideo && kind <= MessageKind::SceneEnd;
}

// Whether the line may follow from the node end.
bool FollowsFrom(const Message& nodeEnd, const Message& message) {
    const bool isFirst = nodeEnd.stage == 0;
    const bool isSame = message.frame == nodeEnd.frame;
    const bool isNext = isFirst && message.frame - 1 == nodeEnd.frame;
    switch (message.kind) {
        case MessageKind::StageEnd:
            return isSame && message.stage == nodeEnd.stage && message.name == nodeEnd.name;
        case MessageKind::StageStart:
            return ((isSame && message.stage == nodeEnd.stage + 1) ||
                    (isNext && message.stage == 0)) &&
                   message.name == nodeEnd.name;
        case MessageKind::FrameAdded:
        case MessageKind::TableFull:
            return isFirst;
        case MessageKind::FrameStart:
        case MessageKind::FrameAlreadyExists:
        case MessageKind::FrameNotContinuous:
            return isNext;
        case MessageKind::FrameEnd:
        case MessageKind::EndedFrameNotExist:
            return isSame && !isFirst;
        case MessageKind::StageNotInRange:
        case MessageKind::StageOutOfOrder:
        case MessageKind::StageOutOfTurn:
            return (isSame &&
                    (message.stage == nodeEnd.stage || message.stage - 1 == nodeEnd.stage)) ||
                   (isNext && message.stage == 0);
        case MessageKind::FrameNotExist:
        case MessageKind::FrameInError:
        case MessageKind::FrameRemoved:
            return isSame || isNext;
        default:
            return false;
    }
}

// Whether a line that follows from the node end may be the last one.
bool MayBeLast(const Message& nodeEnd, const Message& message) {
    if (nodeEnd.stage == 0) {
        return message.kind != MessageKind::FrameStart &&
               message.kind != MessageKind::FrameNotContinuous &&
               message.frame - 1 == nodeEnd.frame;
    }
    return message.kind != MessageKind::StageEnd;
}

bool MayFollow(std::span<const Message> messages, const Message& message, Micros passed) {
    const MessageKind last = messages.back().kind;
    const MessageKind kind = message.kind;
    switch (messages.front().kind) {
        case MessageKind::NodeEnd:
            return messages.size() < MOST_NODE_LINES && FollowsFrom(messages.front(), message);
        case MessageKind::FrameNotContinuous:
        case MessageKind::TableFull:
        case MessageKind::FrameAdded:
            return (last == MessageKind::FrameNotContinuous && kind == MessageKind::TableFull) ||
                   (last < MessageKind::FrameAdded    ? false
                    : last == MessageKind::FrameAdded ? kind == MessageKind::FrameStart
                                                      : kind == MessageKind::FrameAdded);
        case MessageKind::SetTid:
            return (kind == MessageKind::SetTid && messages.size() < MOST_LINES &&
                    std::none_of(messages.begin(), messages.end(),
                                 [&](const Message& one) { return one.tid == message.tid; })) ||
                   kind == MessageKind::SceneStart;
        case MessageKind::NoVideo:
            return kind == MessageKind::RemoveTid || kind == MessageKind::SceneEnd;
        case MessageKind::RemoveTid:
        case MessageKind::SceneEnd:
            if (last == MessageKind::SceneEnd) {
                return kind == MessageKind::Video && message.acceptedFps == 0 && passed <= AT_ONCE;
            }
            return (kind == MessageKind::RemoveTid && messages.size() < MOST_LINES) ||
                   kind == MessageKind::SceneEnd;
        default:
            return false;
    }
}

void Insert(std::set<int32_t>& tids, int32_t tid) {
    if (tids.size() < MOST_LINES) {
        tids.insert(tid);
    }
}

}  // namespace

void CallFinder::OnMessage(const Message& message, const Moment& moment) {
    if (++ordinal % OLD_LINES == 0) {
        SettleOld();
    }
    Process& process = ProcessOf(message, moment);
    if (IsDump(message.kind)) {
        if (message.kind == MessageKind::DumpSwitch || !process.isDumping) {
            BeginRun(process, message, moment);
        }
        AddDumped(message, process.configuration);
        if (message.kind == MessageKind::DumpStage && message.stage == 0) {
            Load(process);  // It is dumped last.
        }
        return;
    }
    if (process.isDumping) {
        Load(process);
    }
    if (process.hasThreads != (moment.thread != -1)) {
        // The capture goes on in another form.
        SettleProcess(process, nullptr, false);
        process.hasThreads = !process.hasThreads;
    }
    Open& open = OpenOf(process, message, moment);
    if (IsOfScene(message.kind)) {
        SettleProcess(process, &open, false);
    }
    Feed(process, open, message, moment);
}

void CallFinder::Feed(Process& process, Open& open, const Message& message, const Moment& moment) {
    if (open.count != 0) {
        const Micros passed = moment.time == NO_TIME ? 0 : moment.time - open.last;
        if (!MayFollow(std::span(open.messages.data(), open.count), message, passed)) {
            Complete(process, open);
        } else if (!process.isDumped && open.messages[0].kind == MessageKind::NodeEnd) {
            process.Learn(open.messages[0]);
            open.isStagePort = true;
        }
    }
    if (open.count == open.messages.size()) {
        open.messages.emplace_back();
        open.names.emplace_back();
    }
    if (open.count == 0) {
        open.begin = moment;
        open.sceneEnds = process.sceneEnds;
    }
    Message& kept = open.messages[open.count];
    std::string& name = open.names[open.count];
    kept = message;
    // A line that follows from a node end has that node's name, or none.
    const bool isNamedAlready = open.count != 0 && open.messages[0].kind == MessageKind::NodeEnd;
    if (!isNamedAlready) {
        name = message.name;
    }
    kept.name = isNamedAlready ? open.messages[0].name : name;
    kept.list = {};
    ++open.count;
    open.last = moment.time;
    open.ordinal = ordinal;
    const int32_t tid = message.tid;
    if (message.kind == MessageKind::SetTid && !process.sceneTids.contains(tid)) {
        // What was not added before was added for this scene, which leaves no line. It is told
        // before the call that sets it, and before those of other threads that are being read.
        if (!process.persistTids.contains(tid)) {
            Begin("TcfbtAddTempTids", {tid}, true);
            HandOn(process, open, 0, TellEvents(step, {}, process.configuration));
        }
        Insert(process.sceneTids, tid);
    }
    if (message.kind == MessageKind::SceneStart) {
        process.isSceneStarted = process.isSceneStarted.value_or(false) || message.flag;
    } else if (message.kind == MessageKind::SceneEnd) {
        process.isSceneStarted = false;
        ++process.sceneEnds;
    }
    if (IsComplete(process, open)) {
        Complete(process, open);
    }
}

// Without a dump the configuration is what node ends show.
void CallFinder::Process::Learn(const Message& nodeEnd) {
    if (configuration.IsStagePort(nodeEnd.name, nodeEnd.port) || nodeEnd.stage < 0) {
        return;
    }
    auto& stages = configuration.stages;
    auto place = std::lower_bound(
        stages.begin(), stages.end(), nodeEnd.stage,
        [](const ConfiguredStage& stage, int32_t number) { return stage.stage < number; });
    if (place == stages.end() || place->stage != nodeEnd.stage) {
        if (stages.size() >= MOST_SLOTS) {
            return;
        }
        place = stages.insert(place, {nodeEnd.stage, std::string(nodeEnd.name), {}});
    }
    auto& ports = place->ports;
    const auto at = std::lower_bound(ports.begin(), ports.end(), nodeEnd.port);
    if (ports.size() < MOST_SLOTS && (at == ports.end() || *at != nodeEnd.port)) {
        ports.insert(at, nodeEnd.port);
    }
}

CallFinder::Process& CallFinder::ProcessOf(const Message& message, const Moment& moment) {
    if (lastProcess != nullptr && lastNumber == moment.process) {
        return *lastProcess;
    }
    auto found = processes.find(moment.process);
    if (found == processes.end()) {
        if (processes.size() >= MOST_PROCESSES) {
            Settle(false);
            processes.clear();
        }
        found = processes.try_emplace(moment.process).first;
        if (message.kind != MessageKind::DumpSwitch) {
            sink.OnDisturbance({Disturbance::Kind::Start, message.place, moment.time, 0});
        }
    }
    lastNumber = moment.process;
    lastProcess = &found->second;
    return *lastProcess;
}

CallFinder::Open& CallFinder::OpenOf(Process& process, const Message& message,
                                     const Moment& moment) {
    int64_t key = moment.thread;
    if (moment.thread == -1 && message.kind == MessageKind::NodeEnd) {
        // A node works on one thread.
        auto& slots = process.slots;
        const auto slot = std::find(slots.begin(), slots.end(), message.name);
        key = FIRST_SLOT + (slot - slots.begin());
        if (slot == slots.end()) {
            key = slots.size() < MOST_SLOTS ? key : NO_THREAD;
            slots.resize(std::min(slots.size() + 1, MOST_SLOTS), std::string(message.name));
        }
    } else if (moment.thread == -1) {
        // Of calls that it may belong to, the one that logged last is the most likely.
        Open* latest = nullptr;
        for (size_t slot = 0; slot < process.slots.size(); ++slot) {
            Open& open = process.opens[FIRST_SLOT + static_cast<int64_t>(slot)];
            if (open.count != 0 && FollowsFrom(open.messages[0], message) &&
                (latest == nullptr || open.ordinal > latest->ordinal)) {
                latest = &open;
            }
        }
        if (latest != nullptr) {
            return *latest;
        }
        key = NO_THREAD;
    }
    if (process.lastOpen == nullptr || process.lastKey != key) {
        if (process.opens.size() >= MOST_THREADS) {
            SettleProcess(process, nullptr, false);
            process.opens.clear();
        }
        process.lastOpen = &process.opens[key];
        process.lastKey = key;
    }
    return *process.lastOpen;
}

void CallFinder::Settle(bool isCut) {
    for (auto& [number, process] : processes) {
        if (process.isDumping) {
            Load(process);
        }
        SettleProcess(process, nullptr, isCut);
    }
}

void CallFinder::SettleScenes() {
    for (auto& [number, process] : processes) {
        for (auto& [key, open] : process.opens) {
            if (open.count != 0 && IsOfScene(open.messages[0].kind)) {
                Complete(process, open);
            }
        }
    }
}

void CallFinder::SettleProcess(Process& process, const Open* except, bool isCut) {
    for (auto& [key, open] : process.opens) {
        while (&open != except && open.count != 0) {
            // What came last may have been cut off.
            Complete(process, open, isCut && open.ordinal + MOST_NODE_LINES > ordinal);
        }
    }
}

void CallFinder::SettleOld() {
    for (auto& [number, process] : processes) {
        for (auto& [key, open] : process.opens) {
            const bool isOld = open.ordinal + OLD_LINES < ordinal;
            while (open.count != 0 && isOld) {
                Complete(process, open);
            }
        }
    }
}

void CallFinder::BeginRun(Process& process, const Message& message, const Moment& moment) {
    if (process.isDumping) {
        Load(process);
    }
    SettleProcess(process, nullptr, false);
    process = Process();
    process.isDumping = true;
    process.dumpPlace = message.place;
    process.dumpMoment = moment;
    process.isSceneStarted = false;
    process.configuration.isEnabled = true;  // Unless the line that tells it says otherwise.
}

void CallFinder::Load(Process& process) {
    process.isDumping = false;
    process.isDumped = true;
    step.call.operation = nullptr;
    step.call.arguments.clear();
    step.events.clear();
    step.result.reset();
    step.isGuessed = false;
    step.place = process.dumpPlace;
    step.time = process.dumpMoment.time;
    step.process = process.dumpMoment.process;
    step.thread = process.dumpMoment.thread;
    step.loaded = process.configuration;
    sink.OnStep(step);
    step.loaded.reset();
}

bool CallFinder::IsComplete(const Process& process, Open& open) {
    const Message& first = open.messages[0];
    const Message& last = open.messages[open.count - 1];
    switch (first.kind) {
        case MessageKind::NodeEnd: {
            if (open.count == 1) {
                if (open.node != first.name || open.port != first.port) {
                    open.node = first.name;
                    open.port = first.port;
                    open.isStagePort = process.configuration.IsStagePort(first.name, first.port);
                }
                return first.stage < 0 || (first.stage > 0 && first.frame < 1) ||
                       (process.isDumped && !open.isStagePort);
            }
            if (!MayBeLast(first, last)) {
                return false;
            }
            FillNodeEnd(first);
            told = TellEvents(step, std::span(open.messages.data(), open.count),
                              process.configuration, false, open.isStagePort);
            auto event = step.events.rbegin();
            while (event != step.events.rend() && event->kind == EventKind::Report) {
                ++event;
            }
            if (event != step.events.rend() &&
                (event->outcome == Outcome::FrameInError || event->outcome == Outcome::Unknown)) {
                told.reset();
            }
            return told.has_value();
        }
        case MessageKind::FrameNotContinuous:
        case MessageKind::TableFull:
        case MessageKind::FrameAdded:
            return last.kind == MessageKind::FrameStart ||
                   (last.kind == MessageKind::FrameAdded && last.flag);
        case MessageKind::NoVideo:
            // It logs the scene as it was: only one to boost may be running.
            return last.kind == MessageKind::SceneEnd || first.scene != 0 ||
                   !process.isSceneStarted.value_or(true);
        case MessageKind::SetTid:
            return last.kind == MessageKind::SceneStart;
        case MessageKind::RemoveTid:
        case MessageKind::SceneEnd:
            return last.kind == MessageKind::Video;
        default:
            return true;
    }
}

void CallFinder::Complete(Process& process, Open& open, bool isCut) {
    const Message& first = open.messages[0];
    const Message& last = open.messages[open.count - 1];
    switch (first.kind) {
        case MessageKind::NodeEnd:
            CompleteNodeEnd(process, open, isCut);
            return;  // There may be lines left.
        case MessageKind::FrameNotContinuous:
        case MessageKind::TableFull:
        case MessageKind::FrameAdded:
        case MessageKind::FrameStart:
        case MessageKind::FrameAlreadyExists:
            CompleteFrameStart(process, open);
            break;
        case MessageKind::FrameEnd:
        case MessageKind::EndedFrameNotExist:
            Begin("TcfbtNotifyFrameEnd", {first.frame});
            Emit(process, open);
            break;
        case MessageKind::NoVideo:
            if (last.kind == MessageKind::SceneEnd) {
                process.sceneTids.clear();
            }
            Begin("TcfbtSetSceneInfo", {false, first.width, first.fps});
            Emit(process, open);
            break;
        case MessageKind::Video:
            Begin("TcfbtSetSceneInfo", {true, first.width, first.fps});
            Emit(process, open);
            break;
        case MessageKind::SetTid:
        case MessageKind::SceneStart:
        case MessageKind::SceneDisabled:
        case MessageKind::RemoveTid:
        case MessageKind::SceneEnd:
            CompleteThreads(process, open);
            break;
        case MessageKind::AddPersistTid:
            Begin("TcfbtAddPersistTids", {std::string(first.name), first.tid});
            Insert(process.persistTids, first.tid);
            Emit(process, open);
            break;
        case MessageKind::DumpInfo:
            Begin("DumpInfo", {});
            Emit(process, open);
            break;
        default:
            CompleteStageEvent(process, open);
    }
    open.count = 0;
}

void CallFinder::FillNodeEnd(const Message& message) {
    static const Operation* const operation = FindOperation("TcfbtNotifyNodeEnd");
    std::vector<Value>& arguments = step.call.arguments;
    step.call.operation = operation;
    step.result.reset();
    step.isGuessed = false;
    arguments.resize(5);
    arguments[0] = message.frame;
    // The text keeps its memory.
    if (auto* const name = std::get_if<std::string>(&arguments[1])) {
        *name = message.name;
    } else {
        arguments[1] = std::string(message.name);
    }
    arguments[2] = message.port;
    arguments[3] = message.camera;
    arguments[4] = message.flag;
}

void CallFinder::CompleteNodeEnd(Process& process, Open& open, bool isCut) {
    if (!told) {
        FillNodeEnd(open.messages[0]);
        told = TellEvents(step, std::span(open.messages.data(), open.count), process.configuration,
                          isCut, open.isStagePort);
    }
    const size_t read = HandOn(process, open, 0, *told).read;
    told.reset();
    process.hasNodeEnds = process.hasNodeEnds || read > 1;
    if (read < open.count) {
        // What it does not explain are calls of their own.
        Open single;
        for (size_t i = read; i < open.count; ++i) {
            single.messages.assign(1, open.messages[i]);
            single.count = 1;
            single.begin = open.begin;
            Complete(process, single);
        }
    }
    open.count = 0;
}

void CallFinder::CompleteFrameStart(const Process& process, const Open& open) {
    // Not every line of it names the frame.
    const std::span<const Message> messages(open.messages.data(), open.count);
    const auto named = std::find_if(messages.begin(), messages.end(), [](const Message& message) {
        return message.kind != MessageKind::TableFull && message.kind != MessageKind::FrameAdded;
    });
    if (named == messages.end()) {
        NoteLost(open, 1);
        return;
    }
    Begin("TcfbtNotifyFrameStart", {named->frame});
    Emit(process, open);
}

void CallFinder::CompleteStageEvent(const Process& process, Open& open) {
    const Message& message = open.messages[0];
    const bool isEnd =
        message.kind == MessageKind::StageEnd || (message.kind == MessageKind::StageOutOfTurn &&
                                                  message.sourceLine == LINE_OF_END_OUT_OF_TURN);
    const bool isNamed =
        message.kind == MessageKind::StageStart || message.kind == MessageKind::StageEnd;
    // A node that reports its ends to the library reports no stages itself: the node end's line is
    // lost. Both that it ends one stage and that it starts the next one show it, once.
    const int32_t ended = isEnd ? message.stage : message.stage - 1;
    if (process.hasNodeEnds && isNamed && ended >= 0 &&
        process.configuration.StageOf(message.name) == ended) {
        if (open.lost != std::pair(message.frame, ended)) {
            NoteLost(open, 1);
        }
        open.lost = {message.frame, ended};
    }
    const std::string name(message.name);
    if (isEnd) {
        Begin("TcfbtNotifyStageEnd", {message.stage, message.frame, name}, !isNamed);
    } else {
        Begin("TcfbtNotifyStageStart", {message.stage, message.frame, 0, STAGE_ARG2, name}, true);
    }
    Emit(process, open);
}

// Calls with lists of threads: their setting, maybe by a scene's start, and their removal, maybe by
// its end.
void CallFinder::CompleteThreads(Process& process, const Open& open) {
    const std::span<const Message> messages(open.messages.data(), open.count);
    std::vector<int32_t> tids;
    for (const Message& message : messages) {
        if (message.kind == MessageKind::SetTid || message.kind == MessageKind::RemoveTid) {
            tids.push_back(message.tid);
        }
    }
    const Configuration& configuration = process.configuration;
    const bool isSetting = messages[0].kind == MessageKind::SetTid;
    const MessageKind last = messages.back().kind;
    if (last == MessageKind::SceneStart) {
        const auto& modes = configuration.modes;
        Begin("TcfbtNotifySceneStart", {modes.empty() ? 0 : modes.front()}, true);
        step.result = messages.back().flag ? std::optional<int32_t>(0) : std::nullopt;
        Emit(process, open);
    } else if (last == MessageKind::SceneDisabled) {
        // Of those that are not supported, one.
        int32_t mode = 0;
        for (const int32_t supported : configuration.modes) {
            mode += configuration.isEnabled && supported == mode ? 1 : 0;
        }
        Begin("TcfbtNotifySceneStart", {mode}, true);
        step.result = -1;
        Emit(process, open);
    } else if (isSetting) {
        Begin("TcfbtSetTids", {});
        Emit(process, open);
    } else {
        // A scene's end removes all that were set, once; what comes before that is another call.
        const bool isEnd = last != MessageKind::RemoveTid;
        const size_t ofEnd = process.sceneTids.empty() ? tids.size() : process.sceneTids.size();
        const size_t direct = !isEnd ? tids.size() : tids.size() - std::min(tids.size(), ofEnd);
        if (direct != 0) {
            tids.resize(direct);
            Begin("TcfbtRemoveTids", {tids}, true);
            Emit(process, open);
        }
        if (!isEnd) {
            return;
        }
        process.sceneTids.clear();
        if (last == MessageKind::SceneEnd) {
            Begin("TcfbtNotifySceneEnd", {});
        } else {
            Begin("TcfbtSetSceneInfo", {true, messages.back().width, messages.back().fps});
        }
        Emit(process, open, direct);
    }
}

void CallFinder::NoteLost(const Open& open, size_t lines) {
    sink.OnDisturbance({Disturbance::Kind::LinesLost, open.messages[0].place, open.begin.time,
                        static_cast<int64_t>(lines)});
}

void CallFinder::Begin(std::string_view operation, std::initializer_list<Value> arguments,
                       bool isGuessed) {
    step.call.operation = FindOperation(operation);
    step.call.arguments = arguments;
    step.result.reset();
    step.isGuessed = isGuessed;
}

// Hands on the call that `step` holds. Its lines are the open one's from `first` on.
void CallFinder::Emit(const Process& process, const Open& open, size_t first) {
    HandOn(process, open, first,
           TellEvents(step, std::span(open.messages.data(), open.count).subspan(first),
                      process.configuration));
}

// The same for a call whose events have been told.
Told CallFinder::HandOn(const Process& process, const Open& open, size_t first, Told result) {
    step.place = open.messages[std::min(first, open.count - 1)].place;
    step.time = open.begin.time;
    step.process = open.begin.process;
    step.thread = open.begin.thread;
    if (open.sceneEnds != process.sceneEnds) {
        // The scene ended while the call ran.
        for (Event& event : step.events) {
            if (event.outcome == Outcome::FrameInError || event.outcome == Outcome::Unknown) {
                event.outcome = Outcome::NoScene;
                result.missing = 0;
            }
        }
    }
    if (result.missing != 0) {
        NoteLost(open, result.missing);
    }
    sink.OnStep(step);
    return result;
}

}  // namespace tools
