// Plays on the desk what was found in a capture, and compares what the library logs there with what
// it logged on the device.

#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/capture/calls.h"
#include "tools/capture/message.h"
#include "tools/output/session.h"

namespace tools {

// All messages of a capture, thread by thread.
class CapturedMessages {
  public:
    struct Thread {
        std::string texts;  // A line each.
        std::vector<Place> places;
    };
    using Threads = std::map<int32_t, Thread>;

    void Add(const Message& message, std::string_view text, const Moment& moment);

    // Those of one run of the library; null when there are none.
    const Threads* Of(int32_t process, int32_t run) const;

  private:
    struct Process {
        int32_t run = 0;
        bool isDumping = false;
    };
    std::map<int32_t, Process> processes;
    std::map<std::pair<int32_t, int32_t>, Threads> runs;  // By process and run.
};

struct Difference {
    Place place;           // Where the capture has something else; line 0: nothing more.
    std::string captured;  // Empty: nothing more.
    std::string replayed;
    uint32_t sessionLine = 0;
};

struct Verification {
    std::string obstacle;  // Why it cannot be played; empty when it was.
    int64_t messages = 0;  // That are the same.
    int64_t differing = 0;
    std::vector<Difference> first;  // The first one of each thread.
};

// Plays the session with the configuration, TOML. What one thread logs is compared in its order;
// where the statements of the library stand, and blanks at the end, are not. Uses the platform, as
// playing does. A thread's messages behind its first difference count as differing.
Verification Verify(const MadeSession& session, const std::string& configuration,
                    const CapturedMessages& captured);

}  // namespace tools
