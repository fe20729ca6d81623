#include "tools/capture/events.h"

#include <algorithm>
#include <charconv>
#include <string>
#include <string_view>
#include <variant>

namespace tools {
namespace {

// The number after `frame`: after the highest one comes the lowest one, as in the library.
int64_t After(int64_t frame) {
    return static_cast<int64_t>(static_cast<uint64_t>(frame) + 1);
}

// Sorted, each once.
void Add(std::vector<int32_t>& numbers, int32_t number) {
    const auto place = std::lower_bound(numbers.begin(), numbers.end(), number);
    if (place == numbers.end() || *place != number) {
        numbers.insert(place, number);
    }
}

// The numbers in a list as dumped: modes such as "0x10x-A", ports such as "1 2 ".
std::vector<int32_t> NumbersOf(std::string_view list, std::string_view separator, int base) {
    std::vector<int32_t> numbers;
    for (size_t at = 0; at < list.size();) {
        const size_t end = std::min(list.find(separator, at), list.size());
        int64_t number = 0;
        if (std::from_chars(&list[at], list.data() + end, number, base).ec == std::errc()) {
            Add(numbers, static_cast<int32_t>(number));
        }
        at = end + separator.size();
    }
    return numbers;
}

class Teller {
  public:
    Teller(std::vector<Event>& toFill, std::span<const Message> toRead, bool isCallRefused,
           bool isEndCut)
        : events(toFill), messages(toRead), isRefused(isCallRefused), isCut(isEndCut) {}

    Told Result() const {
        const auto missing = std::count_if(events.begin(), events.end(), [](const Event& event) {
            return event.outcome == Outcome::Unknown;
        });
        return {next, lost + (isCut ? 0 : static_cast<size_t>(missing))};
    }

    const Message* Peek() const { return next < messages.size() ? &messages[next] : nullptr; }

    // Takes the next message if it is of that kind.
    const Message* Take(MessageKind kind) {
        const Message* message = Peek();
        return message != nullptr && message->kind == kind ? &Next() : nullptr;
    }
    const Message& Next() {
        place = messages[next].place;
        return messages[next++];
    }
    // And about that frame.
    const Message* Take(MessageKind kind, int64_t frame) {
        const Message* message = Peek();
        return message != nullptr && message->frame == frame ? Take(kind) : nullptr;
    }

    void Tell(EventKind kind, Outcome outcome, int64_t frame = 0, int32_t stage = -1) {
        Event event;
        event.kind = kind;
        event.outcome = outcome;
        event.frame = frame;
        event.stage = stage;
        event.place = place;
        place = {};
        events.push_back(event);
    }

    // The service was told of an error in what was told last.
    void Report(int64_t frame, int32_t stage) {
        place = events.back().place;
        Tell(EventKind::Report, Outcome::Reported, frame, stage);
    }

    void StageEvent(EventKind kind, int32_t stage, int64_t frame) {
        const Message* message = Peek();
        if (message == nullptr || message->frame != frame) {
            TellSilent(kind, frame, stage);
            return;
        }
        const bool isOfStage = message->stage == stage;
        switch (message->kind) {
            case MessageKind::StageStart:
            case MessageKind::StageEnd:
                if (isOfStage &&
                    (kind == EventKind::StageStart) == (message->kind == MessageKind::StageStart)) {
                    break;
                }
                TellSilent(kind, frame, stage);
                return;
            case MessageKind::FrameNotExist:
            case MessageKind::FrameRemoved:
                Next();
                TellSpoken(kind, Outcome::NotInFlight, frame, stage);
                return;
            case MessageKind::FrameInError:
                Next();
                TellSpoken(kind, Outcome::FrameInError, frame, stage);
                Report(frame, stage);
                return;
            case MessageKind::StageNotInRange:
            case MessageKind::StageOutOfOrder:
            case MessageKind::StageOutOfTurn:
                if (isOfStage) {
                    Next();
                    const Outcome outcome =
                        message->kind == MessageKind::StageNotInRange   ? Outcome::NoSuchStage
                        : message->kind == MessageKind::StageOutOfOrder ? Outcome::OutOfOrder
                                                                        : Outcome::StageOutOfTurn;
                    TellSpoken(kind, outcome, frame, stage);
                    events.back().otherStage = message->otherStage;
                    Report(frame, stage);
                    return;
                }
                [[fallthrough]];
            default:
                TellSilent(kind, frame, stage);
                return;
        }
        Next();
        TellSpoken(kind, Outcome::Forwarded, frame, stage);
    }

