// Messages of a log as a session: what happened on a device, to be played on a desk.

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "tools/check/check.h"
#include "tools/log/calls.h"
#include "tools/log/capture.h"

namespace tools {

// The calls of one run of the library, from its loading on.
struct MadeSession {
    std::string text;
    int64_t calls = 0;
    std::optional<Configuration> configuration;  // As loaded; nothing where that is not known.
};

// Finds the HAL's calls again in the messages that they left, and makes a session of them for each
// process and each loading of the library. Calls stand in the order of their first messages, with
// waits where the times are known.
//
// What one thread logs belongs together: a node end is followed by what it led to. Other events are
// calls of their own, and so is the end of a scene that a description ended: to play it changes
// nothing. Arguments that no message has are made up and marked as guessed: those of a stage start
// (0 and 20), an operation mode, thread ids that count for one scene. Calls that leave no message
// do not come back, and nothing is made up for messages that are missing.
class SessionMaker : public MessageSink {
  public:
    SessionMaker();
    ~SessionMaker() override;

    void OnMessage(const Message& message, const Moment& moment) override;
    void OnLinesLeftOut(int64_t lines, const Moment& moment, const Place& place) override;

    // The session with the most calls: a session plays one run. To be called once, last; empty
    // when there were no calls at all.
    std::optional<MadeSession> Finish();

  private:
    class Run;

    void Close(Run& run);

    // By process: the run that goes on, and whether it is being loaded.
    std::map<int32_t, Run> runs;
    std::map<int32_t, Dumping> dumps;
    MadeSession best;  // Of the runs that are over.
    int64_t calls = 0;
};

}  // namespace tools
