#include "tools/session/made_session.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <deque>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/base/text.h"
#include "tools/log/calls.h"
#include "tools/session/operations.h"
#include "tools/session/session.h"

namespace tools {
namespace {

using enum MessageKind;

// A call that has had no message for that many of others has had its last one.
constexpr int64_t OLD_MESSAGES = 4096;
// Nodes of a log without thread ids whose last node ends are kept.
constexpr size_t MOST_NODES = 64;
// A scene's end and a description that led to it stand no further apart.
constexpr Micros AT_ONCE = 10 * MILLISECOND;
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

// Calls that leave several messages: which of them may follow which. All others leave one.
constexpr std::pair<MessageKind, MessageKind> SUCCESSIONS[] = {
    {FrameNotContinuous, TableFull},
    {FrameNotContinuous, FrameAdded},
    {TableFull, FrameAdded},
    {FrameAdded, FrameStart},
    {SetTid, SetTid},
    {SetTid, SceneStart},
    {NoVideo, RemoveTid},
    {NoVideo, SceneEnd},
    {RemoveTid, RemoveTid},
    {RemoveTid, SceneEnd},
    {SceneEnd, Video},
};

Micros Passed(Micros from, Micros to) {
    return from == NO_TIME || to == NO_TIME ? 0 : to - from;
}

std::string LinesMissing(int64_t lines) {
    return lines > 0 ? "# Missing: " + Counted(lines, "line") + " of the log.\n"
                     : "# Missing: some lines of the log.\n";
}

// Lines of the session that belong together, in the order of the messages that they are from.
struct Entry {
    std::string text{};
    Micros time = NO_TIME;
    int32_t thread = -1;
    int64_t begin = 0;  // The number of its first message.
    Micros last = NO_TIME;
    std::vector<Message> messages{};  // Of a call that may have more; else empty.
};

// Whether the message is one of the entry's call.
bool GoesOn(const Entry& entry, const Message& message, Micros time) {
    const Message& last = entry.messages.back();
    if (std::find(std::begin(SUCCESSIONS), std::end(SUCCESSIONS),
                  std::pair(last.kind, message.kind)) == std::end(SUCCESSIONS)) {
        return false;
    }
    if (message.kind == SetTid) {
        return message.tid > last.tid;  // The library sets them in ascending order.
    }
    return message.kind != Video ||
           (message.acceptedFps == 0 && Passed(entry.last, time) <= AT_ONCE);
}

}  // namespace

// The library in one process, from its loading or the beginning of the capture on.
class SessionMaker::Run {
  public:
    Run() { session.text = "# Missing: what was before.\n"; }
    explicit Run(Micros loaded) : isSceneStarted(false), written(loaded) {
        session.text = "# The library is loaded.\n";
        session.configuration.emplace().isEnabled = true;  // Unless the line says otherwise.
    }

    MadeSession session;

    void Take(const Message& message, const Moment& moment) {
        ++number;
        Thread& thread = threads[moment.thread];
        if (IsExplained(thread, message)) {
            return;
        }
        Entry* entry = thread.open;
        if (entry != nullptr && !GoesOn(*entry, message, moment.time)) {
            Complete(*std::exchange(entry, nullptr));
        }
        if (entry == nullptr) {
            entry = &entries.emplace_back(
                Entry{.time = moment.time, .thread = moment.thread, .begin = number});
            if (moment.thread != -1) {
                thread.nodeEnds.clear();
            }
        }
        if (message.kind == NodeEnd) {
            BeginNodeEnd(thread, message, moment);
        }
        entry->last = moment.time;
        Follow(*entry, message);
        if (IsWhole(*entry)) {
            Complete(*entry);
        } else {
            entry->messages.back().name = {};  // Gone after this call.
            thread.open = entry;
        }
        WriteEntries();
    }

    void Comment(const std::string& text) {
        entries.push_back({text});
        WriteEntries();
    }

    // Writes what is whole, as far as nothing before it may have more messages.
    void WriteEntries(bool isAll = false) {
        while (!entries.empty()) {
            Entry& entry = entries.front();
            if (!entry.messages.empty()) {
                if (!isAll && entry.begin + OLD_MESSAGES > number) {
                    return;
                }
                Complete(entry);
            }
            if (entry.time != NO_TIME) {
                for (Micros wait = Passed(written, entry.time); wait > 0; wait -= MAX_WAIT) {
                    session.text += WriteLine(Wait{std::min(wait, MAX_WAIT)}) + '\n';
                }
                written = std::max(written, entry.time);
            }
            session.text += entry.text;
            entries.pop_front();
        }
    }

