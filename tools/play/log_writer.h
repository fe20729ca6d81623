// Writes what the library logs as a capture, as logcat on a device would have.

#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "host/desktop.h"
#include "tools/base/times.h"
#include "tools/log/record.h"

namespace tools {

// What a capture of something that never was on a device shows: noon of 1 January 2026 as its
// beginning, in UTC, in microseconds since 1970, and a process of the camera.
inline constexpr int64_t CAPTURE_BEGIN = 1'767'268'800'000'000;
inline constexpr int32_t CAPTURE_PROCESS = 1000;

// For one thread at a time.
class LogWriter {
  public:
    // Writes to `stream`, which is the caller's.
    explicit LogWriter(std::ostream& stream, const Format& captureFormat = {},
                       int64_t captureBegin = CAPTURE_BEGIN);

    // When, since the beginning, and on which thread the effects that follow happen. At first: at
    // the beginning, on the thread that gave the process its number.
    void SetMoment(Micros time, int32_t thread);

    // Writes the effect if it is a line of the log.
    void OnEffect(const desktop::Effect& effect);

  private:
    std::ostream& out;
    Format format;
    int64_t begin;
    int32_t thread = CAPTURE_PROCESS;
    Micros time = 0;
    std::string text;  // Kept for its memory.
};

}  // namespace tools
