#include "tools/log/calls.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <set>

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

// The numbers in a list as dumped: modes such as "0x10x-A", ports such as "1 2 "; each once.
std::vector<int32_t> NumbersOf(std::string_view list, std::string_view separator, int base) {
    std::set<int32_t> numbers;
    for (size_t at = 0; at < list.size();) {
        const size_t end = std::min(list.find(separator, at), list.size());
        int64_t number = 0;
        if (std::from_chars(&list[at], list.data() + end, number, base).ec == std::errc()) {
            numbers.insert(static_cast<int32_t>(number));
        }
        at = end + separator.size();
    }
    return {numbers.begin(), numbers.end()};
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

bool AddDumped(const Message& message, Configuration& configuration) {
    switch (message.kind) {
        case MessageKind::DumpSwitch:
            configuration.isEnabled = message.flag;
            return true;
        case MessageKind::DumpModes:
            configuration.modes = NumbersOf(message.list, "0x", 16);
            return true;
        case MessageKind::DumpStage: {
            // The highest stage comes first.
            auto& stages = configuration.stages;
            const auto place = std::lower_bound(
                stages.begin(), stages.end(), message.stage,
                [](const ConfiguredStage& stage, int32_t number) { return stage.stage < number; });
            if (place == stages.end() || place->stage != message.stage) {
                stages.insert(place, {message.stage, std::string(message.name),
                                      NumbersOf(message.list, " ", 10)});
            }
            return true;
        }
        default:
            return false;
    }
}

bool Dumping::Begins(const Message& message) {
    const bool isDump = message.kind <= MessageKind::DumpStage;
    const bool isFirst = isDump && (message.kind == MessageKind::DumpSwitch || !isGoingOn);
    // Stage 0 comes last.
    isGoingOn = isDump && (message.kind != MessageKind::DumpStage || message.stage != 0);
    return isFirst;
}

}  // namespace tools
