// What messages of the library say together: which belong to one HAL call, and the configuration
// that a process dumps into the log when it loads the library.

#pragma once

#include <cstdint>
#include <vector>

#include "tools/check/check.h"
#include "tools/log/message.h"

namespace tools {

// A frame or stage event, as one HAL call or as one of those that a node end leads to.
struct CallEvent {
    // The message that it leaves when it is forwarded to the service: FrameStart, FrameEnd,
    // StageStart or StageEnd.
    MessageKind kind;
    int64_t frame;
    int32_t stage = -1;
};

// What the node end that ends the stage of the frame leads to, in order. `stageCount`: of the
// stages that the library has loaded.
std::vector<CallEvent> EventsOf(int64_t frame, int32_t stage, int32_t stageCount);

// Gives the messages of one thread to the events of a call. Of an event, one message says whether
// it was forwarded or why not; an event of a frame in error leaves none. Messages come in the order
// of the events.
struct EventLines {
    std::vector<CallEvent> events;  // Those whose message may still come.

    // Whether one of them left the message.
    bool Take(const Message& message);
};

// --- The dump.

// Adds what a message of the dump says to `configuration`. False for any other message. The dump
// lacks the additional width, and the count of stages where some are not loaded.
bool AddDumped(const Message& message, Configuration& configuration);

// Whether a process is at its dump.
class Dumping {
  public:
    // To be called with each message of the process. Whether it begins a dump, some of whose first
    // lines may be missing: the library has been loaded.
    bool Begins(const Message& message);

  private:
    bool isGoingOn = false;
};

}  // namespace tools
