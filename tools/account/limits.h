// Every threshold of what is found in a log, with the reason for its value. Those that are
// multiples of a frame's period say so in their names.

#pragma once

#include <cstddef>
#include <cstdint>

#include "tools/base/times.h"

namespace tools::limits {

// --- Reading.
// A healthy scene is never silent for longer: its sensor alone logs once a period of 16.7 ms.
inline constexpr Micros SILENCE = 15 * MILLISECOND;
// Where a scene has just ended, node ends of other threads may still be on their way.
inline constexpr Micros STRAGGLING = 500 * MILLISECOND;
// Behind a silence that long another capture may begin: a scene's threads log all the time.
inline constexpr Micros CUT = SECOND;
// Numbers that fell started again if so many frames are opened below them: two for each frame, and
// a line that is late stands alone.
inline constexpr size_t RESTART_OPENS = 12;
// Of each thing that one object does not do: fewer come of lines that are missing.
inline constexpr int32_t MIXED = 5;

// --- Queues.
// Frames that leave a stage no further apart leave it together: the log's millisecond.
inline constexpr Micros TOGETHER = MILLISECOND;
// Of all frames leave a stage together: then it gives out several at once.
inline constexpr double GROUPED = 0.5;
// A stage that keeps frames back lets each go that soon after a later one has come, give or take
// this much for half of them. A queue does not.
inline constexpr double STEADY_PERIODS = 0.3;
// A process stands if all its threads are silent for so long: in a healthy scene each stage logs
// once a period.
inline constexpr double STANDSTILL_PERIODS = 2.2;
// A sensor that is farther from the scene's period has another rate: 48 and 72 fps are 20 % off.
inline constexpr double OTHER_RATE = 0.15;
// That is judged by so many frames on either side: a second in all.
inline constexpr size_t RATE_FRAMES = 30;
// And reported where it lasts that long.
inline constexpr Micros RATE_LENGTH = SECOND * 9 / 10;

// --- Lines that are missing.
// Holes that are no further apart are one.
inline constexpr Micros ONE_HOLE = 50 * MILLISECOND;
// Twice the time that a frame is in a pipeline: what is farther from a hole did not suffer.
inline constexpr Micros NEAR_HOLE = 150 * MILLISECOND;
// Where a capture ends, the lines of one event may be there in part.
inline constexpr Micros ONE_EVENT = 10 * MILLISECOND;
// Numbers in a row; more of them is another count.
inline constexpr int64_t MOST_MISSING = 100'000;

// --- Frames that never came out.
// Of the time that missing numbers should have taken: where less went by, the HAL only counted on.
inline constexpr double SKIPPED = 0.6;
// Beyond the usual stay, when all ends: then a frame was stuck, and is not merely in flight.
inline constexpr int64_t HANGS_PERIODS = 6;
// The same where later frames have gone by: it need not wait for them.
inline constexpr int64_t PASSED_PERIODS = 3;
// Nothing from the sensor until the end: a HAL lets the pipeline run empty for less,
inline constexpr Micros SENSOR_OWES = SECOND / 4;
// and nobody ends a scene that much later on purpose.
inline constexpr Micros SENSOR_DEAD = SECOND;
// Without so many frames nobody can say that a stage is never hit.
inline constexpr size_t ENOUGH_FRAMES = 8;

// --- Late frames.
// A delay that is no larger needs no cause: jitter, and the log's milliseconds.
inline constexpr double TRIFLE_PERIODS = 0.25;
// A pass below that beyond the usual is not slow: two roundings to a millisecond, and some jitter;
inline constexpr Micros EXCESS = 2500;
// nor one below this share of the usual, or of the delay that it is to explain.
inline constexpr double EXCESS_SHARE = 0.15;
// So much of a delay has to be explained. The rest is jitter.
inline constexpr double EXPLAINED = 0.9;
// Passes that a delay is followed back over: more than a table's frames in all stages.
inline constexpr int LONGEST_WALK = 1000;
// A stage that cannot keep up: its queue is never empty for so many frames,
inline constexpr size_t BUSY_FRAMES = 30;
// and the frames wait longer by that at its end.
inline constexpr int64_t BUSY_GROWTH_PERIODS = 2;
// A sensor that was behind has caught up when so much of that is left,
inline constexpr double CAUGHT_UP = 0.2;
// after so many frames at most: two seconds.
inline constexpr size_t CATCH_UP_FRAMES = 120;
// Frames that wait that long behind a slow one are named.
inline constexpr Micros WAITED = 3333;
// More than this share of all frames late without a cause is something to look at, as is an
// interval that is twice as long as a late one.
inline constexpr double FEW = 0.005;

// --- Order.
// More than this share of all frames overtake in a stage: that is how it works, and no event.
inline constexpr double HABIT = 0.02;

// --- The table.
// Frames more in a stage than it usually has, when the table is full: that stage has filled it.
inline constexpr int SURPLUS = 3;
// Evictions that are no further apart have one reason.
inline constexpr Micros EVICTIONS_APART = SECOND / 4;

}  // namespace tools::limits
