// What happened: scenes, frames, stages and times, as the lines of a log tell them, and what is to
// be said of it.
//
// Facts come first: FactsMaker fills the parts marked "as lines say" from messages. They hold no
// opinion. Judge then works out the rest, from all facts of a scene at once.

#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/base/finding.h"
#include "tools/base/statistics.h"
#include "tools/base/times.h"
#include "tools/check/check.h"

namespace tools {

// What became of a frame.
enum class FrameStatus : uint8_t {
    Complete,  // Started, all its stages, ended.
    Dropped,   // Ended by the HAL before it had been through all stages.
    Error,     // It broke the order of its stages.
    Evicted,   // Pushed out of the table by newer frames.
    Refused,   // Its start was refused.
    Unseen,    // Nodes reported it; the library never had it.
    Open,      // In flight at the end of its scene, or of the capture.
};
inline constexpr size_t FRAME_STATUSES = 7;
const char* NameOf(FrameStatus status);  // "complete" and so on.

// Why a frame is not complete.
enum class Reason : uint8_t {
    None,
    Gap,              // Its number did not follow the newest one.
    AlreadyInFlight,  // A frame of that number was in flight.
    NotInFlight,      // Nothing was known of it.
    NoSuchStage,      // An event of a stage that does not exist.
    OutOfOrder,       // A stage before another one had ended, or after another one had begun.
    OutOfTurn,        // A stage that had run already, or had not started.
    Evicted,
    EndedByHal,
    NeverLeft,     // It was not seen to leave a stage.
    LinesMissing,  // Lines of the log are missing: what became of it is not known.
};
const char* ReasonOf(Reason reason);  // In words; empty for None.

// The kinds of findings. Their names, which users know them by, are NameOf's.
enum class Check : uint8_t {
    SceneRefused,
    Disabled,
    TwoCameras,
    FrameLost,
    FrameGap,
    NumbersRestart,
    DuplicateFrame,
    StageOrder,
    StageUnreported,
    SecondPort,
    StageNeverHit,
    Stuck,
    SlowStage,
    SensorStall,
    Standstill,
    Rate,
    Late,
    Evicted,
    SlotsHeld,
    ThreadNotSet,
    NodeIgnored,
    LinesLost,
    ClockJump,
    NotUnderstood,
    CpuWait,
};
inline constexpr size_t CHECKS = static_cast<size_t>(Check::CpuWait) + 1;
const char* NameOf(Check check);  // "frame-lost" and so on.

// Some frames: a first and a last number.
struct FrameRange {
    int64_t first = 0, last = 0;
};

// What a thread does.
enum class ThreadState : uint8_t {
    Running,
    Runnable,  // It waits for a CPU.
    Sleeping,
    Blocked,  // It sleeps and cannot be interrupted: it waits for a device or for a lock.
    Gone,     // It has ended.
    Unknown,
};
inline constexpr size_t THREAD_STATES = static_cast<size_t>(ThreadState::Unknown) + 1;
const char* NameOf(ThreadState state);  // "running" and so on.

// What a thread did meanwhile, as a scheduler trace tells it.
struct CauseLink {
    int32_t thread = 0;  // Its id in the trace.
    std::string name;
    ThreadState state = ThreadState::Unknown;
    Micros length = 0;                  // In that state, all in all,
    Micros begin = NO_TIME, piece = 0;  // and the longest time of it.
    int32_t cpu = -1;                   // That it ran on, or waited for.
    bool isWoken = false, isByInterrupt = false;
    std::string waker;  // "18890 (sensor)": the thread that woke it, which the next link is about.
    struct Ran {
        int32_t thread;
        std::string name;
        Micros length;
    };
    std::vector<Ran> ran;  // Who had that CPU while it waited; longest first.
};

struct SceneFinding {
    Check check = Check::Late;
    Severity severity = Severity::Note;
    std::string message{};
    Place place{};
    Micros time = NO_TIME;           // The moment to look at.
    std::optional<int64_t> frame{};  // The first that it is about, where there is one.
    int32_t stage = -1;
    int64_t times = 1;                 // How many of the kind it stands for.
    std::vector<FrameRange> frames{};  // All that it is about.
    size_t stem = SIZE_MAX;          // Of the message, how much is not about what followed from it.
    std::vector<CauseLink> chain{};  // From its stage's thread back to what kept that.
};

// When a frame was in a stage. NO_TIME where it is not known.
struct StageTimes {
    Micros start = NO_TIME;  // When it left the stage before; in stage 0, when it was started.
    Micros end = NO_TIME;
    Micros wait = NO_TIME;  // Of that, until the stage was done with the frame ahead.
    Micros work = NO_TIME;  // The rest.
};

// Which lines of a frame's stage there are.
inline constexpr uint8_t NODE_END = 1;
inline constexpr uint8_t STAGE_START = 2;
inline constexpr uint8_t STAGE_END = 4;

// A frame in a stage.
struct StagePass {
    // As lines say. When the frame left the stage: the first of its node end, its stage end and the
    // next stage's start. Line 0: it was not seen to leave.
    Micros left = NO_TIME;
    Place place;
    uint16_t reporter = 0;  // Of Scene::reporters, for a node end;
    uint16_t thread = 0;    // of Scene::threads.
    uint8_t seen = 0;       // Which of its lines there are.
    // Worked out. When the stage could begin with it: it had come, and the one ahead had left.
    Micros begin = NO_TIME;

