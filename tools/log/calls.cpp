#include "tools/log/calls.h"

#include <utility>

namespace tools {
namespace {

// A scene's end and a description that led to it stand no further apart.
constexpr Micros AT_ONCE = 10 * MILLISECOND;

// The number after `frame`: after the highest one comes the lowest one, as in the library.
int64_t After(int64_t frame) {
    return static_cast<int64_t>(static_cast<uint64_t>(frame) + 1);
}

// The place of a message among those of a frame's start, from 1; 0 for others.
int PlaceInFrameStart(MessageKind kind) {
    switch (kind) {
        case MessageKind::FrameNotContinuous:
            return 1;
        case MessageKind::TableFull:
            return 2;
        case MessageKind::FrameAdded:
            return 3;
        case MessageKind::FrameStart:
        case MessageKind::FrameAlreadyExists:
            return 4;
        default:
            return 0;
    }
}

bool MayLeave(const CallEvent& event, const Message& message) {
    const bool isStageEvent =
        event.kind == MessageKind::StageStart || event.kind == MessageKind::StageEnd;
    switch (message.kind) {
        case MessageKind::TableFull:
        case MessageKind::FrameAdded:
            return event.kind == MessageKind::FrameStart;
        case MessageKind::FrameStart:
        case MessageKind::FrameAlreadyExists:
        case MessageKind::FrameNotContinuous:
            return event.kind == MessageKind::FrameStart && message.frame == event.frame;
        case MessageKind::FrameEnd:
        case MessageKind::EndedFrameNotExist:
            return event.kind == MessageKind::FrameEnd && message.frame == event.frame;
        case MessageKind::StageStart:
        case MessageKind::StageEnd:
            return event.kind == message.kind && message.frame == event.frame &&
                   message.stage == event.stage;
        case MessageKind::FrameNotExist:
        case MessageKind::FrameRemoved:
        case MessageKind::FrameInError:
            return isStageEvent && message.frame == event.frame;
        case MessageKind::StageNotInRange:
        case MessageKind::StageOutOfOrder:
        case MessageKind::StageOutOfTurn:
            return isStageEvent && message.frame == event.frame && message.stage == event.stage;
        default:
            return false;
    }
}

}  // namespace

std::vector<CallEvent> EventsOf(int64_t frame, int32_t stage, int32_t stageCount) {
    std::vector<CallEvent> events;
    if (frame >= 1 && stage >= 0) {
        events.push_back({MessageKind::StageEnd, frame, stage});
        events.push_back(stage == 0 || stage < int64_t{stageCount} - 1
                             ? CallEvent{MessageKind::StageStart, frame, stage + 1}
                             : CallEvent{MessageKind::FrameEnd, frame});
    }
    if (stage == 0) {
        events.push_back({MessageKind::FrameStart, After(frame)});
        events.push_back({MessageKind::StageStart, After(frame), 0});
    }
    return events;
}

std::optional<size_t> EventLines::Take(const Message& message) {
    const bool isNamed =
        message.kind == MessageKind::StageStart || message.kind == MessageKind::StageEnd;
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

bool GoesOn(std::span<const Message> messages, const Message& message, Micros passed) {
    const MessageKind first = messages.front().kind;
    const MessageKind last = messages.back().kind;
    const MessageKind kind = message.kind;
    if (PlaceInFrameStart(first) != 0) {
        return last == MessageKind::FrameAdded
                   ? kind == MessageKind::FrameStart
                   : PlaceInFrameStart(kind) > PlaceInFrameStart(last) &&
                         (kind == MessageKind::TableFull || kind == MessageKind::FrameAdded);
    }
    switch (first) {
        case MessageKind::SetTid:
            // The library sets them in ascending order.
            return kind == MessageKind::SceneStart ||
                   (kind == MessageKind::SetTid && message.tid > messages.back().tid);
        case MessageKind::RemoveTid:
        case MessageKind::SceneEnd:
            if (last == MessageKind::SceneEnd) {
                return kind == MessageKind::Video && message.acceptedFps == 0 && passed <= AT_ONCE;
            }
            [[fallthrough]];
        case MessageKind::NoVideo:
            return kind == MessageKind::RemoveTid || kind == MessageKind::SceneEnd;
        default:
            return false;
    }
}

}  // namespace tools
