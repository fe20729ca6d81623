// What a simulation did, to judge the account of its log by.

#pragma once

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <unordered_map>
#include <vector>

#include "host/desktop.h"
#include "tools/base/times.h"
#include "tools/play/camera.h"

namespace tools {

// Takes memory for each frame. Times are those of the simulation, which the log's clock shows until
// a fault sets it.
class Truth {
  public:
    // The camera is the caller's. `stages`: how many the library is configured for.
    Truth(const Camera& simulated, int32_t stages);

    // The sensor delivered its next frame, to which the HAL gives that number, or dropped it.
    void OnDelivered(int64_t number, Micros time, bool isDropped);
    // The HAL reported that a frame left a stage.
    void OnLeft(int64_t frame, int32_t stage, Micros time);
    void OnService(const desktop::ServiceCall& call);
    // The fault of that index in the camera's list acted, until then.
    static constexpr Micros FOREVER = std::numeric_limits<Micros>::max() / 2;
    void OnFault(size_t fault, Micros from, Micros to);
    // Several frames wait for a stage: what faults did is not over yet.
    void OnBacklog(Micros time);

    // To be called once, last. JSON: `fps`, `stages` (names), `scene` (begin, end), `frames` and
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
    void Write(std::ostream& out, Micros sceneBegin, Micros sceneEnd);

  private:
    struct Acted {
        Micros from = NO_TIME;
        Micros to = NO_TIME;
    };
    bool IsHidden(size_t fault) const;

    const Camera& camera;
    int32_t stageCount;
    Micros near;
    nlohmann::ordered_json frames = nlohmann::ordered_json::array();
    // Of the frames that the service knows, by their numbers: how many stage events it got; nothing
    // for a frame in error.
    std::unordered_map<int32_t, std::optional<int32_t>> stageEvents;
    std::vector<Acted> acted;  // By fault.
    Micros lastOut = NO_TIME;
};

}  // namespace tools