    bool HasLeft() const { return place.line != 0; }
};

struct Frame {
    // As lines say.
    int64_t number = 0;
    Micros told = NO_TIME;  // When it was first told of.
    Micros start = NO_TIME, end = NO_TIME;
    Place place;    // Where it was first told of, or started.
    Place trouble;  // The line of the first thing that went wrong with it; line 0 for none.
    Micros troubleTime = NO_TIME;
    int64_t newestBefore = 0;  // Of a gap: the newest frame then.
    int32_t violationStage = -1, violationOther = -1;
    Reason violation = Reason::None;  // NoSuchStage, OutOfOrder, OutOfTurn: the first of them.
    bool isStarted = false;           // Its start was forwarded.
    bool isGap = false;               // Its start was refused: it did not follow the newest one.
    bool isDuplicate = false;         // It was started again while in flight.
    bool isEnded = false;             // Its end was forwarded.
    bool isEvicted = false;
    bool isNotInFlight = false;  // An event of it was refused as such.
    bool isHeld = false;         // In the table when the scene ended.
    uint16_t epoch = 0;          // Counts how often numbers had started again.

    // Worked out.
    FrameStatus status = FrameStatus::Open;
    Reason reason = Reason::None;
    int32_t stage = -1;       // That it is about, or that it got to last.
    bool isOut = false;       // It left the last stage that any frame of the scene left.
    bool isNeverOut = false;  // It did not, and will not.
    bool isLate = false;
    bool isUntold = false;  // What became of it is not known: lines are missing.
    bool hasFinding = false;
    Micros output = NO_TIME;    // When it came out.
    Micros interval = NO_TIME;  // From the output before to its own.
};

// What reports ends: a node, on a port, for a camera.
struct Reporter {
    std::string node{};
    int32_t port = 0, camera = 0, stage = -1;
    std::optional<bool> counts{};  // Whether its ends end the stage; nothing where not known.
    int64_t times = 0;
    Place place{};  // The first of them.
};

struct Span {
    Micros begin = 0, end = 0;

    Micros Length() const { return std::max<Micros>(end - begin, 0); }
};

// What both have in common.
inline Span Cut(Span one, Span other) {
    return {std::max(one.begin, other.begin), std::min(one.end, other.end)};
}

struct Scene {
    // As lines say.
    Place from, to;
    Micros begin = NO_TIME, end = NO_TIME;  // Of its first and last line.
    Micros stop = NO_TIME;  // Until when it is known to have gone on: its end, else that of the
                            // process, else the capture's last line of any tag.
    int32_t process = -1;
    int32_t width = 0, fps = 0;  // As described; 0 when not known.
    bool isDescribed = false, isVideo = false;
    bool isStarted = false;
    bool hasEnd = false;              // Its end is in the capture.
    bool isGoingOn = false;           // More may come: it is only looked at.
    bool isBeginningMissing = false;  // The capture starts in its middle.
    bool isMixed = false;     // Worked out: of two objects at once, so that nothing can be told.
    bool isAfterEnd = false;  // It goes on where a scene of the process had just ended.
    bool hasThreads = false;
    size_t configuration = 0;  // Of Account::configurations, plus one; 0 where not known.
    int32_t stageCount = 0;
    std::vector<std::string> stageNames;  // The nodes, as configured; else as reported.
    // In the order in which they were first told of. A number that is used again stands again.
    std::vector<Frame> frames;
    std::vector<StagePass> passes;             // stageCount for each frame.
    std::vector<std::vector<uint32_t>> order;  // A stage each: the frames in the order they left.
    // The frame below 1 that opened the first one, which is no frame to the library.
    std::optional<int64_t> opener;
    Micros opened = NO_TIME;
    std::vector<Reporter> reporters;
    std::vector<int32_t> threads;
    std::set<int32_t> setThreads;  // Handed to the service.
    struct Repeat {
        uint32_t frame;
        int32_t stage;
        uint16_t reporter;
        Place place;
        Micros time;
    };
    std::vector<Repeat> repeats;  // Node ends of stages that the frame had left.
    struct Eviction {
        std::optional<uint32_t> frame;
        Place place;
        Micros time;
    };
    std::vector<Eviction> evictions;
    struct Disturbance {
        Micros time;
        int64_t amount;  // Lines; microseconds.
        Place place;
    };
    std::vector<Disturbance> leftOut, clockSteps;
    struct Silence : Span {
        Place place;  // The line that ends it.
    };
    std::vector<Silence> silences;  // No thread logged anything for most of a period.
    // When events were forwarded that one object does not forward: of a frame twice, or out of
    // sequence. Either there are two objects, or lines are missing.
    std::vector<Micros> impossible;