    void FrameStart(int64_t frame) {
        if (Take(MessageKind::FrameAlreadyExists, frame) != nullptr) {
            Tell(EventKind::FrameStart, Outcome::AlreadyInFlight, frame);
            return;
        }
        const Message* gap = Take(MessageKind::FrameNotContinuous, frame);
        const bool isEviction = Take(MessageKind::TableFull) != nullptr;
        if (isEviction) {
            Tell(EventKind::Eviction, Outcome::Evicted, NO_FRAME);
        }
        const Message* added = Take(MessageKind::FrameAdded);
        const bool isInError = gap != nullptr || (added != nullptr && added->flag);
        const bool isForwarded = !isInError && Take(MessageKind::FrameStart, frame) != nullptr;
        Tell(EventKind::FrameStart,
             isRefused     ? Outcome::NoScene
             : isInError   ? Outcome::Gap
             : isForwarded ? Outcome::Forwarded
                           : Outcome::Unknown,
             frame);
        lost += isForwarded && added == nullptr ? 1 : 0;
        lost += isInError && (added == nullptr || gap == nullptr) ? 1 : 0;
        if (gap != nullptr) {
            events.back().place = gap->place;
            events.back().otherFrame = gap->lastFrame;
        } else if (isInError) {
            events.back().otherFrame = NO_FRAME;
        }
        if (isEviction) {
            Report(NO_FRAME, -1);
        }
    }

    void FrameEnd(int64_t frame) {
        if (Take(MessageKind::FrameEnd, frame) != nullptr) {
            TellSpoken(EventKind::FrameEnd, Outcome::Forwarded, frame, -1);
        } else if (Take(MessageKind::EndedFrameNotExist, frame) != nullptr) {
            TellSpoken(EventKind::FrameEnd, Outcome::NotInFlight, frame, -1);
        } else {
            TellSilent(EventKind::FrameEnd, frame, -1);
        }
    }

    void NodeEnd(const Call& call, const Configuration& configuration,
                 std::optional<bool> isStagePort) {
        const auto frame = std::get<int64_t>(call.arguments[0]);
        const auto& node = std::get<std::string>(call.arguments[1]);
        const Message* message = Take(MessageKind::NodeEnd, frame);
        isRefused = message == nullptr;
        const int32_t stage = isRefused ? configuration.StageOf(node) : message->stage;
        const int64_t stageCount =
            isRefused ? configuration.stageCount.value_or(0) : int64_t{message->count};
        if (stage < 0 || !(isStagePort ? *isStagePort
                                       : configuration.IsStagePort(
                                             node, std::get<int32_t>(call.arguments[2])))) {
            Tell(EventKind::NodeEnd, Outcome::Ignored, frame, stage);
            return;
        }
        if (stage == 0) {
            if (frame >= 1) {
                StageEvent(EventKind::StageEnd, 0, frame);
                StageEvent(EventKind::StageStart, 1, frame);
            }
            // Without a scene nobody meant to start a frame.
            if (!isRefused) {
                FrameStart(After(frame));
            }
            StageEvent(EventKind::StageStart, 0, After(frame));
        } else if (frame >= 1) {
            StageEvent(EventKind::StageEnd, stage, frame);
            if (stage >= stageCount - 1) {
                FrameEnd(frame);
            } else {
                StageEvent(EventKind::StageStart, stage + 1, frame);
            }
        }
    }

