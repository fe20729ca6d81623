// The log line and the counter pulse, which the library shows while its debug switch is on.
// Internal. While LocalConfig::enable is false, neither does anything, and the values of a line are
// not evaluated.

#pragma once

// Without exceptions noexcept does nothing: a failed allocation would pass through the library,
// with a lock held, to a caller that may catch it.
#ifndef __cpp_exceptions
#error "the library has to be built with exceptions"
#endif

#include <algorithm>
#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "cameraframeboost/tarvocameraframeboostutils.h"
#include "platform/log.h"
#include "platform/trace.h"

// Writes one debug line that begins with its origin: "file line:operation() ". `format` is
// a string literal; the first value after it is the line's origin, AT or AT_IN. The source file
// defines LOG_TAG. The compiler checks the format against the values.
#define DEBUG_LOG(format, ...)                                                                   \
    do {                                                                                         \
        if (LocalConfig::enable) {                                                               \
            __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "%s %d:%s() " format, __FILE_NAME__, \
                                __VA_ARGS__);                                                    \
        }                                                                                        \
    } while (false)

// The origin of a line. Tools search logs for line numbers, so most lines have a fixed one wherever
// their statement stands; the others have __LINE__.
#define AT(line) AT_IN(__func__, line)
// The same for a statement in a helper function, which logs in the name of its operation.
#define AT_IN(operation, line) (line), (operation)

// Shows an event as a short spike in a trace: the counter goes to `frameNumber` and back to 0. The
// tags are read before each of the two, as tracing can be switched on or off at any time.
inline void PulseCounter(const char* counter, int32_t frameNumber) {
    constexpr uint64_t tags = ATRACE_TAG_CAMERA | ATRACE_TAG_HAL;
    if (!LocalConfig::enable) {
        return;
    }
    if ((atrace_get_enabled_tags() & tags) != 0) {
        atrace_int_body(counter, frameNumber);
    }
    if ((atrace_get_enabled_tags() & tags) != 0) {
        atrace_int_body(counter, 0);
    }
}

// The same on a counter for one stage, named `counter` followed by the stage's number.
inline void PulseStageCounter(const char* counter, int32_t stage, int32_t frameNumber) {
    if (LocalConfig::enable) {
        PulseCounter((counter + std::to_string(stage)).c_str(), frameNumber);
    }
}

// The values of a set as a sorted list, to log or to hand over: the order within a set differs
// between standard libraries.
inline std::vector<int32_t> Ascending(const std::unordered_set<int32_t>& values) noexcept {
    std::vector<int32_t> sorted(values.begin(), values.end());
    std::sort(sorted.begin(), sorted.end());
    return sorted;
}