  private:
    // A node end whose messages may still come.
    struct EndedNode {
        std::string node;
        EventLines lines;
        int64_t sceneEnds;  // How many there had been.
    };
    struct Thread {
        // The last one. Where the form has no thread ids, frames and nodes show which node end a
        // message is of: the last one of each node, the one that logged last at the end.
        std::deque<EndedNode> nodeEnds;
        Entry* open = nullptr;  // The call that may have more messages.
    };

    // Whether the message is one that a node end before it led to.
    bool IsExplained(Thread& thread, const Message& message) const {
        std::deque<EndedNode>& nodeEnds = thread.nodeEnds;
        for (auto nodeEnd = nodeEnds.rbegin(); nodeEnd != nodeEnds.rend(); ++nodeEnd) {
            if (nodeEnd->sceneEnds == sceneEnds && nodeEnd->lines.Take(message)) {
                std::rotate(std::prev(nodeEnd.base()), nodeEnd.base(), nodeEnds.end());
                return true;
            }
        }
        return false;
    }

    void BeginNodeEnd(Thread& thread, const Message& message, const Moment& moment) const {
        std::deque<EndedNode>& nodeEnds = thread.nodeEnds;
        const std::string node(message.name);
        if (moment.thread == -1) {
            std::erase_if(nodeEnds, [&node](const EndedNode& one) { return one.node == node; });
            if (nodeEnds.size() == MOST_NODES) {
                nodeEnds.pop_front();
            }
        }
        if (!session.configuration || session.configuration->IsStagePort(node, message.port)) {
            nodeEnds.push_back(
                {node, EventLines(EventsOf(message.frame, message.stage, message.count), node),
                 sceneEnds});
        }
    }

    // Adds the message to the call, and keeps track of scenes and threads.
    void Follow(Entry& entry, const Message& message) {
        if (message.kind >= NodeEnd && !isSceneStarted.value_or(false)) {
            isSceneStarted = true;
            entry.text += SCENE_MISSING;
        }
        if (message.kind == AddPersistTid) {
            persistTids.insert(message.tid);
        } else if (message.kind == SetTid) {
            // What was not added before was added for this scene, which leaves no message.
            if (sceneTids.insert(message.tid).second && !persistTids.contains(message.tid)) {
                Add(entry, Operation::AddTempTids, {message.tid}, GUESSED_THREAD);
            }
        } else if (message.kind == SceneStart) {
            isSceneStarted = isSceneStarted.value_or(false) || message.flag;
            if (isServiceRefusing == message.flag) {
                isServiceRefusing = !message.flag;
                entry.text += WriteLine(ServiceStatus{desktop::ServiceFunction::SceneStart,
                                                      message.flag ? 0 : 1}) +
                              "  # guessed: its value\n";
            }
        } else if (message.kind == SceneEnd) {
            SplitRemoved(entry);
            sceneTids.clear();
            isSceneStarted = false;
            ++sceneEnds;
        }
        entry.messages.push_back(message);
    }

    // A scene's end removes all threads that were set, once; those before are of another call.
    void SplitRemoved(Entry& entry) {
        std::vector<Message>& removed = entry.messages;
        if (!removed.empty() && removed.front().kind == RemoveTid && !sceneTids.empty() &&
            removed.size() > sceneTids.size()) {
            const auto own = removed.end() - std::ssize(sceneTids);
            std::vector<Message> ofEnd(own, removed.end());
            removed.erase(own, removed.end());
            Complete(entry);
            removed = std::move(ofEnd);
        }
    }

    bool IsWhole(const Entry& entry) const {
        const Message& first = entry.messages.front();
        const Message& last = entry.messages.back();
        if (first.kind == NoVideo) {
            // It logs the scene as it was: only one to boost may be running.
            return last.kind == SceneEnd || first.scene != 0 || !isSceneStarted.value_or(true);
        }
        return (last.kind == FrameAdded && last.flag) ||
               std::none_of(std::begin(SUCCESSIONS), std::end(SUCCESSIONS),
                            [&last](const auto& pair) { return pair.first == last.kind; });
    }

    // Makes the call that left the entry's messages.
    void Complete(Entry& entry) {
        // The message that shows which call it was: not every message of a frame's start names the
        // frame, and a description leads to a scene's end, or a scene's end to a description.
        const Message& first = entry.messages.front();
        const bool isFirst = first.kind == NoVideo || first.kind == FrameNotContinuous;
        AddCall(entry, isFirst ? first : entry.messages.back());
        entry.messages.clear();
        threads[entry.thread].open = nullptr;
    }

