// Which of the library's messages belong to one HAL call.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
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

// Gives the messages of one thread to the events of a call. Each message is of the first event that
// may have left it, behind the message before it: messages come in the order of the events, each
// once, and an event of a frame in error leaves none.
class EventLines {
  public:
    // `nodeName`: which messages that have one must have; nothing for any.
    explicit EventLines(std::vector<CallEvent> callEvents, std::optional<std::string> nodeName = {})
        : events(std::move(callEvents)), name(std::move(nodeName)) {}

    // The index of the event that left the message; nothing when none did.
    std::optional<size_t> Take(const Message& message);

    const std::vector<CallEvent>& Events() const { return events; }

  private:
    std::vector<CallEvent> events;
    std::optional<std::string> name;
    size_t next = 0;       // The first event that may have left a message that comes.
    int inFrameStart = 0;  // Where that is a frame's start: the place of its last message.
};

}  // namespace tools
