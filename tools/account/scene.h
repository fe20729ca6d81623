// The table of what a log says: a row a frame, a column a stage. SceneReader writes it, and nobody
// changes it afterwards. It holds facts and no opinion: what follows from them is in Columns.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/base/finding.h"
#include "tools/base/times.h"
#include "tools/check/check.h"
#include "tools/log/message.h"

namespace tools {

inline constexpr uint32_t NO_INDEX = UINT32_MAX;

struct Span {
    Micros begin = 0, end = 0;

    Micros Length() const { return std::max<Micros>(end - begin, 0); }
};

// What both have in common.
inline Span Cut(Span one, Span other) {
    return {std::max(one.begin, other.begin), std::min(one.end, other.end)};
}

// A moment, and the line of the log that tells of it.
struct Mark {
    Micros time = NO_TIME;
    Place place{};

    auto operator<=>(const Mark&) const = default;  // NOLINT(modernize-use-nullptr): its 0.
};

// Numbers of frames may be anything. The number so many places further, which goes round at the
// ends of 64 bits.
inline int64_t Plus(int64_t number, int64_t places) {
    return static_cast<int64_t>(static_cast<uint64_t>(number) + static_cast<uint64_t>(places));
}
// How many places further the second number is: 0 where it is not, and at most a million.
inline int64_t StepOf(int64_t from, int64_t to) {
    constexpr uint64_t most = 1'000'000;
    const uint64_t step = static_cast<uint64_t>(to) - static_cast<uint64_t>(from);
    return to > from ? static_cast<int64_t>(std::min(step, most)) : 0;
}

// Which lines of a frame's stage there are.
inline constexpr uint8_t NODE_END = 1;
inline constexpr uint8_t STAGE_START = 2;
inline constexpr uint8_t STAGE_END = 4;

// A frame in a stage.
struct Pass {
    // The first line that says that the frame left the stage: its node end, its stage end or the
    // next stage's start. Line 0: it was not seen to leave.
    Mark left;
    int32_t thread = -1;    // That logged this; -1 where it is not known.
    uint16_t reporter = 0;  // Of Scene::reporters, for a node end.
    uint8_t seen = 0;       // Which of its lines there are.

    bool HasLeft() const { return left.place.line != 0; }
};

struct Frame {
    int64_t number = 0;
    Micros seen = NO_TIME;  // The time of the first line that names it.
    Micros start = NO_TIME, end = NO_TIME;
    Micros evicted = NO_TIME;     // When newer frames pushed it out of the table.
    Micros refused = NO_TIME;     // When an event of it was first refused as not in flight,
    Micros refusedEnd = NO_TIME;  // and its end.
    Place place;                  // The line that starts it, or the first that names it.
    Mark trouble;                 // The first thing that went wrong with it; line 0 for none.
    int64_t newestBefore = 0;     // Of a gap: the newest frame then.
    int32_t violationStage = -1, violationOther = -1;
    // How it first broke the order of its stages: StageNotInRange, StageOutOfOrder, StageOutOfTurn.
    std::optional<MessageKind> violation;
    bool isStarted = false;    // Its start was forwarded.
    bool isGap = false;        // Its start was refused: not the newest frame's next.
    bool isDuplicate = false;  // It was started again while in flight.
    bool isEnded = false;      // Its end was forwarded.
    bool isHeld = false;       // In the table when the scene ended.
};

// A node that reports ends, on a port, for a camera.
struct Reporter {
    std::string node{};
    int32_t port = 0, camera = 0, stage = -1;
    std::optional<bool> counts{};  // Whether its ends end the stage; nothing where not known.
    int64_t times = 0;
    Place place{};  // Of its first end.
};

// What ended a scene, or the reading of it.
enum class Stop : uint8_t { SceneEnd, CaptureEnd, ProcessGone, NumbersRestart, Looked };

struct Scene {
    Place from, to;
    Micros begin = NO_TIME, end = NO_TIME;  // Of its first and last line.
    Micros stop = NO_TIME;  // Until when its frames may have gone on: its end, else the last line
                            // of its process where another one took over, else of the capture.
    Stop stopped = Stop::CaptureEnd;
    int32_t process = -1;
    int32_t width = 0, fps = 0;  // As described; 0 where not known.
    bool isDescribed = false;
    bool isStarted = false;
    bool isBeginningMissing = false;  // The capture starts in its middle.
    bool isAfterEnd = false;          // Its process had just ended another one.
    bool isAlone = false;             // The HAL reports frames and no stages.
    bool hasNodes = false;            // The HAL reports ends of nodes behind the first stage.
    bool hasThreads = false;          // Its lines name their threads.
    // The message that says that nothing of it is boosted.
    std::optional<MessageKind> refusal;
    int64_t refusals = 0;                   // How often that was tried in a row.
    std::optional<int64_t> restartedAfter;  // Numbers started again: the newest frame before.
    int32_t stagesBefore = 0;               // How many stages its frames left before that.
    size_t configuration = 0;  // Of Account::configurations, plus one; 0 where not known.
    std::vector<ConfiguredStage> configured;  // As its process loaded them; empty where not known.
    int32_t stageCount = 0;
    std::vector<std::string> stageNames;  // The nodes, as configured; else as reported.
    std::vector<Frame> frames;            // By number, each number once.
    std::vector<Pass> passes;             // stageCount for each frame.
    // The number that first left stage 0, which is no frame to the library.
    std::optional<int64_t> opener;
    Micros opened = NO_TIME;
    std::vector<Reporter> reporters;
    std::set<int32_t> setThreads;  // Handed to the service.
    struct Repeat {
        int32_t stage;
        Pass pass;
    };
    std::map<int64_t, Repeat> repeats;  // By number, the first node end of a stage that the frame
                                        // had left.
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
    // How often stage 0 ended a lower number than before, how often by far, how often the same one
    // again, and how often a frame was started twice: one object does none of that for long.
    int32_t descents = 0, falls = 0, endedAgain = 0, startedAgain = 0;

