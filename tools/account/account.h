// What happened, and what is to be said of it: the whole account of a capture.

#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/account/cause.h"
#include "tools/base/statistics.h"
#include "tools/log/capture.h"

namespace tools {

// A cause in words, or several of a kind: with the frames and times of all, and the place of the
// first.
struct SceneFinding : Cause {
    std::string message{};
};

// When a frame was in a stage. NO_TIME where it is not known.
struct StageTimes {
    Micros start = NO_TIME;  // When it left the stage before; in stage 0, when it was started.
    Micros end = NO_TIME;
    Micros wait = NO_TIME;  // Of that, until the stage was done with the frame ahead.
    Micros work = NO_TIME;  // The rest.
};

// How the frames of a scene fared, in numbers.
struct Figures {
    std::array<int64_t, FRAME_STATUSES> statusCounts{};
    int64_t frameCount = 0;         // All frames, those that left no line included.
    int64_t onlyOpened = 0;         // Of these, frames that were opened and never came.
    std::vector<int64_t> neverOut;  // The numbers of those that never came out, ascending.
    int64_t notBoosted = 0;         // Those not boosted from start to end that should have been.
    int64_t unknown = 0;            // Those whose fate is not known, as lines are missing.
    int64_t late = 0;
    Statistics latency, interval;
    std::vector<Statistics> stages, waits, works;  // A stage each: whole, waiting, working.
};

// A scene with all that is known of it.
struct JudgedScene : Scene {
    Columns columns;
    std::vector<Cause> causes;  // By precedence, with the frames that each harmed.
    Figures figures;
    std::vector<SceneFinding> findings;  // Worst first.

    StageTimes TimesOf(size_t row, int32_t stage) const;
    const Fate& FateOf(size_t row) const { return columns.fates[row]; }
};

struct Account : CaptureSummary {
    std::vector<std::string> inputs;  // What Place::input counts.
    bool hasThreads = false;
    std::vector<LoadedConfiguration> configurations;
    std::vector<JudgedScene> scenes;
    std::vector<SceneFinding> findings;  // About no scene in particular.
};

struct JudgeOptions {
    double latePeriods = 1.5;  // An output interval of more frame periods than that is late.
    size_t namedOneByOne = 5;  // Findings of a kind in a scene. More become one.
};

// Judges what was read: columns, causes, and the frames that each harmed. `inputs`: what messages
// call them.
Account Judge(Readings readings, CaptureSummary summary, std::vector<std::string> inputs,
              const JudgeOptions& options);
// Makes the findings of the causes. Apart from Judge, as a scheduler trace adds to causes before.
void MakeFindings(Account& account, const JudgeOptions& options);

// The worst of all findings but the checker's; a note when there is none.
Severity WorstOf(const Account& account);

// Counts over all scenes of an account.
struct Totals {
    int64_t frames = 0, mixed = 0, neverOut = 0, notBoosted = 0, unknown = 0, late = 0;
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

// Some frames: a first and a last number.
struct FrameRange {
    int64_t first = 0, last = 0;
};

// As ranges of numbers that follow one another; the numbers are ascending.
std::vector<FrameRange> RangesOf(const std::vector<int64_t>& numbers);
// "121", "301 to 305", "1, 4 and 9", "1, 2, 4, 5, 7, 8 and 13 more".
std::string NumbersText(const std::vector<int64_t>& numbers);
// "frame 121", "frames 301 to 305".
std::string FramesText(const std::vector<int64_t>& numbers);
// "stage 1 (ToneMapper)"; "the pipeline" below 0.
std::string StageName(const Scene& scene, int32_t stage);
// Whole milliseconds: "45".
std::string Ms(Micros time);

// What happened, and what followed from it.
std::string SentenceOf(const Scene& scene, const Columns& columns, const Cause& cause);

// "file:line: severity: message [check-name]", with the moment in the scene where it is known.
// `scene`: null where the finding is about none.
std::string LineOf(const Account& account, const JudgedScene* scene, const SceneFinding& finding);

}  // namespace tools
