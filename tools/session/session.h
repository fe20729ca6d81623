// The session file: a camera session as text, one HAL call a line.

#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tools/session/operations.h"

namespace tools {

// What is wrong with a line, and what was expected instead.
class SessionError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A line without a call: empty, or a comment, which is text from the '#' on.
struct Comment {
    std::string text;
};

// A call of one of the facade's operations.
struct Call {
    const Operation* operation;
    std::vector<Value> arguments;
};

// Frames of a normal recording, reported node by node through the loaded stage table.
struct Recording {
    int64_t frames;                // How many.
    std::optional<int64_t> first;  // The first one's number; else the one after the last recording.
};

using Line = std::variant<Comment, Call, Recording>;

// Reads one line. Throws a SessionError for what is not a line of a session.
Line ParseLine(std::string_view line);

// What a session file may hold, for people.
std::string DescribeFormat();

}  // namespace tools
