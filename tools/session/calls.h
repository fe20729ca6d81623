// Finds the HAL's calls again in the messages that they left.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/account/step.h"
#include "tools/capture/events.h"
#include "tools/log/message.h"

namespace tools {

// When and where a message was logged. The thread is -1 where the form does not tell it: whose line
// is whose is then told from frames and nodes, as well as can be.
struct Moment {
    Micros time = NO_TIME;
    int32_t process = -1;
    int32_t thread = -1;
};

// Turns messages, in the order of the capture, into steps and disturbances.
//
// What one thread logs belongs together: a node end is followed by what it led to. Frame and stage
// events that no node end explains are calls of their own; the arguments that no line tells are
// made up, and the step says that it is guessed: a stage start's arguments (0 and 20), an operation
// mode, thread ids that count for one scene. Calls that leave no line do not come back.
class CallFinder {
  public:
    explicit CallFinder(StepSink& stepSink) : sink(stepSink) {}

    void OnMessage(const Message& message, const Moment& moment);
    // Whether that process has logged anything yet.
    bool Knows(int32_t process) const { return processes.contains(process); }
    // Hands on what may have had more lines. `isCut`: it may have had, but the capture ends here.
    void Settle(bool isCut);
    // Hands on what is of a scene as a whole: nothing comes for now, and maybe never. Lines of one
    // frame come at once, unless what hands them on waits for more of them.
    void SettleScenes();

  private:
    // A call whose lines are coming.
    struct Open {
        std::vector<Message> messages;  // The first `count` are in use.
        std::deque<std::string> names;  // What the messages' names point to.
        size_t count = 0;
        Moment begin;
        Micros last = NO_TIME;  // When its last line was logged.
        uint64_t ordinal = 0;   // Of its last line, counted over the capture.
        int64_t sceneEnds = 0;  // How many there had been when it began.
        // Whether node ends on this thread count, for the node and port of the last one.
        std::string node;
        int32_t port = 0;
        bool isStagePort = false;
        // The frame and stage of the last stage event whose node end is missing.
        std::optional<std::pair<int64_t, int32_t>> lost;
    };

    struct Process {
        Configuration configuration;  // As dumped, else what node ends have shown of it.
        bool isDumped = false;
        bool isDumping = false;
        bool hasThreads = false;  // The latest line tells its thread.
        Place dumpPlace;
        Moment dumpMoment;
        std::optional<bool> isSceneStarted;
        int64_t sceneEnds = 0;
        std::set<int32_t> persistTids;
        std::set<int32_t> sceneTids;              // Those set since the last scene ended.
        bool hasNodeEnds = false;                 // Some that end stages.
        std::unordered_map<int64_t, Open> opens;  // By thread, or by what stands for one.
        Open* lastOpen = nullptr;
        int64_t lastKey = 0;
        std::vector<std::string> slots;  // Nodes, where the form has no threads.

        void Learn(const Message& nodeEnd);
    };

    Process& ProcessOf(const Message& message, const Moment& moment);
    Open& OpenOf(Process& process, const Message& message, const Moment& moment);
    void Feed(Process& process, Open& open, const Message& message, const Moment& moment);
    void SettleProcess(Process& process, const Open* except, bool isCut);
    void SettleOld();
    void BeginRun(Process& process, const Message& message, const Moment& moment);
    void Load(Process& process);
    bool IsComplete(const Process& process, Open& open);
    void Complete(Process& process, Open& open, bool isCut = false);
    void CompleteNodeEnd(Process& process, Open& open, bool isCut);
    void CompleteThreads(Process& process, const Open& open);
    void CompleteFrameStart(const Process& process, const Open& open);
    void CompleteStageEvent(const Process& process, Open& open);
    void FillNodeEnd(const Message& message);
    void NoteLost(const Open& open, size_t lines);
    void Begin(std::string_view operation, std::initializer_list<Value> arguments,
               bool isGuessed = false);
    void Emit(const Process& process, const Open& open, size_t first = 0);
    Told HandOn(const Process& process, const Open& open, size_t first, Told result);

    StepSink& sink;
    Step step;
    std::map<int32_t, Process> processes;
    Process* lastProcess = nullptr;
    int32_t lastNumber = 0;
    std::optional<Told> told;  // Of the node end in `step`, where that has been worked out.
    uint64_t ordinal = 0;
};

}  // namespace tools
