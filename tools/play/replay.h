// Plays a session file from beginning to end.

#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "host/desktop.h"

namespace tools {

struct Options {
    std::string configuration;  // A TOML file; empty for what the platform serves anyway.
    bool withDebug = false;     // Show the library's log lines and trace counters.
    std::vector<std::pair<desktop::ServiceFunction, int32_t>>
        statuses;             // What the service answers.
    bool isRealTime = false;  // Play recordings at the frame rate of the scene.
    bool isQuiet = false;     // Show the summary alone.
    bool isJson = false;      // Show it to a program.
    std::function<void(int64_t, int64_t)> onProgress = [](int64_t, int64_t) {};
};

// Plays `session`, which messages call `name`, on a library that is freshly loaded as far as anyone
// can tell. Writes the play to `out`, and what is wrong with the input to `err`, where playing
// then ends. Returns whether it was played to its end.
bool Replay(const Options& options, std::istream& session, const std::string& name,
            std::ostream& out, std::ostream& err);

}  // namespace tools
