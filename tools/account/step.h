// A step: one HAL call and what followed from it. Everything that tells what happened is told from
// steps, wherever they came from: a session that is played, or a device's log.

#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "tools/check/check.h"
#include "tools/session/session.h"

namespace tools {

// A time in microseconds since the beginning of the session or capture; NO_TIME where not known.
using Micros = int64_t;
inline constexpr Micros NO_TIME = std::numeric_limits<Micros>::min();

// What may happen to the pipeline as the library sees it.
enum class EventKind : uint8_t {
    SceneStart,
    SceneEnd,
    FrameStart,
    FrameEnd,
    StageStart,
    StageEnd,
    NodeEnd,   // Only for one that ends no stage; one that does shows as the events it leads to.
    Eviction,  // A frame leaves the table before its end, to make room.
    Report,    // A frame is reported to the service as bad, by the library or by the HAL.
};

// What became of an event. Everything that tells of events uses this; ReasonOf says it in words.
enum class Outcome : uint8_t {
    Forwarded,  // The service was told.
    Reported,   // The service was told of an error.
    Evicted,    // The frame was dropped from the table.
    Ignored,    // The node and port end no stage.
    // Refused:
    NoScene,           // No scene is running.
    NotDescribed,      // The scene was not described as one to boost.
    Disabled,          // Boosting is switched off, or the operation mode is not supported.
    RefusedByService,  // The service did not accept the scene.
    AlreadyInFlight,   // A frame of that number is in flight.
    Gap,               // The frame does not follow the newest one.
    NotInFlight,       // Nothing is known of the frame.
    FrameInError,      // The frame is in error.
    NoSuchStage,       // The stage does not exist.
    OutOfOrder,        // Another stage (Event::otherStage) comes before, or has begun already.
    StageOutOfTurn,    // The stage has run already, or has not started.
    Unknown,           // The log's lines that would tell are missing.
};

// "does not follow the newest frame", and so on; empty for Forwarded.
const char* ReasonOf(Outcome outcome);
inline bool IsRefused(Outcome outcome) {
    return outcome >= Outcome::NoScene;
}

// A frame that is not told. The log does not say which frame an eviction, and the report that comes
// of it, is about.
inline constexpr int64_t NO_FRAME = std::numeric_limits<int64_t>::min();

struct Event {
    EventKind kind = EventKind::NodeEnd;
    Outcome outcome = Outcome::Forwarded;
    int32_t stage = -1;
    int32_t otherStage = -1;  // OutOfOrder: the stage that it is out of order with.
    int64_t frame = 0;        // Or NO_FRAME.
    int64_t otherFrame = 0;   // Gap: the newest frame then, or NO_FRAME.
    Place place;              // The line that tells, where it is not the step's own.
};

// One HAL call. Objects are meant to be used again and again: the vectors keep their memory.
struct Step {
    Place place;  // Line of the session, or of the capture.
    Micros time = NO_TIME;
    int32_t process = -1;  // -1: not known.
    int32_t thread = -1;
    // The call. A step without an operation is the loading of the library.
    Call call{nullptr, {}};
    std::optional<int32_t> result;        // Nothing where there is none, or it is not known.
    std::optional<Configuration> loaded;  // Of a loading: the configuration.
    bool isGuessed = false;               // Some arguments were worked out, not told.
    std::vector<Event> events;            // What followed, in order.
};

// Something about the input itself that is no call.
struct Disturbance {
    enum class Kind : uint8_t { LinesLost, ClockJump, Start, End };
    Kind kind = Kind::LinesLost;
    Place place;
    Micros time = NO_TIME;
    int64_t amount = 0;  // LinesLost: how many, 0 for not known. ClockJump: microseconds.
};

// Is told of steps as they come. Steps come in the order of their places, but for lines of several
// threads that interleave: a step comes when its last line has been read.
class StepSink {
  public:
    virtual ~StepSink() = default;
    // The step is the caller's, and is gone after the call.
    virtual void OnStep(const Step& step) = 0;
    virtual void OnDisturbance(const Disturbance& /*disturbance*/) {}
};

}  // namespace tools
