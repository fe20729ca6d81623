// Plays a session file from beginning to end.

#pragma once

#include <functional>
#include <optional>
#include <ostream>
#include <string>

#include "tools/base/text.h"
#include "tools/play/player.h"

namespace tools {

struct ReplayOptions {
    std::optional<NamedText> configuration;  // TOML; nothing for what the platform serves anyway.
    bool withDebug = false;                  // Show the library's log lines and trace counters.
    bool isQuiet = false;                    // Show the summary alone.
    std::ostream* log = nullptr;  // Where the capture of the library's log goes, if anywhere.
    // Asked between calls: whether to come to an end.
    Player::Interrupted isInterrupted = [] { return false; };
};

// Gets complaints about the input, a line each.
using Complaints = std::function<void(const std::string& line)>;

// Plays `file` on a library in the state in which it is after loading. Writes the play to `out`.
// Returns false, with nothing played, when the session has errors or no call, or the configuration
// cannot be used.
bool Replay(const ReplayOptions& options, const NamedText& file, std::ostream& out,
            const Complaints& complain);

// Brings the desktop platform to the state in which tools use it: debug switch on, log lines for
// observers alone; and serves the configuration. `complain` gets what is wrong or surprising about
// it; false when it cannot be used: it cannot be read, or would end the process.
bool PreparePlatform(const std::optional<NamedText>& configuration, const Complaints& complain);

}  // namespace tools