  private:
    // An event that left no line.
    void TellSilent(EventKind kind, int64_t frame, int32_t stage) {
        // Right after its start a frame is in no error.
        const bool isJustStarted =
            std::any_of(events.begin(), events.end(), [frame](const Event& event) {
                return event.kind == EventKind::FrameStart && event.frame == frame &&
                       event.outcome == Outcome::Forwarded;
            });
        Tell(kind,
             isRefused                ? Outcome::NoScene
             : isCut || isJustStarted ? Outcome::Unknown
                                      : Outcome::FrameInError,
             frame, stage);
    }

    // An event that left one. Its frame is not in error, or was not until now: events of it before
    // this one should have left lines as well.
    void TellSpoken(EventKind kind, Outcome outcome, int64_t frame, int32_t stage) {
        for (Event& event : events) {
            if (event.outcome == Outcome::FrameInError && event.frame == frame) {
                event.outcome = Outcome::Unknown;
            }
        }
        Tell(kind, outcome, frame, stage);
    }

    std::vector<Event>& events;
    std::span<const Message> messages;
    bool isRefused;
    bool isCut;
    size_t next = 0;
    size_t lost = 0;  // Lines missing of events that other lines tell all the same.
    Place place;      // Of the message that was taken last, for the event that it tells.
};

}  // namespace

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

Told TellEvents(Step& step, std::span<const Message> messages, const Configuration& configuration,
                bool isCut, std::optional<bool> isStagePort) {
    step.events.clear();
    const std::string_view name = step.call.operation->name;
    const std::vector<Value>& arguments = step.call.arguments;
    const bool isRefused = step.result == -1;
    Teller teller(step.events, messages, isRefused, isCut);
    if (name == "TcfbtNotifyNodeEnd") {
        teller.NodeEnd(step.call, configuration, isStagePort);
    } else if (name == "TcfbtNotifyStageStart") {
        teller.StageEvent(EventKind::StageStart, std::get<int32_t>(arguments[0]),
                          std::get<int64_t>(arguments[1]));
    } else if (name == "TcfbtNotifyStageEnd") {
        teller.StageEvent(EventKind::StageEnd, std::get<int32_t>(arguments[0]),
                          std::get<int64_t>(arguments[1]));
    } else if (name == "TcfbtNotifyFrameStart") {
        teller.FrameStart(std::get<int64_t>(arguments[0]));
    } else if (name == "TcfbtNotifyFrameEnd") {
        teller.FrameEnd(std::get<int64_t>(arguments[0]));
    } else if (name == "TcfbtNotifyErrorFrame") {
        teller.Tell(EventKind::Report, isRefused ? Outcome::NoScene : Outcome::Reported,
                    std::get<int64_t>(arguments[0]), std::get<int32_t>(arguments[1]));
    } else if (name == "TcfbtNotifySceneStart") {
        while (teller.Take(MessageKind::SetTid) != nullptr) {
        }
        if (teller.Take(MessageKind::SceneDisabled) != nullptr) {
            teller.Tell(EventKind::SceneStart, Outcome::Disabled);
        } else if (const Message* start = teller.Take(MessageKind::SceneStart)) {
            teller.Tell(EventKind::SceneStart,
                        start->flag ? Outcome::Forwarded : Outcome::RefusedByService);
        } else {
            teller.Tell(EventKind::SceneStart,
                        isRefused ? Outcome::NotDescribed : Outcome::Unknown);
        }
    } else if (name == "TcfbtNotifySceneEnd" || name == "TcfbtSetSceneInfo") {
        // A description that does not qualify ends the scene.
        const bool isDescription = name == "TcfbtSetSceneInfo";
        teller.Take(MessageKind::NoVideo);
        while (teller.Take(MessageKind::RemoveTid) != nullptr) {
        }
        if (teller.Take(MessageKind::SceneEnd) != nullptr) {
            teller.Tell(EventKind::SceneEnd, Outcome::Forwarded);
        } else if (!isDescription) {
            teller.Tell(EventKind::SceneEnd, isRefused ? Outcome::NoScene : Outcome::Unknown);
        }
        if (isDescription) {
            teller.Take(MessageKind::Video);
        }
    } else {
        // Thread ids and the like: lines, but no events.
        return {messages.size(), 0};
    }
    return teller.Result();
}

}  // namespace tools
