// What happened, told from steps alone: scenes, frames, stages, times, and findings in words.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/account/step.h"
#include "tools/check/check.h"
#include "tools/base/finding.h"

namespace tools {

// What became of a frame.
enum class FrameStatus : uint8_t {
    Complete,  // Started, all its stages, ended.
    Error,     // Reported by the library.
    Evicted,   // Pushed out of the table by newer frames.
    Refused,   // Its start was refused.
    Unseen,    // Nodes reported it; the library never had it.
    Open,      // In flight at the end of its scene, or of the capture.
};
inline constexpr size_t FRAME_STATUSES = 6;
const char* NameOf(FrameStatus status);  // "complete" and so on.

// When a frame was in a stage. NO_TIME where it is not known.
struct StageTimes {
    Micros start = NO_TIME;
    Micros end = NO_TIME;
    Micros wait = NO_TIME;  // Of that, until the node was done with the frame before.
    Micros work = NO_TIME;  // The rest.
};

struct Frame {
    int64_t number = 0;
    FrameStatus status = FrameStatus::Open;
    bool isLate = false;
    bool hasFinding = false;
    Outcome reason = Outcome::Forwarded;  // Why it is not complete; Forwarded when it is.
    int32_t stage = -1;                   // The stage that it is about, or that it got to last.
    Place place;  // The line that shows it best: what went wrong, else its start.
    Micros start = NO_TIME;
    Micros end = NO_TIME;
    Micros output = NO_TIME;    // When the last stage was done with it, boosted or not.
    Micros interval = NO_TIME;  // From the output of the frame before to its own.
};

// n, percentiles and the largest of some durations in microseconds.
struct Statistics {
    int64_t count = 0;
    Micros p50 = 0, p90 = 0, p95 = 0, p99 = 0, max = 0;
};

struct AccountedFinding : Finding {
    Micros time = NO_TIME;  // The moment to look at.
    int32_t stage = -1;
    int64_t times = 1;  // How many of the kind it stands for.
};

struct Scene {
    Place from, to;
    Micros begin = NO_TIME, end = NO_TIME;
    int32_t process = -1;  // -1 when not known.
    bool isVideo = false;  // As described.
    int32_t width = 0;
    int32_t fps = 0;  // As described; 0 when not known.
    bool isDescribed = false;
    bool isStarted = false;
    Outcome refusal = Outcome::Forwarded;  // Why it was not started; Forwarded when it was.
    std::optional<int32_t> mode;           // The operation mode it was started in, where known.
    bool isBeginningMissing = false;       // The capture starts in its middle.
    int32_t stageCount = 0;
    std::vector<std::string> stageNames;  // The nodes, as configured; else as reported.
    // In the order in which they were first told of, which is that of their numbers but where a
    // camera counts strangely; a number that is used again stands again.
    std::vector<Frame> frames;
    std::vector<StageTimes> stageTimes;  // stageCount for each frame.
    std::vector<Disturbance> disturbances;
    std::vector<AccountedFinding> findings;  // Worst first, causes before consequences.

    std::span<const StageTimes> StagesOf(size_t frame) const {
        return std::span(stageTimes)
            .subspan(frame * static_cast<size_t>(stageCount), static_cast<size_t>(stageCount));
    }

    int64_t CountOf(FrameStatus status) const;
    std::array<int64_t, FRAME_STATUSES> statusCounts{};  // Of all frames, kept or not.
    // Frames that were not boosted from start to end and should have been: not those that were in
    // flight when the scene or the capture began or ended.
    int64_t notBoosted = 0;
    int64_t untold = 0;  // Frames whose fate is not known, as lines are missing.
    int64_t lateFrames = 0;
    Micros lateThreshold = 0;  // A longer interval is late.
    Statistics latency, interval;
    std::vector<Statistics> stages, waits, works;  // A stage each: whole, waiting, working.
};

struct Account {
    std::vector<std::string> inputs;  // What Place::input counts.
    std::string from, to;             // As the clock of the capture says; empty without times.
    bool hasTimes = false;
    bool hasThreads = false;
    Micros resolution = 1000;  // Of all times: 1000 where they are whole milliseconds, else 1.
    int64_t lines = 0, libraryLines = 0, notUnderstood = 0, lost = 0;
    std::optional<Configuration> configuration;  // As last dumped.
    std::vector<Finding> configurationFindings;  // Of the checker.
    std::vector<Scene> scenes;
    std::vector<AccountedFinding> findings;  // About no scene in particular.
    // How often what became of which kind of event, over everything.
    std::map<std::pair<EventKind, Outcome>, int64_t> events;
};

// The worst of all findings but the checker's; a note when there is none.
Severity WorstOf(const Account& account);

// What came of it all, in a sentence.
std::string VerdictOf(const Account& account);

}  // namespace tools
