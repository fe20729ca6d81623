#include "tools/session/made_session.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <deque>
#include <limits>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/base/text.h"
#include "tools/base/words.h"
#include "tools/log/calls.h"
#include "tools/session/session.h"

namespace tools {
namespace {

using enum MessageKind;

// No call takes longer.
constexpr Micros LONGEST_CALL = 10 * SECOND;
// As many node ends are kept of a log without thread ids.
constexpr size_t MOST_NODE_ENDS = 64;
// The statement that refuses the end of a stage that is not running; another one does the start.
constexpr int32_t LINE_OF_END_OUT_OF_TURN = 401;

constexpr const char* BEGINNING =
    "# From the log of a device. A log does not hold everything: TcfbtSetVersion, error frames "
    "that\n"
    "# the HAL reported, what the service answered and calls without effect are not here.\n";
constexpr const char* SCENE_MISSING =
    "# Missing: the beginning of the scene. To play the rest, take off the # of these:\n"
    "# TcfbtSetSceneInfo true 3840 60\n# TcfbtNotifySceneStart 0x0\n";
constexpr const char* GUESSED_CALL = "# guessed: maybe several calls, or another one\n";

// The message that each call leaves, and the call as lines of a session. The arguments of a stage
// start that no message has are those of a derived one, which HALs pass as a rule.
constexpr std::pair<MessageKind, const char*> CALLS[] = {
    {NoVideo, "TcfbtSetSceneInfo false {width} {fps}\n"},
    {Video, "TcfbtSetSceneInfo true {width} {fps}\n"},
    {SceneDisabled, "TcfbtNotifySceneStart 0xFFFFFFFF  # guessed: a mode that is not supported\n"},
    {SceneStart, "TcfbtNotifySceneStart {mode}  # guessed: the mode\n"},
    {SceneEnd, "TcfbtNotifySceneEnd\n"},
    // A thread that was not added before was added for this scene, which leaves no message.
    {SetTid, "TcfbtAddTempTids {tid}  # guessed: from the threads that were set\n"},
    {AddPersistTid, "TcfbtAddPersistTids {name} {tid}\n"},
    {DumpInfo, "DumpInfo\n"},
    {NodeEnd, "TcfbtNotifyNodeEnd {frame} {name} {port} {camera} {flag}\n"},
    {FrameStart, "TcfbtNotifyFrameStart {frame}\n"},
    {FrameAlreadyExists, "TcfbtNotifyFrameStart {frame}\n"},
    {FrameNotContinuous, "TcfbtNotifyFrameStart {frame}\n"},
    {FrameEnd, "TcfbtNotifyFrameEnd {frame}\n"},
    {EndedFrameNotExist, "TcfbtNotifyFrameEnd {frame}\n"},
    {StageEnd, "TcfbtNotifyStageEnd {stage} {frame} {name}\n"},
};
// The call of any other message, which refuses a stage event.
constexpr const char* STAGE_START =
    "TcfbtNotifyStageStart {stage} {frame} 0 20 {name}  # guessed: what no line says of it\n";
constexpr const char* STAGE_END = "TcfbtNotifyStageEnd {stage} {frame} {name}  {guessed}";
constexpr const char* REFUSED_SCENE_START =
    "ServiceStatus cfbtSceneStart 1  # guessed: its value\n"
    "TcfbtNotifySceneStart {mode}  # guessed: the mode\n"
    "ServiceStatus cfbtSceneStart 0\n";

const char* CallOf(const Message& message) {
    if (message.kind == SceneStart && !message.flag) {
        return REFUSED_SCENE_START;
    }
    if (message.kind == StageOutOfTurn && message.sourceLine == LINE_OF_END_OUT_OF_TURN) {
        return STAGE_END;
    }
    const auto* const call =
        std::find_if(std::begin(CALLS), std::end(CALLS),
                     [&message](const auto& one) { return one.first == message.kind; });
    return call == std::end(CALLS) ? STAGE_START : call->second;
}

// Lines of the session that belong together.
struct Entry {
    Micros time;
    int32_t thread = -1;
    std::string text{};
    // The threads that are set or removed by a call that may have more messages.
    MessageKind kind = SetTid;
    std::vector<int32_t> tids{};
};

// Whether the message may be of the call that the entry's threads are of.
bool GoesOn(const Entry& entry, const Message& message) {
    if (entry.kind == RemoveTid) {
        return message.kind == RemoveTid || message.kind == SceneEnd;
    }
    // The library sets them in ascending order.
    return message.kind == SceneStart ||
           (message.kind == SetTid && message.tid > entry.tids.back());
}

}  // namespace

// The library in one process, from its loading or the beginning of the capture on.
class SessionMaker::Run {
  public:
    Run(bool isLoaded, Micros begin) : written(begin) {
        session.text = isLoaded ? "# The library is loaded.\n" : "# Missing: what was before.\n";
        if (isLoaded) {
            session.configuration.emplace().isEnabled = true;  // Unless the line says otherwise.
        }
    }

    MadeSession session;

    void Take(const Message& message, const Moment& moment) {
        Thread& thread = threads[moment.thread];
        const auto hasLedTo = [&message](EventLines& lines) { return lines.Take(message); };
        if (message.kind == FrameAdded || message.kind == TableFull ||
            std::any_of(thread.nodeEnds.rbegin(), thread.nodeEnds.rend(), hasLedTo)) {
            return;  // Another message shows the call.
        }
        if (thread.open != nullptr && !GoesOn(*thread.open, message)) {
            Close(*thread.open);
        }
        Entry& entry = thread.open != nullptr
                           ? *thread.open
                           : entries.emplace_back(Entry{moment.time, moment.thread});
        if (moment.thread != -1) {
            thread.nodeEnds.clear();
        }
        Follow(thread, entry, message);
        if (entry.tids.empty()) {
            AddCall(entry, message);
        }
        Write(moment.time);
    }

