// Runs a virtual camera in virtual time against the real library, and writes the log that a device
// would have given.

#pragma once

#include <cstdint>
#include <functional>
#include <ostream>

#include "tools/log/record.h"
#include "tools/play/camera.h"

namespace tools {

struct SimulateOptions {
    Format format;                    // Of the capture.
    std::ostream* session = nullptr;  // Where the calls are written as a session; null: nowhere.
    // Where what was done is written, to judge the account of the log by, which takes memory for
    // each frame; null: nowhere. JSON: `fps`, `stages` (names), `scene` (begin, end), `frames` and
    // `faults`. Times are in milliseconds.
    //
    // A frame: `frame` as the sensor counts, `number` as the HAL does; `delivered`, null when the
    // sensor dropped it; `left`, for each stage when the HAL reported it, null when it did not;
    // `out`, the last of them; `late`: more than 1.5 periods behind the one that came out before;
    // `boosted`: the service got all its stages and its end, and no error.
    //
    // A fault: `fault` as the camera has it, `kind`, `first`, `last`, `stage`, `amount`; `from` and
    // `to`, null when it never acted: from when it acted until no more than one frame waited for
    // any stage; `hidden`: it never acted, or began less than 16 periods, which is what the library
    // keeps of frames, from what another one did.
    std::ostream* truth = nullptr;
    // Gets how many frames of how many the sensor has delivered, with each. False ends the
    // recording there, as if it had been that long.
    std::function<bool(int64_t done, int64_t all)> onProgress = [](int64_t, int64_t) {
        return true;
    };
};

// What came of a simulation.
struct Simulated {
    bool isBoosted = false;  // The scene was started; else the library ignored all that followed.
    int64_t frames = 0;      // Delivered by the sensor, or dropped.
    int64_t completed = 0;   // That came out of the last stage.
    int64_t overruns = 0;    // Dropped by the sensor since all buffers were taken.
    int64_t lines = 0;       // Written to the capture.
};

// Writes the capture of a recording of `camera` to `capture`: loading the library, a scene, and its
// end. The platform is to be prepared with PreparePlatform, which says what the library is
// configured to, and nobody else may use it or the library meanwhile. Takes memory that does not
// depend on the number of frames, unless the truth is asked for. The camera has passed CheckFaults.
Simulated Simulate(const Camera& camera, std::ostream& capture,
                   const SimulateOptions& options = {});

}  // namespace tools
