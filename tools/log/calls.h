// Which of the library's messages belong to one HAL call.

#pragma once

#include <cstdint>
#include <vector>

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

}  // namespace tools
