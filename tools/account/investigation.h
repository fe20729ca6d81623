// Finds the causes of what went wrong with a scene's frames, and puts them into words.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <list>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/account/account.h"
#include "tools/account/step.h"

namespace tools {

// What has been seen of a frame, beyond what the account says of it.
struct Observed {
    int64_t number = 0;
    size_t index = 0;              // Counts the scene's frames from 0.
    bool isStarted = false;        // Admitted in sequence.
    bool isAdmitted = false;       // Admitted, in sequence or in error.
    bool isFollower = false;       // Others were in flight when it was started.
    bool hasEnded = false;         // Its end was told, whatever came of that.
    bool isEndedDirectly = false;  // By a call of its own, and no node end.
    bool isSilent = false;         // An event of it was refused without a line.
    bool isGone = false;           // It was not in flight although it should have been.
    bool isDuplicate = false;      // Was started again while it was in flight.
    bool isReportedByHal = false;
    bool isEarly = false;        // What came before it is not in the capture.
    bool isDoubtful = false;     // Lines that tell of it are missing.
    bool isLineMissing = false;  // It is the one that shows that.
    uint64_t ended = 0;          // A bit a stage that was told to have ended.
    uint64_t forwardedStarts = 0, forwardedEnds = 0;
    int64_t newestBefore = 0;  // Of a gap: the newest frame then.
    // The first of its stage events that was out of order.
    Outcome violation = Outcome::Forwarded;
    int32_t violationStage = -1, violationOther = -1;
    // A stage that a node ended once more, and on which port of which camera.
    int32_t repeatedStage = -1;
    struct End {
        int32_t port = -1, camera = -1;
        Place place;
    } repeat;
    std::vector<End> ends;  // A stage each.
    // The first stage that another frame, which was told of later, left earlier.
    int32_t overtakenStage = -1;
    int64_t overtaker = NO_FRAME;
    Place trouble;  // The line of the first of the above.
    Micros troubleTime = NO_TIME;

    bool IsThrough(int32_t stageCount) const {
        return hasEnded || (stageCount > 0 && (ended >> (stageCount - 1) & 1) != 0);
    }
};

// The usual length of something, so far.
class Usual {
  public:
    void Add(Micros length);
    Micros Median() const;

  private:
    static constexpr Micros BIN = 250;  // Finer than what captures tell.
    std::array<uint32_t, 1024> bins{};
    int64_t count = 0;
    mutable Micros median = 0;
    mutable int64_t medianOf = 0;  // How many there were when `median` was worked out.
};

// How far the scene's frames have come.
struct Progress {
    static constexpr size_t NONE = std::numeric_limits<size_t>::max();
    std::vector<size_t> newest;  // A stage each: the newest frame that left it; NONE for none.
    size_t newestEnded = NONE;
    std::vector<Usual> works, waits;  // A stage each.
    Usual intervals;
};

// Is shown the frames of one scene in order, each when some fifty later ones have been seen too.
class Investigation {
  public:
    using Listener = std::function<void(const AccountedFinding&)>;
    Investigation(Scene& investigated, const Progress& sceneProgress, Listener onFinding);

    // Looks at a frame, which is the scene's `position`-th that is kept.
    void Examine(const Observed& seen, size_t position);
    // Lines of the capture are known to be missing; 0: not known how many. `opened`: how many
    // frames there had been by then.
    void NoteLostLines(const Disturbance& disturbance, size_t opened);
    // A node end that ends no stage. `nearMiss`: what it looks like but is not.
    void NoteIgnored(const std::string& node, int32_t port, const Place& place);
    void NoteFinding(AccountedFinding finding);
    // A frame that never left the pipeline was pushed out of the table long after.
    void NotePushedOut() { ++pushedOut; }
    // Ends it: findings stand in the scene afterwards. `holders`: lost frames that are in the
    // table still, of `places`.
    void Close(const std::vector<int64_t>& holders, size_t places,
               const std::optional<Configuration>& configuration);

  private:
    // Frames by number: counted, and the first few known.
    struct FrameList {
        int64_t count = 0, last = 0;
        bool isUnbroken = true;
        std::vector<int64_t> first;
        void Add(int64_t frame);
        std::string ToString() const;
    };

    // What went wrong, and what followed from it.
    struct Trouble {
        int64_t id = 0;
        AccountedFinding finding;  // Its message is what the sentence begins with.
        bool costsFrame = true;    // The frame itself was not boosted.
        bool isOfScene = false;    // Goes on until the scene ends.
        int64_t touched = 0;       // When the last of its consequences was found.
        FrameList frames;          // Of one that isOfScene: where it happened.
        FrameList unseen, refused, inError, evicted, waited, late, untold, absent;
        Micros longest = 0;
        int64_t lines = 0;
        size_t hole = 0;          // Of missing lines: the latest frame that may suffer from them.
        bool namesFrame = false;  // The finding's frame is the best to name.
    };

    // What was found about the frames before.
    struct Examined {
        int64_t number;
        int64_t trouble;       // 0 for none.
        Micros output;         // NO_TIME: nothing of it came out.
        bool opensNoFollower;  // Its end of stage 0 did not open the next frame.
    };

    struct Ignored {
        std::string node;
        int32_t port = 0;
        int64_t times = 0;
        Place place;
    };

    // How many of a kind there were, beyond those that are told one by one.
    struct Kind {
        int64_t times = 0;
        FrameList frames;
    };

    std::string StageName(int32_t stage) const;
    Trouble& Raise(const char* check, Severity severity, const Observed& seen, int32_t stage,
                   std::string what);
    Trouble& RaiseOfScene(const char* check, Severity severity, const Observed& seen, int32_t stage,
                          std::string what);
    Trouble* Find(int64_t id);
    Trouble* FindLostLines(size_t hole);
    Trouble& RaiseLostLines(const Observed& seen, size_t hole);
    Trouble* CauseBefore(const Observed& seen);
    int32_t StageNotLeft(const Observed& seen) const;
    Trouble* FindStatusCause(const Observed& seen, const Frame& frame,
                             std::span<const StageTimes> times, int32_t stageNotLeft);
    static std::string DescribeGap(const Observed& seen);
    Trouble* FindDelay(const Observed& seen, const Frame& frame, size_t position);
    bool IsCaughtUp(size_t position, Micros excess) const;
    void NoteAbsent(const Observed& seen, size_t position);
    void JoinWaiting(const Observed& seen, size_t position);
    void CloseTroubles(bool all);
    void Conclude(Trouble& trouble);
    void TellIgnored(const std::optional<Configuration>& configuration);
    void FoldKinds();

    Scene& scene;
    const Progress& progress;
    Listener listener;
    int64_t examined = 0;
    Place lastOfFrame;  // The line that last tells of the one that is being examined.
    int64_t lastId = 0;
    std::list<Trouble> troubles;  // Those that may have more consequences.
    std::deque<Examined> recent;  // The latest first.
    int64_t delayId = 0;          // The slow stage that frames may be waiting behind.
    bool hasStarted = false;
    std::vector<Ignored> ignored;
    std::map<std::pair<std::string, int32_t>, Kind> kinds;  // By check and stage.
    int64_t pushedOut = 0;
};

}  // namespace tools
