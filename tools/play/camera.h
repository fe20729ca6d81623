// A virtual camera: its pipeline, and what goes wrong in it.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/base/times.h"
#include "tools/check/check.h"
#include "tools/session/session.h"

namespace tools {

// A node of the pipeline, on a thread of its own.
struct CameraNode {
    std::string name;
    std::vector<int32_t> ports;  // It reports on the first; on the second by the fault second-port.
    bool isBranch = false;       // Takes frames from the last one before it that is no branch, and
                                 // hands them on to nobody.
    // Half of the frames take longer than `median`; all take from median - spread / 2 to
    // median + spread.
    Micros median = 0;
    Micros spread = 0;
    int32_t ahead = 0;    // It looks at so many newer frames before it begins with one.
    int32_t workers = 1;  // It works on so many frames at once, and hands them on in order.
};

// A fault happens to a frame, or to some in a row. Stages are the nodes that are no branches, from
// 0.
struct Fault {
    std::string_view kind;  // Its name: "drop" and so on, as DescribeFaults has them.
    int64_t frame = 0;      // As the sensor counts, whatever number the HAL gives it.
    int64_t last = 0;       // The last one; the same for kinds that happen to one frame.
    int32_t stage = -1;     // -1 where the kind has none.
    int64_t amount = 0;     // 0 where the kind has none.
};

struct Camera;

// "slow:200:2:40", "lost:100-104:3": the kind's name, the frames, the stage and the amount as far
// as the kind has them, and the way back. Throws a LineError for what is not a fault.
Fault ParseFault(std::string_view text);
std::string ToString(const Fault& fault);
// What happens to which frames in words, such as "frame 200: ToneMapper0 (stage 2) takes 40 ms
// longer". The camera has it.
std::string Describe(const Fault& fault, const Camera& camera);
// "drop:FRAME" and so on with what it means, for people, a line a kind.
std::string DescribeFaults();

struct Camera {
    int32_t width = BOOST_WIDTH;
    int32_t fps = 60;
    int64_t frames = 600;  // Numbered from 0.
    uint64_t seed = 1;
    int64_t buffers = 12;  // The sensor drops what comes while so many are in the pipeline.
    int32_t id = 0;
    bool isMaster = true;
    std::optional<int32_t> mode;      // Else the first configured one.
    Micros wait = 100 * MILLISECOND;  // How long the HAL waits for frames before it ends the scene.
    std::vector<CameraNode> nodes;
    std::vector<Fault> faults;

    // The nodes that are no branches, in order.
    std::vector<CameraNode> Stages() const;
};

// Reads a camera from TOML text that messages call `name`. Throws a CommandError that begins with
// "name:line:column: error: ".
Camera ParseCamera(std::string_view toml, std::string_view name);
// The one that fits the sample configuration.
Camera BuiltinCamera();

// Throws a LineError when a fault is about a frame, stage or port that the camera does not have.
void CheckFaults(const Camera& camera);

}  // namespace tools