    void Comment(const std::string& text, Micros time) {
        entries.push_back({.time = time, .text = text});
        Write(time);
    }

    // Writes what is whole, as far as nothing before it may have more messages at that time.
    void Write(Micros now) {
        for (; !entries.empty(); entries.pop_front()) {
            Entry& entry = entries.front();
            if (!entry.tids.empty() && entry.time + LONGEST_CALL >= now) {
                return;
            }
            Close(entry);
            if (entry.time > written) {
                const Micros wait = entry.time - std::exchange(written, entry.time);
                session.text += WriteLine(Wait{std::min(wait, MAX_WAIT)}) + '\n';
            }
            session.text += entry.text;
        }
    }

  private:
    struct Thread {
        // The last node end, whose messages may still come. Where the form has no thread ids,
        // several: frames and stages show which one a message is of.
        std::deque<EventLines> nodeEnds;
        Entry* open = nullptr;  // The call that may have more messages.
    };

    // Keeps track of scenes and threads.
    void Follow(Thread& thread, Entry& entry, const Message& message) {
        if (message.kind >= NodeEnd && !isSceneStarted) {
            isSceneStarted = true;
            entry.text += SCENE_MISSING;
        }
        if (message.kind == AddPersistTid) {
            persistTids.insert(message.tid);
        } else if (message.kind == SetTid || message.kind == RemoveTid) {
            if (message.kind == SetTid && sceneTids.insert(message.tid).second &&
                !persistTids.contains(message.tid)) {
                AddCall(entry, message);
            }
            entry.kind = message.kind;
            entry.tids.push_back(message.tid);
            thread.open = &entry;
        } else if (message.kind == SceneStart || message.kind == SceneEnd) {
            // It sets or removes all threads, once; those before are of another call.
            entry.tids.resize(entry.tids.size() - std::min(entry.tids.size(), sceneTids.size()));
            Close(entry);
            isSceneStarted = message.kind == SceneStart && (isSceneStarted || message.flag);
            if (message.kind == SceneEnd) {
                sceneTids.clear();
            }
        } else if (message.kind == NodeEnd &&
                   (!session.configuration ||
                    session.configuration->IsStagePort(message.name, message.port))) {
            thread.nodeEnds.push_back({EventsOf(message.frame, message.stage, message.count)});
            if (thread.nodeEnds.size() > MOST_NODE_ENDS) {
                thread.nodeEnds.pop_front();
            }
        }
    }

    // Nothing more comes of the entry's call.
    void Close(Entry& entry) {
        Thread& thread = threads[entry.thread];
        thread.open = thread.open == &entry ? nullptr : thread.open;
        if (!entry.tids.empty()) {
            entry.text += entry.kind == SetTid
                              ? "TcfbtSetTids\n"
                              : fmt::format("TcfbtRemoveTids {}  {}", fmt::join(entry.tids, " "),
                                            GUESSED_CALL);
            ++session.calls;
            entry.tids.clear();
        }
    }

    void AddCall(Entry& entry, const Message& message) {
        // The first one that is supported.
        const bool hasModes = session.configuration && !session.configuration->modes.empty();
        const int32_t mode = hasModes ? session.configuration->modes.front() : 0;
        entry.text +=
            fmt::format(fmt::runtime(CallOf(message)), fmt::arg("frame", message.frame),
                        fmt::arg("stage", message.stage), fmt::arg("name", WordOf(message.name)),
                        fmt::arg("port", message.port), fmt::arg("camera", message.camera),
                        fmt::arg("flag", message.flag), fmt::arg("width", message.width),
                        fmt::arg("fps", message.fps), fmt::arg("mode", ModeText(mode)),
                        fmt::arg("tid", message.tid), fmt::arg("guessed", GUESSED_CALL));
        ++session.calls;
    }

    bool isSceneStarted = false;
    std::set<int32_t> persistTids;
    std::set<int32_t> sceneTids;  // Those set since the last scene ended.
    std::unordered_map<int32_t, Thread> threads;
    std::deque<Entry> entries;  // Those that wait for one before them to be whole.
    Micros written;             // The time of the session's last line.
};

SessionMaker::SessionMaker() = default;
SessionMaker::~SessionMaker() = default;

void SessionMaker::OnMessage(const Message& message, const Moment& moment) {
    const bool isLoaded = dumps[moment.process].Begins(message);
    const auto [found, isNew] = runs.try_emplace(moment.process, isLoaded, moment.time);
    Run& run = found->second;
    if (isLoaded && !isNew) {
        Close(run);
        run = Run(true, moment.time);
    }
    if (!run.session.configuration || !AddDumped(message, *run.session.configuration)) {
        run.Take(message, moment);
    }
}

void SessionMaker::OnLinesLeftOut(int64_t lines, const Moment& moment, const Place& /*place*/) {
    if (const auto run = runs.find(moment.process); run != runs.end()) {
        const std::string missing = lines > 0 ? Counted(lines, "line") : "some lines";
        run->second.Comment("# Missing: " + missing + " of the log.\n", moment.time);
    }
}

// The run is over.
void SessionMaker::Close(Run& run) {
    run.Write(std::numeric_limits<Micros>::max());
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
