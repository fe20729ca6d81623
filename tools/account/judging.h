// What the kinds of findings share while a scene is judged. Internal to this room.
//
// Each Find... looks at all of a scene and says what it finds. They are called in this order, as
// later ones leave alone what earlier ones have explained.

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tools/account/account.h"
#include "tools/account/schedule.h"

namespace tools {

// A finding that is still being put together: a cause, and the frames that suffer from it.
struct Trouble {
    SceneFinding finding;  // Its message is what the sentence begins with.
    int64_t cost = 0;      // How many of its own frames were not boosted.
    std::vector<int64_t> unseen, refused, inError, evicted, waited, late;
    int64_t absent = 0;  // How many frames it hides of which no line is left.

    // It is about the frames of these numbers, of which the first is the one to look at.
    void About(const std::vector<int64_t>& numbers);
};

inline constexpr uint64_t MOST_MISSING = 100'000;  // Numbers in a row; more is another count.

// Frames in a row that a stage was slow with, or too slow for good.
struct SlowRun {
    int32_t stage = -1;
    Micros begin = 0, end = 0;
    bool isForGood = false;
    size_t trouble = 0;
};

struct Judging {
    Judging(Scene& judged, const Schedule& itsSchedule, Micros ofTimes);

    Scene& scene;
    const Schedule& schedule;
    Micros resolution;
    std::vector<uint32_t> byNumber;  // Indices of all frames, by count and number.
    std::vector<Micros> holes;       // Moments at which lines are missing, ascending.
    std::vector<Span> standstills;   // Nobody logged, though several stages were at work.
    std::vector<Trouble> troubles;
    std::vector<uint32_t> causes;  // For each frame: one more than the trouble it is part of.
    std::vector<SlowRun> slowRuns;
    std::vector<int64_t> droppedBefore;  // For each frame: how many the sensor dropped before it.
    std::vector<bool> skipped;           // Frames that are none: numbers that the HAL skipped.
    std::vector<int64_t> droppedUnseen;  // Numbers without any line that it dropped, ascending.
    std::optional<int32_t> neverHit;     // A stage that no frame ever left.
    uint32_t firstStarted = NO_INDEX;    // The first frame whose start is told of.

    // Raises a trouble about a frame, or about none (NO_INDEX).
    Trouble& Raise(Check check, Severity severity, uint32_t frame, int32_t stage,
                   const Place& place, Micros time, std::string message);
    void Explain(uint32_t frame, size_t trouble) {
        causes[frame] = static_cast<uint32_t>(trouble + 1);
    }
    bool IsExplained(uint32_t frame) const { return causes[frame] != 0; }
    // The trouble that a frame is part of; null for none, and for no frame.
    Trouble* TroubleOf(uint32_t frame) {
        return frame != NO_INDEX && IsExplained(frame) ? &troubles[causes[frame] - 1] : nullptr;
    }

    // The last frame of that count and number; NO_INDEX where there is none.
    uint32_t FrameOf(uint16_t epoch, int64_t number) const;

    // Whether lines about the frame may be missing: near those that there are, or until then.
    bool IsDoubtful(uint32_t frame, Micros until = NO_TIME) const;
    bool HasHole(Micros from, Micros to) const;
    // Whether the clock was not set meanwhile.
    bool IsTimed(Micros from, Micros to) const;
    // It was in the pipeline when the capture began, in the middle of the scene, or when the scene
    // did: what came before is not in the capture.
    bool IsEarly(uint32_t frame) const;
    // Whether it left the last stage that any frame left; in a scene without stages, was ended.
    bool IsOut(uint32_t frame) const;
    // How much of the time from one moment to the other everything stood still.
    Micros Stood(Micros from, Micros to) const;
    // How long the stage worked on the frame while not everything stood; `unknown` where not known.
    Micros WorkOf(uint32_t frame, int32_t stage, Micros unknown) const;
    // The first stage that the frame is not known to have left behind all that it has; stageCount
    // when there is none.
    int32_t NextStage(uint32_t frame) const;
    // The first stage that the frame went past without being told to have left it; -1 for none.
    int32_t Unreported(uint32_t frame) const;
    // The last line that tells of the frame, and its time.
    std::pair<Place, Micros> LastOf(uint32_t frame) const;
    std::string StageName(int32_t stage) const;
};

// The frames that left the stage after that time, in that order.
std::span<const uint32_t> LeftAfter(const Scene& scene, int32_t stage, Micros time);

bool FindTwoObjects(Judging& judging);  // True: nothing else can be told.
void FindHoles(Judging& judging);
void FindStandstills(Judging& judging);
void ClassifyFrames(Judging& judging);
void FindNeverHit(Judging& judging);
void FindNoneHit(Judging& judging, const std::vector<ConfiguredStage>& configured);
void FindMissingNumbers(Judging& judging);
void FindLost(Judging& judging);
void FindRestarts(Judging& judging);
void FindOrder(Judging& judging);
void FindRates(Judging& judging);
void FindSlowForGood(Judging& judging);
void FindLate(Judging& judging, Micros threshold);
void FindSlowFirst(Judging& judging);
void FindEvictions(Judging& judging);
void FindThreads(Judging& judging);
void FindIgnored(Judging& judging, const std::vector<ConfiguredStage>& stages);
void FindClockSteps(Judging& judging);
void FindLinesLost(Judging& judging);

}  // namespace tools
