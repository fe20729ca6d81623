// Writes what the library logs as a capture, as logcat on a device would have.

#pragma once

#include <cstdint>
#include <ostream>

#include "host/desktop.h"
#include "tools/log/record.h"

namespace tools {

// What a capture of something that never was on a device shows: noon of 1 January 2026 as its
// beginning, in UTC, in microseconds since 1970, and a process of the camera.
inline constexpr int64_t CAPTURE_BEGIN = 1'767'268'800'000'000;
inline constexpr int32_t CAPTURE_PROCESS = 1000;

// Writes a line that `thread` logged `time` microseconds after 1970.
void WriteLogLine(std::ostream& out, const Format& format, int64_t time, int32_t thread,
                  const desktop::LogLine& line);

}  // namespace tools
