// Messages of a log as a session: what happened on a device, to be played on a desk.

#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/check/check.h"
#include "tools/log/calls.h"
#include "tools/log/capture.h"
#include "tools/log/dump.h"
#include "tools/session/operations.h"

namespace tools {

// The calls of one run of the library, from its loading on.
struct MadeSession {
    std::string text;
    int64_t calls = 0;
    std::optional<Configuration> configuration;  // As loaded; nothing where that is not known.
};

// Finds the HAL's calls again in the messages that they left, and makes a session of them for each
// process and each loading of the library. Calls stand in the order of their first messages, with
// waits where the times are known.
//
// What one thread logs belongs together: a node end is followed by what it led to. Other events are
// calls of their own. Arguments that no message has are made up and marked as guessed: those of a
// stage start (0 and 20), an operation mode, thread ids that count for one scene. Calls that leave
// no message do not come back, and nothing is made up for messages that are missing.
class SessionMaker : public MessageSink {
  public:
    void OnMessage(const Message& message, const Moment& moment) override;
    void OnLinesLeftOut(int64_t lines, const Moment& moment, const Place& place) override;
    void OnClockSet(Micros step, const Moment& moment, const Place& place) override;

    // The session with the most calls: a session plays one run. To be called once, last; empty
    // when there were no calls at all.
    std::optional<MadeSession> Finish();

  private:
    // Lines of the session that belong together, in the order of the messages that they are from.
    struct Entry {
        Micros time = NO_TIME;
        int32_t thread = -1;
        int64_t begin = 0;  // The number of its first message.
        Micros last = NO_TIME;
        std::vector<Message> messages;  // Of a call that may have more; else empty.
        std::string text;
        int64_t calls = 0;
    };
    // A node end whose messages may still come.
    struct NodeEnd {
        std::string node;
        EventLines lines;
        int64_t sceneEnds;  // How many there had been.
    };
    struct Thread {
        // The last one. Where the form has no thread ids, frames and nodes show which node end a
        // message is of: the last one of each node, the one that logged last at the end.
        std::deque<NodeEnd> nodeEnds;
        Entry* open = nullptr;  // The call that may have more messages.
    };
    struct Run {
        MadeSession session;
        Dumping dumping;
        std::optional<bool> isSceneStarted;
        bool isServiceRefusing = false;
        int64_t sceneEnds = 0;
        std::set<int32_t> persistTids;
        std::set<int32_t> sceneTids;  // Those set since the last scene ended.
        std::unordered_map<int32_t, Thread> threads;
        std::deque<Entry> entries;  // Those that wait for one before them to be whole.
        Micros time = NO_TIME;      // Of the session's last line.
    };

    Run* RunOf(int32_t process);
    void ReadDump(Run*& run, const Message& message, const Moment& moment);
    static bool IsExplained(const Run& run, Thread& thread, const Message& message);
    static void BeginNodeEnd(const Run& run, Thread& thread, const Message& message,
                             const Moment& moment);
    static void Follow(Run& run, Entry& entry, const Message& message);
    static bool IsWhole(const Run& run, const Entry& entry);
    static void Complete(Run& run, Entry& entry);
    static void AddCall(const std::optional<Configuration>& configuration, Entry& entry);
    static void Add(Entry& entry, Operation operation, std::vector<Value> arguments,
                    const char* guess = "");
    void Comment(int32_t process, const std::string& text);
    void WriteEntries(Run& run, bool isAll = false) const;
    void Close(Run& run);

    std::map<int32_t, Run> runs;      // By process: that which goes on.
    int64_t number = 0;               // Of the message.
    std::optional<MadeSession> best;  // Of those that are over.
    int64_t otherCalls = 0;
};

}  // namespace tools
