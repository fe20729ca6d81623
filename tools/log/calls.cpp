#include "tools/log/calls.h"

#include <utility>

namespace tools {
namespace {

using enum MessageKind;

// The number after `frame`: after the highest one comes the lowest one, as in the library.
int64_t After(int64_t frame) {
    return static_cast<int64_t>(static_cast<uint64_t>(frame) + 1);
}

// The messages of a frame's start, in their order.
int PlaceInFrameStart(MessageKind kind) {
    switch (kind) {
        case FrameNotContinuous:
            return 1;
        case TableFull:
            return 2;
        case FrameAdded:
            return 3;
        case FrameStart:
        case FrameAlreadyExists:
            return 4;
        default:
            return 0;
    }
}

bool MayLeave(const CallEvent& event, const Message& message) {
    if (message.kind == TableFull || message.kind == FrameAdded) {
        return event.kind == FrameStart;  // They name no frame.
    }
    if (message.frame != event.frame) {
        return false;
    }
    const bool isStageEvent = event.kind == StageStart || event.kind == StageEnd;
    switch (message.kind) {
        case FrameAlreadyExists:
        case FrameNotContinuous:
            return event.kind == FrameStart;
        case EndedFrameNotExist:
            return event.kind == FrameEnd;
        case FrameNotExist:
        case FrameRemoved:
        case FrameInError:
            return isStageEvent;
        case StageNotInRange:
        case StageOutOfOrder:
        case StageOutOfTurn:
            return isStageEvent && message.stage == event.stage;
        default:
            return message.kind == event.kind && message.stage == event.stage;
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

std::optional<size_t> EventLines::Take(const Message& message) {
    const bool isNamed = message.kind == StageStart || message.kind == StageEnd;
    if (isNamed && name && message.name != *name) {
        return std::nullopt;
    }
    const int place = PlaceInFrameStart(message.kind);
    for (size_t i = next; i < events.size(); ++i) {
        if (MayLeave(events[i], message) && (place == 0 || place > inFrameStart)) {
            inFrameStart = place;
            // Of a frame's start more may come.
            next = place == 0 ? i + 1 : i;
            return i;
        }
    }
    return std::nullopt;
}

}  // namespace tools