    void AddCall(Entry& entry, const Message& message) {
        const std::string name(message.name);
        switch (message.kind) {
            case NodeEnd:
                return Add(entry, Operation::NodeEnd,
                           {message.frame, name, message.port, message.camera, message.flag});
            case NoVideo:
            case Video:
                return Add(entry, Operation::SetSceneInfo,
                           {message.kind == Video, message.width, message.fps});
            case AddPersistTid:
                return Add(entry, Operation::AddPersistTids, {name, message.tid});
            case SetTid:
                return Add(entry, Operation::SetTids, {});
            case SceneStart:
            case SceneDisabled:
                return Add(entry, Operation::SceneStart, {ModeOf(message.kind)}, GUESSED_MODE);
            case RemoveTid: {
                std::vector<int32_t> tids;
                for (const Message& removed : entry.messages) {
                    tids.push_back(removed.tid);
                }
                return Add(entry, Operation::RemoveTids, {tids}, GUESSED_CALL);
            }
            case SceneEnd:
                return Add(entry, Operation::SceneEnd, {});
            case DumpInfo:
                return Add(entry, Operation::DumpInfo, {});
            case FrameEnd:
            case EndedFrameNotExist:
                return Add(entry, Operation::FrameEnd, {message.frame});
            case FrameStart:
            case FrameAlreadyExists:
            case FrameNotContinuous:
                return Add(entry, Operation::FrameStart, {message.frame});
            case TableFull:
            case FrameAdded:
                entry.text += LinesMissing(1);
                return;
            case StageEnd:
                return Add(entry, Operation::StageEnd, {message.stage, message.frame, name});
            default:
                break;
        }
        if (message.kind == StageOutOfTurn && message.sourceLine == LINE_OF_END_OUT_OF_TURN) {
            Add(entry, Operation::StageEnd, {message.stage, message.frame, name}, GUESSED_CALL);
        } else {
            Add(entry, Operation::StageStart, {message.stage, message.frame, 0, STAGE_ARG2, name},
                GUESSED_ARGUMENTS);
        }
    }

    // The first mode that is supported; of a scene that was refused, the lowest from 0 on that is
    // not.
    int32_t ModeOf(MessageKind kind) const {
        int32_t mode = 0;
        if (!session.configuration || session.configuration->modes.empty()) {
            return mode;
        }
        const Configuration& loaded = *session.configuration;
        if (kind == SceneStart) {
            return loaded.modes.front();
        }
        for (const int32_t supported : loaded.modes) {
            mode += loaded.isEnabled && supported == mode ? 1 : 0;
        }
        return mode;
    }

    void Add(Entry& entry, Operation operation, std::vector<Value> arguments,
             const char* guess = "") {
        entry.text += WriteLine(Call{operation, std::move(arguments)}) + guess + '\n';
        ++session.calls;
    }

    int64_t number = 0;  // Of the message.
    std::optional<bool> isSceneStarted;
    bool isServiceRefusing = false;
    int64_t sceneEnds = 0;
    std::set<int32_t> persistTids;
    std::set<int32_t> sceneTids;  // Those set since the last scene ended.
    std::unordered_map<int32_t, Thread> threads;
    std::deque<Entry> entries;  // Those that wait for one before them to be whole.
    Micros written = NO_TIME;   // The time of the session's last line.
};

SessionMaker::SessionMaker() = default;
SessionMaker::~SessionMaker() = default;

void SessionMaker::OnMessage(const Message& message, const Moment& moment) {
    if (dumps[moment.process].Begins(message)) {
        Close(runs[moment.process]);
        runs.insert_or_assign(moment.process, Run(moment.time));
    }
    Run& run = runs[moment.process];
    if (!run.session.configuration || !AddDumped(message, *run.session.configuration)) {
        run.Take(message, moment);
    }
}

void SessionMaker::OnLinesLeftOut(int64_t lines, const Moment& moment, const Place& /*place*/) {
    Comment(moment.process, LinesMissing(lines));
}

void SessionMaker::OnClockSet(Micros step, const Moment& moment, const Place& /*place*/) {
    Comment(moment.process, fmt::format("# The clock was set by {} us.\n", step));
}

void SessionMaker::Comment(int32_t process, const std::string& text) {
    if (const auto run = runs.find(process); run != runs.end()) {
        run->second.Comment(text);
    }
}

// The run is over.
void SessionMaker::Close(Run& run) {
    run.WriteEntries(true);
    calls += run.session.calls;
    if (run.session.calls > best.calls) {
        best = std::move(run.session);
    }
}

std::optional<MadeSession> SessionMaker::Finish() {
    for (auto& [process, run] : runs) {
        Close(run);
    }
    if (best.calls == 0) {
        return std::nullopt;
    }
    std::string beginning = BEGINNING;
    if (const int64_t others = calls - best.calls; others != 0) {
        beginning += fmt::format(
            "# Left out: {} calls of other processes, or of other runs of the library.\n", others);
    }
    best.text.insert(0, beginning);
    return std::move(best);
}

}  // namespace tools
