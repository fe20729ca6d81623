#include "tools/play/transcript.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cstddef>
#include <nlohmann/json.hpp>
#include <variant>
#include <vector>

#include "host/desktop.h"
#include "tools/log/calls.h"
#include "tools/log/message.h"

namespace tools {

namespace {

using enum Tally;

// The rows of a summary, in the order of Tally.
constexpr std::string_view ROWS[] = {
    "scenes started",       "scenes refused",       "frames started",     "frames ended",
    "frames evicted",       "frame starts refused", "frame ends refused", "stage events forwarded",
    "stage events refused", "node ends ignored",    "error reports",
};

// The frame and stage events that a call is to lead to.
std::vector<CallEvent> EventsOf(const Call& call, const Configuration& configuration,
                                bool isInScene) {
    const auto frame = [&call] { return call.Get<int64_t>("halFrameNumber"); };
    const auto stage = [&call] { return call.Get<int32_t>("stage"); };
    switch (call.operation) {
        case Operation::FrameStart:
            return {{MessageKind::FrameStart, frame()}};
        case Operation::FrameEnd:
            return {{MessageKind::FrameEnd, frame()}};
        case Operation::StageStart:
            return {{MessageKind::StageStart, frame(), stage()}};
        case Operation::StageEnd:
            return {{MessageKind::StageEnd, frame(), stage()}};
        case Operation::NodeEnd: {
            std::vector<CallEvent> events =
                tools::EventsOf(frame(), configuration.StageOf(call.Get<std::string>("nodeName")),
                                configuration.stageCount.value_or(0));
            // Without a scene no frame was meant to start.
            std::erase_if(events, [isInScene](const CallEvent& event) {
                return !isInScene && event.kind == MessageKind::FrameStart;
            });
            return events;
        }
        default:
            return {};
    }
}

using Json = nlohmann::json;

// A text as JSON has it. Session files may hold any bytes; what is no UTF-8 is replaced.
std::string JsonOf(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// Text of the session's, in whatever language, with question marks for characters that a terminal
// would take for commands: those below a blank, and U+007F to U+009F.
std::string Shown(std::string_view text) {
    std::string shown = Json::parse(JsonOf(text));
    for (size_t at = 0; at < shown.size(); ++at) {
        const auto byte = static_cast<unsigned char>(shown[at]);
        if ((byte < ' ' && byte != '\t') || byte == 0x7F) {
            shown[at] = '?';
        } else if (byte == 0xC2 && static_cast<unsigned char>(shown[at + 1]) < 0xA0) {
            shown.replace(at, 2, "?");
        }
    }
    return shown;
}

// What became of a call and of what it led to: from the library's log, the calls that the service
// saw and, where both are silent, from its result. A running scene's event that left nothing at all
// is of a frame in error. The library's debug switch must be on.
Counts CountsOf(const Played& played) {
    Counts counts;
    if (played.call == nullptr) {
        return counts;
    }
    const Call& call = *played.call;
    std::vector<Message> messages;
    for (const desktop::Effect& effect : played.effects) {
        const auto* service = std::get_if<desktop::ServiceCall>(&effect.event);
        const auto* line = std::get_if<desktop::LogLine>(&effect.event);
        const auto message = line ? ParseMessage(line->tag, line->text) : std::nullopt;
        if (message) {
            messages.push_back(*message);
        } else if (service && service->function == desktop::ServiceFunction::NotifyErrOfUser) {
            ++counts[{ErrorReports, ""}];
        }
    }
    const bool isNodeEnd = call.operation == Operation::NodeEnd;
    if (isNodeEnd && !played.configuration->IsStagePort(call.Get<std::string>("nodeName"),
                                                        call.Get<int32_t>("portId"))) {
        ++counts[{NodeEndsIgnored, "this node and port end no stage"}];
        return counts;
    }
    if (call.operation == Operation::SceneStart && played.result == -1 && messages.empty()) {
        ++counts[{ScenesRefused, "not described as a scene to boost"}];
    }
    const bool isInScene = isNodeEnd ? !messages.empty() : played.result != -1;
    EventLines events{EventsOf(call, *played.configuration, isInScene)};
    std::vector<std::string_view> reasons(
        events.events.size(),
        isInScene ? RefusalOf(MessageKind::FrameInError) : "no scene is running");
    for (const Message& message : messages) {
        if (message.kind == MessageKind::SceneDisabled) {
            ++counts[{ScenesRefused, "switched off, or the operation mode is not supported"}];
        } else if (message.kind == MessageKind::SceneStart && message.flag) {
            ++counts[{ScenesStarted, ""}];
        } else if (message.kind == MessageKind::SceneStart) {
            ++counts[{ScenesRefused, "by the service"}];
        } else if (message.kind == MessageKind::TableFull) {
            ++counts[{FramesEvicted, TABLE_FULL}];
        }
        const std::optional<size_t> event = events.Take(message);
        if (const char* const reason = RefusalOf(message.kind); event && reason != nullptr) {
            reasons[*event] = reason;
        }
    }
    for (size_t i = 0; i < reasons.size(); ++i) {
        const bool isDone = reasons[i].empty();
        const MessageKind kind = events.events[i].kind;
        Tally tally = isDone ? StageEventsForwarded : StageEventsRefused;
        if (kind == MessageKind::FrameStart) {
            tally = isDone ? FramesStarted : FrameStartsRefused;
        } else if (kind == MessageKind::FrameEnd) {
            tally = isDone ? FramesEnded : FrameEndsRefused;
        }
        ++counts[{tally, reasons[i]}];
    }
    return counts;
}

}  // namespace

void Transcript::Show(const Line& line) {
    if (!isQuiet) {
        out << Shown(WriteLine(line)) << '\n';
    }
}

void Transcript::Show(const Played& played) {
    const Counts counts = CountsOf(played);
    for (const auto& [what, count] : counts) {
        total[what] += count;
    }
    if (isQuiet) {
        return;
    }
    if (played.call != nullptr) {
        ShowCall(*played.call, played.result);
    }
    for (const desktop::Effect& effect : played.effects) {
        if (const auto* call = std::get_if<desktop::ServiceCall>(&effect.event)) {
            const bool isReport = call->function == desktop::ServiceFunction::NotifyErrOfUser;
            out << (isReport ? " !! " : "    ") << ToString(*call) << '\n';
        } else if (withDebug) {
            const auto* line = std::get_if<desktop::LogLine>(&effect.event);
            out << "      "
                << (line != nullptr ? Shown(ToString(*line))
                                    : ToString(std::get<desktop::CounterUpdate>(effect.event)))
                << '\n';
        }
    }
    // What was forwarded shows above; what was not has a reason.
    for (const auto& [what, count] : counts) {
        const auto& [tally, reason] = what;
        if (!reason.empty()) {
            out << fmt::format("    - {}: {} ({})\n", ROWS[static_cast<size_t>(tally)], count,
                               reason);
        }
    }
}

void Transcript::ShowSummary() {
    out << (isQuiet ? "" : "\n") << "Summary\n";
    for (size_t row = 0; row < std::size(ROWS); ++row) {
        std::string lines;
        int64_t all = 0;
        for (const auto& [what, count] : total) {
            if (what.first == static_cast<Tally>(row)) {
                all += count;
                lines += what.second.empty() ? "" : fmt::format("{:34}  {}\n", count, what.second);
            }
        }
        out << fmt::format("  {:24}{:8}\n{}", ROWS[row], all, lines);
    }
}

void Transcript::ShowCall(const Call& call, std::optional<int32_t> result) {
    const OperationForm& form = FormOf(call.operation);
    std::vector<std::string> arguments;
    for (size_t i = 0; i < call.arguments.size(); ++i) {
        const Value& value = call.arguments[i];
        const auto toJson = [](const auto& held) { return Shown(JsonOf(held)); };
        arguments.push_back(fmt::format("{}={}", form.parameters[i],
                                        form.parameters[i] == OPERATION_MODE
                                            ? ModeText(std::get<int32_t>(value))
                                            : std::visit(toJson, value)));
    }
    out << fmt::format("{}({}){}\n", form.name, fmt::join(arguments, ", "),
                       result ? fmt::format(" = {}", *result) : "");
}

}  // namespace tools
