#include "tools/play/transcript.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <variant>
#include <vector>

#include "host/desktop.h"
#include "tools/log/calls.h"
#include "tools/log/message.h"

namespace tools {

enum class Tally : uint8_t {
    ScenesStarted,
    ScenesRefused,
    FramesStarted,
    FramesEnded,
    FramesEvicted,
    FrameStartsRefused,
    FrameEndsRefused,
    StageEventsForwarded,
    StageEventsRefused,
    NodeEndsIgnored,
    ErrorReports,
};

namespace {

// The rows of a summary, in the order of Tally.
constexpr auto ROWS = std::to_array<const char*>({
    "scenes started",
    "scenes refused",
    "frames started",
    "frames ended",
    "frames evicted",
    "frame starts refused",
    "frame ends refused",
    "stage events forwarded",
    "stage events refused",
    "node ends ignored",
    "error reports",
});

Tally TallyOf(MessageKind event, bool isDone) {
    switch (event) {
        case MessageKind::FrameStart:
            return isDone ? Tally::FramesStarted : Tally::FrameStartsRefused;
        case MessageKind::FrameEnd:
            return isDone ? Tally::FramesEnded : Tally::FrameEndsRefused;
        default:
            return isDone ? Tally::StageEventsForwarded : Tally::StageEventsRefused;
    }
}

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

// The bytes of the UTF-8 character that `text` begins with; 0 when it begins with none, or with
// one that a terminal would take for a command.
size_t PrintableLength(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    if (first < 0x80) {
        const bool isControl = (first < 0x20 && first != '\t') || first == 0x7F;
        return isControl ? 0 : 1;
    }
    if (first < 0xC2 || first > 0xF4) {
        return 0;
    }
    size_t length = 2;
    length += first >= 0xE0 ? 1 : 0;
    length += first >= 0xF0 ? 1 : 0;
    const bool isWhole =
        length <= text.size() &&
        std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(length),
                    [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; });
    // Controls again, from U+0080 to U+009F.
    const bool isControl = first == 0xC2 && isWhole && static_cast<unsigned char>(text[1]) < 0xA0;
    return isWhole && !isControl ? length : 0;
}

// Text of the session's, in whatever language, with question marks for what is not to reach a
// terminal.
std::string Shown(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const size_t length = PrintableLength(text);
        shown += length == 0 ? "?" : text.substr(0, length);
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return shown;
}

// A value as a call shows it: a text in quotes, a list in brackets. Session files may hold any
// bytes; what is no UTF-8 is replaced.
std::string ShownOf(const Value& value) {
    using Json = nlohmann::json;
    const Json json = std::visit([](const auto& held) { return Json(held); }, value);
    return Shown(json.dump(-1, ' ', false, Json::error_handler_t::replace));
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
        if (const auto* service = std::get_if<desktop::ServiceCall>(&effect.event)) {
            counts[Tally::ErrorReports][""] +=
                service->function == desktop::ServiceFunction::NotifyErrOfUser ? 1 : 0;
        } else if (const auto* line = std::get_if<desktop::LogLine>(&effect.event)) {
            if (const auto message = ParseMessage(line->tag, line->text)) {
                messages.push_back(*message);
            }
        }
    }
    const auto count = [&counts](Tally tally, std::string_view reason) { ++counts[tally][reason]; };
    const bool isNodeEnd = call.operation == Operation::NodeEnd;
    if (isNodeEnd && !played.configuration->IsStagePort(call.Get<std::string>("nodeName"),
                                                        call.Get<int32_t>("portId"))) {
        count(Tally::NodeEndsIgnored, "this node and port end no stage");
        return counts;
    }
    if (call.operation == Operation::SceneStart && played.result == -1 && messages.empty()) {
        count(Tally::ScenesRefused, "not described as a scene to boost");
    }
    const bool isInScene = isNodeEnd ? !messages.empty() : played.result != -1;
    EventLines events(EventsOf(call, *played.configuration, isInScene));
    std::vector<std::string_view> reasons(
        events.Events().size(),
        isInScene ? RefusalOf(MessageKind::FrameInError) : "no scene is running");
    for (const Message& message : messages) {
        if (message.kind == MessageKind::SceneDisabled) {
            count(Tally::ScenesRefused, "switched off, or the operation mode is not supported");
        } else if (message.kind == MessageKind::SceneStart) {
            count(message.flag ? Tally::ScenesStarted : Tally::ScenesRefused,
                  message.flag ? "" : "by the service");
        } else if (message.kind == MessageKind::TableFull) {
            count(Tally::FramesEvicted, TABLE_FULL);
        }
        const std::optional<size_t> event = events.Take(message);
        if (const char* const reason = RefusalOf(message.kind); event && reason != nullptr) {
            reasons[*event] = reason;
        }
    }
    for (size_t i = 0; i < reasons.size(); ++i) {
        count(TallyOf(events.Events()[i].kind, reasons[i].empty()), reasons[i]);
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
    for (const auto& [tally, reasons] : counts) {
        for (const auto& [reason, count] : reasons) {
            total[tally][reason] += count;
        }
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
    for (const auto& [tally, reasons] : counts) {
        for (const auto& [reason, count] : reasons) {
            if (!reason.empty()) {
                out << "    - " << ROWS[static_cast<size_t>(tally)] << ": " << count << " ("
                    << reason << ")\n";
            }
        }
    }
}

void Transcript::ShowSummary() {
    out << (isQuiet ? "" : "\n") << "Summary\n";
    for (size_t row = 0; row < ROWS.size(); ++row) {
        std::string lines;
        int64_t all = 0;
        for (const auto& [reason, count] : total[static_cast<Tally>(row)]) {
            all += count;
            lines += reason.empty() ? "" : fmt::format("{:34}  {}\n", count, reason);
        }
        out << fmt::format("  {:24}{:8}\n{}", ROWS[row], all, lines);
    }
}

void Transcript::ShowCall(const Call& call, std::optional<int32_t> result) {
    const OperationForm& form = FormOf(call.operation);
    out << form.name << '(';
    const char* separator = "";
    for (size_t i = 0; i < call.arguments.size(); ++i) {
        const Value& value = call.arguments[i];
        const std::string_view parameter = form.parameters[i];
        out << std::exchange(separator, ", ") << parameter << '='
            << (parameter == OPERATION_MODE ? ModeText(std::get<int32_t>(value)) : ShownOf(value));
    }
    out << ')';
    if (result) {
        out << " = " << *result;
    }
    out << '\n';
}

}  // namespace tools
