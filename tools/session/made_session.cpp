#include "tools/session/made_session.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "tools/base/text.h"
#include "tools/session/session.h"

namespace tools {
namespace {

// A call that has had no message for that many of others has had its last one.
constexpr int64_t OLD_MESSAGES = 4096;
// Nodes of a log without thread ids whose last node ends are kept.
constexpr size_t MOST_NODES = 64;
// What a derived stage start passes, which is what a HAL passes as a rule.
constexpr int32_t STAGE_ARG2 = 20;
// The statement that refuses the end of a stage that is not running; another one does the start.
constexpr int32_t LINE_OF_END_OUT_OF_TURN = 401;

constexpr const char* BEGINNING =
    "# From the log of a device. A log does not hold everything: TcfbtSetVersion, error frames "
    "that\n"
    "# the HAL reported, what the service answered and calls without effect are not here.\n";
constexpr const char* SCENE_MISSING =
    "# Missing: the beginning of the scene. To play the rest, take off the # of these:\n"
    "# TcfbtSetSceneInfo true 3840 60\n# TcfbtNotifySceneStart 0x0\n";

// Why a call is marked as guessed.
constexpr const char* GUESSED_MODE = "  # guessed: the mode";
constexpr const char* GUESSED_THREAD = "  # guessed: from the threads that were set";
constexpr const char* GUESSED_ARGUMENTS = "  # guessed: what no line says of it";
constexpr const char* GUESSED_CALL = "  # guessed: maybe several calls, or another one";

Micros Passed(Micros from, Micros to) {
    return from == NO_TIME || to == NO_TIME ? 0 : to - from;
}

std::string LinesMissing(int64_t lines) {
    return "# Missing: " + (lines > 0 ? std::to_string(lines) : "some") +
           (lines == 1 ? " line" : " lines") + " of the log.\n";
}

}  // namespace

void SessionMaker::OnMessage(const Message& message, const Moment& moment) {
    ++number;
    Run* run = RunOf(moment.process);
    if (message.kind <= MessageKind::DumpStage) {
        ReadDump(run, message, moment);
        return;
    }
    if (run == nullptr) {
        run = &runs[moment.process];
        run->session.text = "# Missing: what was before.\n";
    }
    run->dumping.Begins(message);  // It does not: a dump is over.
    Thread& thread = run->threads[moment.thread];
    if (IsExplained(*run, thread, message)) {
        return;
    }
    Entry* entry = thread.open;
    if (entry != nullptr && !GoesOn(entry->messages, message, Passed(entry->last, moment.time))) {
        Complete(*run, *std::exchange(entry, nullptr));
    }
    if (entry == nullptr) {
        entry = &run->entries.emplace_back();
        entry->time = moment.time;
        entry->thread = moment.thread;
        entry->begin = number;
        if (moment.thread != -1) {
            thread.nodeEnds.clear();
        }
    }
    if (message.kind == MessageKind::NodeEnd) {
        BeginNodeEnd(*run, thread, message, moment);
    }
    entry->last = moment.time;
    Follow(*run, *entry, message);
    if (IsWhole(*run, *entry)) {
        Complete(*run, *entry);
    } else {
        entry->messages.back().name = {};  // Gone after this call.
        thread.open = entry;
    }
    WriteEntries(*run);
}

void SessionMaker::OnLinesLeftOut(int64_t lines, const Moment& moment, const Place& /*place*/) {
    Comment(moment.process, LinesMissing(lines));
}

void SessionMaker::OnClockSet(Micros step, const Moment& moment, const Place& /*place*/) {
    Comment(moment.process, "# The clock was set by " + std::to_string(step) + " us.\n");
}

SessionMaker::Run* SessionMaker::RunOf(int32_t process) {
    const auto found = runs.find(process);
    return found == runs.end() ? nullptr : &found->second;
}

// The configuration is written when the library is loaded.
void SessionMaker::ReadDump(Run*& run, const Message& message, const Moment& moment) {
    if (run == nullptr || run->dumping.Begins(message)) {
        if (run != nullptr) {
            Close(*run);
        }
        run = &(runs[moment.process] = Run());
        run->dumping.Begins(message);
        run->isSceneStarted = false;
        run->session.text = "# The library is loaded.\n";
        run->session.configuration.emplace().isEnabled = true;  // Unless the line says otherwise.
        run->time = moment.time;
    }
    AddDumped(message, *run->session.configuration);
}

// Whether the message is one that a node end before it led to.
bool SessionMaker::IsExplained(const Run& run, Thread& thread, const Message& message) {
    std::deque<NodeEnd>& nodeEnds = thread.nodeEnds;
    for (auto nodeEnd = nodeEnds.rbegin(); nodeEnd != nodeEnds.rend(); ++nodeEnd) {
        if (nodeEnd->sceneEnds == run.sceneEnds && nodeEnd->lines.Take(message)) {
            std::rotate(std::prev(nodeEnd.base()), nodeEnd.base(), nodeEnds.end());
            return true;
        }
    }
    return false;
}

void SessionMaker::BeginNodeEnd(const Run& run, Thread& thread, const Message& message,
                                const Moment& moment) {
    std::deque<NodeEnd>& nodeEnds = thread.nodeEnds;
    std::string node(message.name);
    if (moment.thread == -1) {
        std::erase_if(nodeEnds, [&node](const NodeEnd& one) { return one.node == node; });
        if (nodeEnds.size() == MOST_NODES) {
            nodeEnds.pop_front();
        }
    }
    const auto& configuration = run.session.configuration;
    if (!configuration || configuration->IsStagePort(node, message.port)) {
        nodeEnds.push_back({node,
                            EventLines(EventsOf(message.frame, message.stage, message.count), node),
                            run.sceneEnds});
    }
}

// Adds the message to the call, and keeps track of scenes and threads.
void SessionMaker::Follow(Run& run, Entry& entry, const Message& message) {
    if (message.kind >= MessageKind::NodeEnd && !run.isSceneStarted.value_or(false)) {
        run.isSceneStarted = true;
        entry.text += SCENE_MISSING;
    }
    switch (message.kind) {
        case MessageKind::AddPersistTid:
            run.persistTids.insert(message.tid);
            break;
        case MessageKind::SetTid:
            // What was not added before was added for this scene, which leaves no message.
            if (run.sceneTids.insert(message.tid).second &&
                !run.persistTids.contains(message.tid)) {
                Add(entry, Operation::AddTempTids, {message.tid}, GUESSED_THREAD);
            }
            break;
        case MessageKind::SceneStart:
            run.isSceneStarted = run.isSceneStarted.value_or(false) || message.flag;
            if (run.isServiceRefusing == message.flag) {
                run.isServiceRefusing = !message.flag;
                entry.text += WriteLine(ServiceStatus{desktop::ServiceFunction::SceneStart,
                                                      message.flag ? 0 : 1}) +
                              "  # guessed: its value\n";
            }
            break;
        case MessageKind::SceneEnd: {
            // It removes all that were set, once; what comes before that is another call.
            std::vector<Message>& removed = entry.messages;
            if (!removed.empty() && removed.front().kind == MessageKind::RemoveTid &&
                !run.sceneTids.empty() && removed.size() > run.sceneTids.size()) {
                const size_t ofEnd = run.sceneTids.size();
                std::vector<Message> own(removed.end() - static_cast<std::ptrdiff_t>(ofEnd),
                                         removed.end());
                removed.resize(removed.size() - ofEnd);
                Complete(run, entry);
                removed = std::move(own);
            }
            run.sceneTids.clear();
            run.isSceneStarted = false;
            ++run.sceneEnds;
            break;
        }
        default:
            break;
    }
    entry.messages.push_back(message);
}

bool SessionMaker::IsWhole(const Run& run, const Entry& entry) {
    const Message& first = entry.messages.front();
    const Message& last = entry.messages.back();
    switch (first.kind) {
        case MessageKind::FrameNotContinuous:
        case MessageKind::TableFull:
        case MessageKind::FrameAdded:
            return last.kind == MessageKind::FrameStart ||
                   (last.kind == MessageKind::FrameAdded && last.flag);
        case MessageKind::NoVideo:
            // It logs the scene as it was: only one to boost may be running.
            return last.kind == MessageKind::SceneEnd || first.scene != 0 ||
                   !run.isSceneStarted.value_or(true);
        case MessageKind::SetTid:
            return last.kind == MessageKind::SceneStart;
        case MessageKind::RemoveTid:
        case MessageKind::SceneEnd:
            return last.kind == MessageKind::Video;
        default:
            return true;
    }
}

// Makes the call that left the entry's messages.
void SessionMaker::Complete(Run& run, Entry& entry) {
    AddCall(run.session.configuration, entry);
    entry.messages.clear();
    run.threads[entry.thread].open = nullptr;
}

void SessionMaker::AddCall(const std::optional<Configuration>& configuration, Entry& entry) {
    const Message& first = entry.messages.front();
    // The message that shows which call it was: not every message of a frame's start names the
    // frame, and a description leads to a scene's end, or a scene's end to a description.
    const bool isFirst =
        first.kind == MessageKind::NoVideo || first.kind == MessageKind::FrameNotContinuous;
    const Message& message = isFirst ? first : entry.messages.back();
    switch (message.kind) {
        case MessageKind::NodeEnd:
            return Add(entry, Operation::NodeEnd,
                       {message.frame, std::string(message.name), message.port, message.camera,
                        message.flag});
        case MessageKind::NoVideo:
        case MessageKind::Video:
            return Add(entry, Operation::SetSceneInfo,
                       {message.kind == MessageKind::Video, message.width, message.fps});
        case MessageKind::AddPersistTid:
            return Add(entry, Operation::AddPersistTids, {std::string(message.name), message.tid});
        case MessageKind::SetTid:
            return Add(entry, Operation::SetTids, {});
        case MessageKind::SceneStart: {
            const bool hasModes = configuration && !configuration->modes.empty();
            return Add(entry, Operation::SceneStart, {hasModes ? configuration->modes.front() : 0},
                       GUESSED_MODE);
        }
        case MessageKind::SceneDisabled: {
            // The lowest mode from 0 on that is not supported.
            int32_t mode = 0;
            if (configuration && configuration->isEnabled) {
                for (const int32_t supported : configuration->modes) {
                    mode += supported == mode ? 1 : 0;
                }
            }
            return Add(entry, Operation::SceneStart, {mode}, GUESSED_MODE);
        }
        case MessageKind::RemoveTid: {
            std::vector<int32_t> tids;
            for (const Message& removed : entry.messages) {
                tids.push_back(removed.tid);
            }
            return Add(entry, Operation::RemoveTids, {tids}, GUESSED_CALL);
        }
        case MessageKind::SceneEnd:
            return Add(entry, Operation::SceneEnd, {});
        case MessageKind::DumpInfo:
            return Add(entry, Operation::DumpInfo, {});
        case MessageKind::FrameEnd:
        case MessageKind::EndedFrameNotExist:
            return Add(entry, Operation::FrameEnd, {message.frame});
        case MessageKind::FrameStart:
        case MessageKind::FrameAlreadyExists:
        case MessageKind::FrameNotContinuous:
            return Add(entry, Operation::FrameStart, {message.frame});
        case MessageKind::TableFull:
        case MessageKind::FrameAdded:
            entry.text += LinesMissing(1);
            return;
        default: {
            const bool isNamed =
                message.kind == MessageKind::StageStart || message.kind == MessageKind::StageEnd;
            const bool isEnd = message.kind == MessageKind::StageEnd ||
                               (message.kind == MessageKind::StageOutOfTurn &&
                                message.sourceLine == LINE_OF_END_OUT_OF_TURN);
            const std::string name(message.name);
            if (isEnd) {
                Add(entry, Operation::StageEnd, {message.stage, message.frame, name},
                    isNamed ? "" : GUESSED_CALL);
            } else {
                Add(entry, Operation::StageStart,
                    {message.stage, message.frame, 0, STAGE_ARG2, name}, GUESSED_ARGUMENTS);
            }
        }
    }
}

void SessionMaker::Add(Entry& entry, Operation operation, std::vector<Value> arguments,
                       const char* guess) {
    entry.text += WriteLine(Call{operation, std::move(arguments)}) + guess + '\n';
    ++entry.calls;
}

void SessionMaker::Comment(int32_t process, const std::string& text) {
    if (Run* run = RunOf(process)) {
        run->entries.emplace_back().text = text;
        WriteEntries(*run);
    }
}

// Writes what is whole, as far as nothing before it may have more messages.
void SessionMaker::WriteEntries(Run& run, bool isAll) const {
    std::string& text = run.session.text;
    while (!run.entries.empty()) {
        Entry& entry = run.entries.front();
        if (!entry.messages.empty()) {
            if (!isAll && entry.begin + OLD_MESSAGES > number) {
                return;
            }
            Complete(run, entry);
        }
        if (entry.time != NO_TIME) {
            for (Micros wait = Passed(run.time, entry.time); wait > 0; wait -= MAX_WAIT) {
                text += WriteLine(Wait{std::min(wait, MAX_WAIT)}) + '\n';
            }
            run.time = std::max(run.time, entry.time);
        }
        text += entry.text;
        run.session.calls += entry.calls;
        run.entries.pop_front();
    }
}

// The run is over.
void SessionMaker::Close(Run& run) {
    WriteEntries(run, true);
    otherCalls += run.session.calls;
    if (!best || run.session.calls > best->calls) {
        best = std::move(run.session);
    }
}

std::optional<MadeSession> SessionMaker::Finish() {
    for (auto& [process, run] : runs) {
        Close(run);
    }
    if (!best || best->calls == 0) {
        return std::nullopt;
    }
    const int64_t leftOut = otherCalls - best->calls;
    std::string beginning = BEGINNING;
    if (leftOut != 0) {
        beginning += "# Left out: " + std::to_string(leftOut) +
                     " calls of other processes, or of other runs of the library.\n";
    }
    best->text.insert(0, beginning);
    return std::move(best);
}

}  // namespace tools
