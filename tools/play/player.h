// Plays a session's lines against the library and reports what comes of each call.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "cameraframeboost/tarvocameraframeboost.h"
#include "host/desktop.h"
#include "tools/base/times.h"
#include "tools/check/check.h"
#include "tools/log/record.h"
#include "tools/session/session.h"

namespace tools {

// A call that was played, or the loading of the library. Good for as long as its watcher looks.
struct Played {
    const Call* call = nullptr;  // Null: the loading.
    Micros time = 0;             // Since the session's beginning.
    std::optional<int32_t> result;
    std::vector<desktop::Effect> effects;          // What the platform saw of it.
    const Configuration* configuration = nullptr;  // As loaded.
};

// One player a play: it brings the library to the state in which it is after loading, and makes the
// facade's object, as a HAL does when a camera is opened. It keeps the session's time: waits and
// the frames of recordings move it on, calls take none.
class Player {
  public:
    // Gets the loading of the library, and each call.
    using Watcher = std::function<void(const Played& played)>;

    // Asked now and then in recordings: whether to end them before their time.
    using Interrupted = std::function<bool()>;

    explicit Player(
        Watcher playWatcher, Interrupted playInterrupted = [] { return false; });

    // The configuration as loaded, with its count of stages.
    const Configuration& Loaded() const { return configuration; }

    // Why no recording can go through the loaded stage table; nothing when it can.
    std::optional<std::string> WhyNotRecordable() const;

    // Plays a line of the session. Recordings take a stage table that can be recorded through.
    void Play(const Line& line);

  private:
    void PlayCall(const Call& call);
    void PlayRecording(const Recording& recording);

    desktop::Recorder recorder;
    Watcher watcher;
    Interrupted isInterrupted;
    TarvoCameraFrameBoost boost;
    Configuration configuration;  // As loaded.
    Micros time = 0;
    int32_t sceneFps = 0;   // As last described.
    int64_t nextFrame = 0;  // The frame that the last recording left open; 0 for none.
};

// What a capture of something that never was on a device shows: noon of 1 January 2026 as its
// beginning, in UTC, in microseconds since 1970, and a process of the camera.
inline constexpr int64_t CAPTURE_BEGIN = 1'767'268'800'000'000;
inline constexpr int32_t CAPTURE_PROCESS = 1000;

// Writes a line that `thread` logged `time` microseconds after 1970.
void WriteLogLine(std::ostream& out, const Format& format, int64_t time, int32_t thread,
                  const desktop::LogLine& line);

}  // namespace tools