    bool HasEnd() const { return stopped == Stop::SceneEnd; }
    // Frames per second as described; as the library boosts them where that is not known.
    int32_t Rate() const { return fps > 0 ? fps : 60; }
    Micros Period() const { return SECOND / Rate(); }

    const Pass& PassOf(size_t frame, int32_t stage) const {
        return passes[frame * static_cast<size_t>(stageCount) + static_cast<size_t>(stage)];
    }
    // The line by which the frame left the stage, with NO_TIME where that is not known. A scene
    // without stages has one: from a frame's start to its end, and with the line of its start.
    Mark LeftAt(size_t frame, int32_t stage) const {
        if (!isAlone) {
            return PassOf(frame, stage).left;
        }
        const Frame& row = frames[frame];
        return {row.end != NO_TIME ? row.end : row.refusedEnd, row.place};
    }
    Micros LeftOf(size_t frame, int32_t stage) const { return LeftAt(frame, stage).time; }
    // When the sensor delivered it: it left stage 0, or was started where there are no stages.
    Mark DeliveryOf(size_t frame) const {
        return isAlone ? Mark{frames[frame].start, frames[frame].place} : LeftAt(frame, 0);
    }
    Micros DeliveredAt(size_t frame) const { return DeliveryOf(frame).time; }
    // The last stage before that one that the frame is known to have left; -1 for none.
    int32_t StageBefore(size_t frame, int32_t stage) const {
        do {
            --stage;
        } while (stage >= 0 && !PassOf(frame, stage).HasLeft());
        return stage;
    }
    // When the frame came to the stage: when it left the one before, or the last one that it is
    // known to have left; in stage 0, when it was started. NO_TIME where that is not known.
    Micros ArrivalOf(size_t frame, int32_t stage) const {
        const int32_t before = StageBefore(frame, stage);
        if (before < 0) {
            return stage == 0 ? frames[frame].start : NO_TIME;
        }
        return PassOf(frame, before).left.time;
    }
    // The first stage behind all those that the frame is known to have left.
    int32_t NextStage(size_t frame) const { return StageBefore(frame, stageCount) + 1; }
    // The first stage that the frame went past without being seen to leave it; -1 for none.
    int32_t Unreported(size_t frame) const {
        const int32_t next = NextStage(frame);
        for (int32_t stage = 0; stage < next; ++stage) {
            if (!PassOf(frame, stage).HasLeft()) {
                return stage;
            }
        }
        return -1;
    }
    // The last line that says where the frame was.
    Mark LastOf(size_t frame) const {
        const Frame& row = frames[frame];
        Mark last{std::max(row.seen, row.start), row.place};
        for (int32_t stage = 0; stage < stageCount; ++stage) {
            const Pass& pass = PassOf(frame, stage);
            if (pass.HasLeft() && pass.left.time >= last.time) {
                last = pass.left;
            }
        }
        return last;
    }
    // The time of the last of all its lines.
    Micros SeenUntil(size_t frame) const { return std::max(LastOf(frame).time, frames[frame].end); }
    // The line to look at: that of the first trouble with the frame, else the last.
    Mark TroubleOf(size_t frame) const {
        const Mark& trouble = frames[frame].trouble;
        return trouble.place.line != 0 ? trouble : LastOf(frame);
    }
    // The row of a number; NO_INDEX for none.
    uint32_t RowOf(int64_t number) const {
        const auto found = std::ranges::lower_bound(frames, number, {}, &Frame::number);
        return found != frames.end() && found->number == number
                   ? static_cast<uint32_t>(found - frames.begin())
                   : NO_INDEX;
    }
};

// A configuration that a process dumped when it loaded the library.
struct LoadedConfiguration {
    int32_t process = -1;
    Configuration configuration;
    std::vector<Finding> findings;  // Of the checker.
};

// What was read of a capture.
struct Readings {
    std::vector<std::shared_ptr<LoadedConfiguration>> configurations;
    std::vector<Scene> scenes;  // In the order of their first lines.
    bool hasThreads = false;
};

// The numbers of the cameras whose nodes were reported.
inline std::set<int32_t> CamerasOf(const Scene& scene) {
    std::set<int32_t> cameras;
    for (const Reporter& reporter : scene.reporters) {
        cameras.insert(reporter.camera);
    }
    return cameras;
}

}  // namespace tools