    // Worked out.
    std::vector<SceneFinding> findings;  // Worst first, causes before consequences.
    std::array<int64_t, FRAME_STATUSES> statusCounts{};
    int64_t frameCount = 0;         // All frames, those that left no line included.
    int64_t onlyOpened = 0;         // Of these, frames that were opened and never came.
    std::vector<int64_t> neverOut;  // The numbers of those that never came out, ascending.
    int64_t notBoosted = 0;  // Frames that were not boosted from start to end and should have been.
    int64_t untold = 0;      // Frames whose fate is not known, as lines are missing.
    int64_t lateFrames = 0;
    Micros lateThreshold = 0;  // A longer interval is late.
    Statistics latency, interval;
    std::vector<Statistics> stages, waits, works;  // A stage each: whole, waiting, working.

    // Frames per second as described; as the library boosts them where that is not known.
    int32_t Rate() const { return fps > 0 ? fps : 60; }
    Micros Period() const { return SECOND / Rate(); }

    StagePass& PassOf(size_t frame, int32_t stage) {
        return passes[frame * static_cast<size_t>(stageCount) + static_cast<size_t>(stage)];
    }
    const StagePass& PassOf(size_t frame, int32_t stage) const {
        return passes[frame * static_cast<size_t>(stageCount) + static_cast<size_t>(stage)];
    }
    // When the frame came to the stage: when it left the one before, or the last one that it is
    // known to have left; in stage 0, when it was started. NO_TIME where that is not known.
    Micros ArrivalOf(size_t frame, int32_t stage) const;
    StageTimes TimesOf(size_t frame, int32_t stage) const;
};

// A configuration that a process dumped when it loaded the library.
struct LoadedConfiguration {
    int32_t process = -1;
    Configuration configuration;
    std::vector<Finding> findings;  // Of the checker.
};

// Of a number that counts from one, as Scene::configuration; null for 0.
template <typename Loaded>
auto* ConfigurationOf(Loaded& configurations, size_t number) {
    return number == 0 ? nullptr : &configurations[number - 1].configuration;
}

struct Account {
    std::vector<std::string> inputs;  // What Place::input counts.
    std::string from, to;  // As the clock of the capture says; empty where no line was understood.
    bool hasThreads = false;
    Micros resolution = 1000;  // Of all times: 1000 where they are whole milliseconds, else 1.
    int64_t lines = 0, libraryLines = 0, notUnderstood = 0, lost = 0;
    std::vector<LoadedConfiguration> configurations;
    std::vector<Scene> scenes;
    std::vector<SceneFinding> findings;  // About no scene in particular.
};

// The worst of all findings but the checker's; a note when there is none.
Severity WorstOf(const Account& account);

// The numbers of the cameras whose nodes were reported.
std::set<int32_t> CamerasOf(const Scene& scene);

// Counts over all scenes of an account.
struct Totals {
    int64_t frames = 0, mixed = 0, neverOut = 0, notBoosted = 0, untold = 0, late = 0;
    Micros lateThreshold = 0;
    bool isStarted = false;
    Severity worst = Severity::Note;

    // `sign`: -1 takes the counts away again.
    void Add(const Account& account, int64_t sign = 1);
};

// What came of it all, in a sentence.
std::string VerdictOf(const Totals& totals);
std::string VerdictOf(const Account& account);

// How late a frame has to be, in milliseconds: "25.0".
std::string LateText(Micros lateThreshold);

// "file:line: severity: message [check-name]", with the moment in the scene where it is known.
// `scene`: null where the finding is about none.
std::string LineOf(const Account& account, const Scene* scene, const SceneFinding& finding);

}  // namespace tools
