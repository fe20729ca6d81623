// What the page draws of a scene: which moments, and when each of its frames was.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "tools/output/drawing.h"

namespace tools {

// A scene with no more frames than this is drawn whole.
inline constexpr size_t WHOLE_FRAMES = 240;

class DrawnScene {
  public:
    DrawnScene(const Account& account, size_t sceneIndex);

    // Draws the frames with these numbers.
    void AddFrames(int64_t first, int64_t last, size_t& bars);
    // Draws what is around the finding of that rank. Returns false when there is none.
    bool AddFinding(size_t rank, size_t& bars);
    // Draws this stretch, joined with those that it overlaps. A bar is a frame in a stage: draws no
    // more of them than there are left in `bars`, and takes from it what it needs.
    void AddWindow(Span window, size_t& bars);

    bool IsDrawn(size_t frame) const { return HoldsMoment(moments[frame]); }
    bool HoldsMoment(Micros time) const;
    // The frame that a finding is about: of several of its number the one nearest in time.
    std::optional<size_t> FrameOf(const AccountedFinding& finding) const;

    const Scene& scene;
    size_t index;
    Micros period;
    bool hasTimes = false;
    Span span;  // All of it.
    // Of each frame: when it came out, else when it was last seen, else when it should have been.
    std::vector<Micros> moments;
    std::vector<Span> windows;                    // That have a timeline, in the order of time.
    std::set<std::pair<size_t, int32_t>> blamed;  // Frames and stages that findings are about.
};

}  // namespace tools
