// What follows from a scene for each frame, by arithmetic alone. A pipeline is a chain of queues: a
// stage begins with a frame when the frame has come and the one ahead has left, works on it until
// it leaves, and before that the frame waits.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "tools/account/scene.h"

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

// What became of a frame, in a row of its own beside the scene's.
struct Fate {
    FrameStatus status = FrameStatus::Open;
    const char* reason = "";  // Why it is not complete, in words.
    int32_t stage = -1;       // That the reason is about, or that the frame got to last.
    int64_t periods = 1;      // Of the sensor since the frame before: more behind dropped ones.
    bool isOut = false;       // It left the last stage that any frame of the scene left.
    bool isNeverOut = false;  // It did not, and will not.
    bool isLate = false;
    bool isUnknown = false;     // It is not known: lines are missing.
    bool isEarly = false;       // In the pipeline before the scene, or the capture: not judged.
    bool isOnlyOpened = false;  // The one before it was seen, it never came.
    bool isSkipped = false;     // It is no frame: the HAL skipped its number.
    Micros output = NO_TIME;    // When it came out. An estimate where `isOut` is not so.
    Micros interval = NO_TIME;  // From the output before to its own.
};

// A frame that never came out.
struct Lost {
    enum class How : uint8_t {
        Dropped,  // By the sensor. It may have no row.
        Ended,    // By the HAL.
        Passed,   // By frames behind it.
        Stands,   // It stood when all ended.
    };
    int64_t number = 0;
    int32_t stage = 0;  // That it never left,
    Micros since = 0;   // and since when it was in there.
    How how = How::Dropped;
};

// Numbers that are missing between two frames that left stage 0 one after the other.
struct Gap {
    std::vector<int64_t> missing{};
    int64_t before = 0;        // The number of the first of the two,
    uint32_t next = NO_INDEX;  // and the row of the second.
    Mark from{};               // When and where the first left,
    Micros to = 0;             // and when the second did.
    bool isDropped = false;    // By the sensor; else the HAL skipped them.
};

// That a pass took longer than it should have, by so much.
struct Blame {
    uint32_t row = NO_INDEX;
    int32_t stage = -1;
    Micros excess = 0;
};

// A frame that came out late.
struct LateFrame {
    uint32_t row = NO_INDEX;
    std::set<int64_t> lost{};    // Numbers since the output before that never came out.
    std::vector<Blame> blame{};  // The passes that its delay is followed back to.
};

// Frames that were pushed out of the table for one reason, one soon after the other.
struct Evictions {
    std::vector<uint32_t> rows;
    // For each: the stage that held more frames than usual then, and so filled the table.
    std::vector<std::optional<int32_t>> holders;
};

// All threads were silent, while frames were in several stages.
struct Standstill : Scene::Silence {
    int32_t stages = 0;
};

// A value for each stage.
template <typename Value>
struct PerStage : std::vector<Value> {
    using std::vector<Value>::vector;
    auto& operator[](int32_t stage) {
        return std::vector<Value>::operator[](static_cast<size_t>(stage));
    }
    const auto& operator[](int32_t stage) const {
        return std::vector<Value>::operator[](static_cast<size_t>(stage));
    }
};

inline Micros Times(double factor, Micros time) {
    return static_cast<Micros>(factor * static_cast<double>(time));
}

// NO_TIME where either is not known.
inline Micros Between(Micros from, Micros to) {
    return from == NO_TIME || to == NO_TIME ? NO_TIME : to - from;
}

struct Columns {
    bool isMixed = false;             // Of two objects at once: nothing else is worked out.
    int32_t stages = 0;               // That some frame left; 1 where the HAL reports frames alone.
    std::optional<int32_t> neverHit;  // A configured stage that no frame left.
    Micros lateThreshold = 0;         // A longer interval between outputs is late.
    std::vector<Standstill> stood;
    // A stage each.
    PerStage<std::vector<uint32_t>> order;  // Rows in the order in which they left.
    PerStage<std::vector<uint32_t>> came;   // Rows in the order in which they came,
    PerStage<std::vector<uint32_t>> place;  // and the position therein of each row.
    PerStage<uint32_t> kept;  // Frames that the stage keeps back, or works on beside another.
    // Medians of work, of work and waiting together, and of the time from when frames may leave.
    PerStage<Micros> usual, usualStay, usualHold;
    PerStage<char> isByNodes;  // Whether nodes report its ends, and not the HAL itself.
    // A pass each, `stages` for each row.
    std::vector<Micros> begin;        // When the stage began; NO_TIME where that is not known.
    std::vector<uint32_t> behind;     // The pass whose end that was; NO_INDEX where there is none.
    std::vector<uint32_t> delivered;  // Rows in the order in which the sensor delivered them.
    // A row each.
    std::vector<Micros> period;  // Of the sensor around the frame.
    std::vector<Fate> fates;
    std::vector<Span> holes;  // Where lines are missing.
    std::vector<Gap> gaps;
    std::map<int64_t, Lost> lost;   // By number.
    std::vector<uint32_t> outputs;  // Rows in the order in which they came out.
    std::vector<LateFrame> late;    // In the order in which they came out.
    std::vector<Evictions> evictions;

    size_t PassOf(uint32_t row, int32_t stage) const {
        return row * static_cast<size_t>(stages) + static_cast<size_t>(stage);
    }
    int32_t LastStage() const { return stages - 1; }
    // How much of the time from one moment to the other everything stood still.
    Micros StoodIn(Micros from, Micros to) const;
    // Whether lines that are missing may have been about that time.
    bool IsNearHole(Micros from, Micros to) const;
    // How long the stage worked on the frame, while not everything stood; how long the frame waited
    // for that; NO_TIME where that is not known.
    Micros WorkOf(const Scene& scene, uint32_t row, int32_t stage) const;
    Micros WaitOf(const Scene& scene, uint32_t row, int32_t stage) const;
    // The row that came to the stage so many places behind another one; NO_INDEX for none.
    uint32_t CameBehind(uint32_t row, int32_t stage, int64_t places) const;
};

// `latePeriods`: an interval between outputs of more frame periods than that is late.
Columns ColumnsOf(const Scene& scene, double latePeriods);

// When the frame came to the stage, as far as queues go: stage 0 has none, unless the HAL reports
// frames alone. NO_TIME where that is not known.
Micros CameAt(const Scene& scene, uint32_t row, int32_t stage);

}  // namespace tools
