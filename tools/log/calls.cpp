#include "tools/log/calls.h"

#include <algorithm>

namespace tools {
namespace {

using enum MessageKind;

// The number after `frame`: after the highest one comes the lowest one, as in the library.
int64_t After(int64_t frame) {
    return static_cast<int64_t>(static_cast<uint64_t>(frame) + 1);
}

// Whether the message says what became of the event.
bool IsOf(const Message& message, const CallEvent& event) {
    if (message.frame != event.frame || (message.stage != -1 && message.stage != event.stage)) {
        return false;
    }
    switch (message.kind) {
        case FrameAdded:
        case TableFull:
            return false;  // Another line of the same frame start does.
        case FrameAlreadyExists:
        case FrameNotContinuous:
            return event.kind == FrameStart;
        case EndedFrameNotExist:
            return event.kind == FrameEnd;
        default:
            return message.kind <= FrameEnd ? message.kind == event.kind
                                            : event.kind == StageStart || event.kind == StageEnd;
    }
}

}  // namespace

std::vector<CallEvent> EventsOf(int64_t frame, int32_t stage, int32_t stageCount) {
    std::vector<CallEvent> events;
    if (frame >= 1 && stage >= 0) {
        events.push_back({StageEnd, frame, stage});
        events.push_back(stage == 0 || stage < int64_t{stageCount} - 1
                             ? CallEvent{StageStart, frame, stage + 1}
                             : CallEvent{FrameEnd, frame});
    }
    if (stage == 0) {
        events.push_back({FrameStart, After(frame)});
        events.push_back({StageStart, After(frame), 0});
    }
    return events;
}

bool EventLines::Take(const Message& message) {
    const auto event = std::find_if(events.begin(), events.end(), [&message](const CallEvent& one) {
        return IsOf(message, one);
    });
    const bool isFound = event != events.end();
    if (isFound) {
        events.erase(events.begin(), event + 1);
    }
    return isFound;
}

}  // namespace tools
