// What page and trace share: how frames are called, and laid out in time.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/account/account.h"

namespace tools {

// How a frame is shown: its status, but for complete frames that came late, and those that were
// still in flight because something went wrong.
enum class Look : uint8_t { Good, Late, Stuck, Error, Evicted, Refused, Unseen, Unknown, Open };
inline constexpr size_t LOOKS = 9;

Look LookOf(const Frame& frame);
// The stage at which a frame went wrong, or that it got to; -1 where that would mislead, as the
// library never had the frame.
int32_t StageOf(const Frame& frame);
// "late", "error" and so on; empty for a good frame.
const char* WordOf(Look look);

// From a beginning to an end; NO_TIME where not known.
struct Span {
    Micros begin = NO_TIME;
    Micros end = NO_TIME;
    void Include(Micros time);
    bool Holds(Micros time) const { return time >= begin && time < end; }
};

// Between two frames as they should come: of the frame rate described, else as they mostly came.
Micros PeriodOf(const Scene& scene);

// When the frame is shown to be in the stage: for a period where it is not known to have left.
Span SpanOf(const Scene& scene, size_t frame, size_t stage);
// From the first to the last that is known of a frame, or shown of its stages.
Span SpanOf(const Scene& scene, size_t frame);

// "scene 2: 3840 wide, 60 fps, process 1234". `scene`: from 0.
std::string TitleOf(const Account& account, size_t scene);
// "stage 0, SensorFrontEnd".
std::string StageTitleOf(const Scene& scene, size_t stage);
// "capture.log:17", or "line 17" of the only input; empty for nowhere.
std::string ToString(const Account& account, Place place);

// "12 lines lost", "the clock jumped by -40 ms".
std::string ToString(const Disturbance& disturbance);

// Spreads spans that overlap over as few lanes as it takes.
class Lanes {
  public:
    // The lane, from 0, of the next span; they come in the order of their beginnings.
    size_t Put(const Span& span);
    size_t Count() const { return ends.size(); }

  private:
    std::vector<Micros> ends;
};

}  // namespace tools
