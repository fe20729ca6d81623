// When each stage could have begun with each frame, how long it took and what is usual: the
// arithmetic of a chain of queues, worked out from the whole table of a scene.

#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "tools/account/account.h"

namespace tools {

inline constexpr uint32_t NO_INDEX = std::numeric_limits<uint32_t>::max();

// A stretch of a scene in which frames come at a rate of their own.
struct RateStretch : Span {
    Micros period = 0;
    Place place;
};

class Schedule {
  public:
    // Fills StagePass::begin of all frames. The scene has to stay.
    explicit Schedule(Scene& measured);

    Micros Period() const { return period; }
    // Between two frames as they come at that moment: the scene's period, but for stretches of
    // another rate.
    Micros PeriodAt(Micros time) const;
    const std::vector<RateStretch>& Rates() const { return rates; }

    // How long frames usually are in a stage.
    Micros UsualStay(int32_t stage) const { return usualStay[Index(stage)]; }
    // Who left the stage right before the frame; NO_INDEX for nobody.
    uint32_t Ahead(uint32_t frame, int32_t stage) const {
        return ahead[frame * stageCount + Index(stage)];
    }
    // How long the stage worked on the frame; NO_TIME where not known.
    Micros WorkOf(uint32_t frame, int32_t stage) const;

    // What a stage was waiting for when it began with a frame: the frame itself, the one ahead, or,
    // where it keeps frames back until others have come, the one that came.
    struct Cause {
        Micros begin = NO_TIME;
        uint32_t frame = NO_INDEX;
        bool isInStage = false;  // It is that frame's time in the stage; else in the one before.
    };
    Cause CauseOf(uint32_t frame, int32_t stage) const;
    // How many frames a stage keeps back, or works on at once besides the one that leaves it.
    int32_t KeptBack(int32_t stage) const { return keptBack[Index(stage)]; }
    // How much longer than usual a stage took for a frame, from what it was waiting for.
    Micros UsualDelay(int32_t stage) const { return usualDelay[Index(stage)]; }

    // Frames that came out, in that order, and the stage that they came out of; -1 where the scene
    // has no stages and frames come out when they end.
    const std::vector<uint32_t>& Outputs() const { return outputs; }
    int32_t LastStage() const { return lastStage; }

  private:
    static size_t Index(int32_t stage) { return static_cast<size_t>(stage); }
    void FindKeptBack(int32_t stage);
    bool KeepsUp(int32_t stage, const std::vector<Micros>& inside) const;

    const Scene& scene;
    size_t stageCount;
    Micros period;
    std::vector<RateStretch> rates;
    std::vector<uint32_t> ahead;  // stageCount for each frame.
    std::vector<Micros> usualStay, usualDelay;
    std::vector<int32_t> keptBack;
    // Of stages that keep frames back: what each frame waits for.
    std::vector<std::vector<uint32_t>> triggers;
    std::vector<uint32_t> outputs;
    int32_t lastStage = -1;
};

}  // namespace tools
