// The session file: a camera session as text, one HAL call a line.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "host/desktop.h"
#include "tools/base/times.h"
#include "tools/base/words.h"
#include "tools/session/operations.h"

namespace tools {

// A line without a call: empty, or a comment, which is text from the '#' on.
struct Comment {
    std::string text;
    bool operator==(const Comment&) const = default;
};

inline constexpr int64_t MAX_FRAMES = 10'000'000;  // Two days of video; more is a slip.

// Frames of a normal recording, reported node by node through the loaded stage table.
struct Recording {
    int64_t frames;                // How many.
    std::optional<int64_t> first;  // The first one's number; else the one after the last recording.
    bool operator==(const Recording&) const = default;
};

// Time that passes until the next line, at most MAX_WAIT: eleven days, of which millions still fit
// into a time in microseconds.
inline constexpr Micros MAX_WAIT = 1'000'000'000'000;
struct Wait {
    int64_t micros;
    bool operator==(const Wait&) const = default;
};

// What a function of the boost service answers from here on.
struct ServiceStatus {
    desktop::ServiceFunction function;
    int32_t status;
    bool operator==(const ServiceStatus&) const = default;
};

using Line = std::variant<Comment, Call, Recording, Wait, ServiceStatus>;

// Reads one line. Throws a LineError for what is not a line of a session.
Line ParseLine(std::string_view line);

// The line as ParseLine reads it, without a line end. A line feed in a text, for which a session
// has no form, shows as a blank.
std::string WriteLine(const Line& line);

// Hands over the lines of a session file one after another, with their numbers from 1, until `use`
// returns false. Lines that cannot be read go to `complain`. Nothing is kept: a session of an hour
// has millions of lines, which take ten times as much memory in any form but text.
void ForEachLine(
    std::string_view file, const std::function<bool(uint32_t number, const Line& line)>& use,
    const std::function<void(uint32_t number, const LineError& error)>& complain =
        [](uint32_t, const LineError&) {});

// What a session file may hold, for people.
std::string DescribeFormat();

}  // namespace tools
