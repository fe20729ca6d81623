// What is said of what was found: all sentences, and how frames and stages are named in them.

#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tools/account/account.h"
#include "tools/account/judging.h"

namespace tools {

// "121", "301 to 305", "1, 4 and 9", "1, 2, 4, 5, 7, 8 and 13 more".
std::string NumbersText(const std::vector<int64_t>& numbers);
// "frame 121", "frames 301 to 305".
std::string FramesText(const std::vector<int64_t>& numbers);
// As ranges of numbers that follow one another.
std::vector<FrameRange> RangesOf(std::vector<int64_t> numbers);
// Whole milliseconds: "45".
std::string Ms(Micros time);

// Why scenes were refused. `configuration`: null where it is not known.
std::string NotBoostedText(bool isVideo, int32_t width, int32_t fps,
                           const Configuration* configuration);
std::string DisabledText(const Configuration* configuration);
// Of lines left out and of steps of the clock where no scene runs.
SceneFinding OutsideFinding(Check check, int64_t amount, const Place& place, Micros time);

// Adds to what a trouble says what followed from it.
void TellConsequences(Trouble& trouble);

namespace wording {

inline constexpr char TWO_OBJECTS[] =
    "two TarvoCameraFrameBoost objects of process {process} record at once: both announce scene 0 "
    "and frames of the same numbers, so the service takes them for one, and nothing else can be "
    "told of this scene; let one object record at a time";
inline constexpr char TWO_PROCESSES[] =
    "processes {} and {} ran scenes at the same time; they are told apart here";
inline constexpr char SERVICE_REFUSED[] = "the boost service refused the scene: nothing is boosted";
inline constexpr char NEVER_HIT[] = "no frame ever left {stage}; {frames} not boosted to the end";
inline constexpr char NONE_HIT[] =
    "no node that was reported ends a stage, so nothing is boosted: {nodes} {were} reported, and "
    "{stages}";
inline constexpr char SKIPPED[] =
    "{frames} {were} skipped by the HAL: {next} follows {before} without a gap in time, and the "
    "library takes it for out of sequence";
inline constexpr char LOST[] = "{frames} never left {stage}";
inline constexpr char OR_UNREPORTED[] = ", or the end there was not reported";
inline constexpr char AND_ENDED[] = ", and the HAL ended {it}";
inline constexpr char RESTART[] =
    "frame numbers start again from {first} in a running scene, after frame {last}: {refused} "
    "refused{flushed}; end the scene, describe it and start it again when numbers do";
inline constexpr char FLUSHED[] = ", and {frames} in flight never came out";
inline constexpr char STUCK[] = "{frame} stood in {stage} for {time} ms when {what}{behind}";
inline constexpr char STUCK_BEHIND[] = ", and {count} more stood there or behind it";
inline constexpr char SENSOR_OWES[] =
    "the sensor delivered nothing for the last {time} ms until {what}; frame {frame} never came";
inline constexpr char NEVER_STARTED[] =
    "frame {frame} was never started: the end of {stage} of the frame before it was not reported";
inline constexpr char GAP[] = "frame {frame} came after {newest}";
inline constexpr char GAP_32_BITS[] =
    "frame {frame} came after frame {newest}: frame numbers do not fit into 32 bits any more";
inline constexpr char DUPLICATE_REFUSED[] =
    "frame {frame} was started while a frame of that number was in flight";
inline constexpr char DUPLICATE[] = "frame {frame} was started again while it was in flight";
inline constexpr char SECOND_PORT[] =
    "frame {frame}: {stage} ended twice, on port {port} and on port {other}";
inline constexpr char TWICE[] = "frame {frame}: {stage} was reported twice";
inline constexpr char UNREPORTED[] =
    "frame {frame} went on, but the end of {stage} was never reported";
inline constexpr char NO_SUCH_STAGE[] = "frame {frame}: {stage} does not exist, there are {count}";
inline constexpr char BEFORE_ENDED[] =
    "frame {frame}: {stage} was reported before {other} had ended";
inline constexpr char AFTER_BEGUN[] = "frame {frame}: {stage} was reported after {other} had begun";
inline constexpr char OUT_OF_TURN[] =
    "frame {frame}: {stage} was reported when it had run already, or had not started";
inline constexpr char OVERTAKEN[] = "frame {frame} left {stage} after frame {other}, out of order";
inline constexpr char RATE[] =
    "the sensor delivers {rate} frames a second for {time} s, in a scene of {fps}";
inline constexpr char SLOW_FOR_GOOD[] =
    "{stage} takes {time} ms a frame from frame {first} to {last}, with {period} ms between "
    "frames: it cannot keep up";
inline constexpr char SLOW[] =
    "{frames} came out late: {stage} took {time} ms{each} (usual: {usual})";
inline constexpr char SLOW_FIRST[] =
    "the first frame, {frame}, came out late: {stage} took {time} ms (usual: {usual})";
inline constexpr char STALL[] =
    "frame {frame} came out late: it left {stage} {time} ms after the frame before (usual: "
    "{usual}), and nothing was made up for afterwards, so the sensor stood still";
inline constexpr char STANDSTILL[] =
    "no thread logged anything for {time} ms while frames were in {stages} stages: the process "
    "stood still, or the clock was set";
inline constexpr char LATE[] =
    "{frames} came out late, more than {limit} ms after the frame before, and no single stage was "
    "to blame ({numbers}); the longest interval was {longest} ms";
inline constexpr char PUSHED_OUT[] =
    "{frames} {were} pushed out of the table: too many frames in flight";
inline constexpr char SLOTS_HELD[] =
    "{frames} ({numbers}) still held {their} of the {places} at the end of the scene";
inline constexpr char THREAD_NOT_SET[] =
    "thread {thread}, which reports node {node}, was not handed to the service: it is not boosted "
    "(TcfbtAddTempTids on that thread, then TcfbtSetTids)";
inline constexpr char CLOCK_SET[] =
    "the clock was set {way} by {amount}; nothing is timed across that";
inline constexpr char LINES_LOST[] = "{lines} of the capture are missing{around}";
inline constexpr char UNTOLD[] = "what became of {numbers} is not known";
inline constexpr char ABSENT[] = "of {numbers} no line is left";

}  // namespace wording

}  // namespace tools
