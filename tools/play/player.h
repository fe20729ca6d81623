// Plays calls against the library and watches what comes of each.

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "cameraframeboost/tarvocameraframeboost.h"
#include "host/desktop.h"
#include "tools/output/transcript.h"
#include "tools/session/session.h"

namespace tools {

// One player a play: it brings the library to the state in which it is after loading, and makes the
// facade's object, as a HAL does when a camera is opened.
//
// The library's debug switch must be on: why it refuses an event is in its log alone.
class Player : private desktop::Observer {
  public:
    // `isRealTime`: recordings go at the frame rate of the scene. `onProgress` is told of the
    // frames of a recording that have been reported so far, and how many there will be.
    Player(Report& playReport, bool isRealTime,
           std::function<void(int64_t done, int64_t all)> onProgress);
    ~Player() override;
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    // Plays what stands in `line` of the session file.
    void Play(const Call& call, size_t line);
    // Throws a SessionError when the loaded stage table cannot be recorded through.
    void Play(const Recording& recording, size_t line);

    // What has come of all calls so far.
    const Tally& Total() const { return total; }

  private:
    void OnEffect(const desktop::Effect& effect) override;
    Tally Judge(const Call& call, const std::optional<int32_t>& result) const;

    Report& report;
    bool realTime;
    std::function<void(int64_t, int64_t)> progress;
    TarvoCameraFrameBoost boost;
    std::vector<desktop::Effect> effects;  // Of the call that is being played.
    Tally total;
    int32_t sceneFps = 0;   // As last described.
    int64_t nextFrame = 0;  // The frame that the last recording left open; 0 for none.
};

}  // namespace tools
