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

// The rows of a summary, as counts name them.
constexpr std::string_view ROWS[] = {
    "scenes started",       "scenes refused",       "frames started",     "frames ended",
    "frames evicted",       "frame starts refused", "frame ends refused", "stage events forwarded",
    "stage events refused", "node ends ignored",    "error reports",
};

// Where the event that left such a message counts.
std::string_view RowOf(MessageKind kind, bool isDone) {
    switch (kind) {
        case MessageKind::FrameStart:
        case MessageKind::FrameAlreadyExists:
        case MessageKind::FrameNotContinuous:
            return isDone ? "frames started" : "frame starts refused";
        case MessageKind::FrameEnd:
        case MessageKind::EndedFrameNotExist:
            return isDone ? "frames ended" : "frame ends refused";
        default:
            return isDone ? "stage events forwarded" : "stage events refused";
    }
}

// The frame and stage events that a call leads to while a scene runs, without their frames.
std::vector<CallEvent> EventsOf(const Call& call, const Configuration& configuration) {
    switch (call.operation) {
        case Operation::FrameStart:
            return {{MessageKind::FrameStart, 0}};
        case Operation::FrameEnd:
            return {{MessageKind::FrameEnd, 0}};
        case Operation::StageStart:
        case Operation::StageEnd:
            return {{MessageKind::StageEnd, 0}};
        case Operation::NodeEnd:
            return tools::EventsOf(call.Get<int64_t>("halFrameNumber"),
                                   configuration.StageOf(call.Get<std::string>("nodeName")),
                                   configuration.stageCount.value_or(0));
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
Counts CountsOf(const Call& call, const Played& played) {
    Counts counts;
    bool isSilent = true;
    std::map<std::string_view, int64_t> silent;  // Events that left nothing, by their rows.
    for (const CallEvent& event : EventsOf(call, *played.configuration)) {
        ++silent[RowOf(event.kind, false)];
    }
    for (const desktop::Effect& effect : played.effects) {
        const auto* service = std::get_if<desktop::ServiceCall>(&effect.event);
        if (service && service->function == desktop::ServiceFunction::NotifyErrOfUser) {
            ++counts[{"error reports", ""}];
        }
        const auto* line = std::get_if<desktop::LogLine>(&effect.event);
        const auto message = line ? ParseMessage(line->text) : std::nullopt;
        if (!message) {
            continue;
        }
        isSilent = false;
        if (message->kind == MessageKind::SceneDisabled) {
            ++counts[{"scenes refused", "switched off, or the operation mode is not supported"}];
        } else if (message->kind == MessageKind::SceneStart && message->flag) {
            ++counts[{"scenes started", ""}];
        } else if (message->kind == MessageKind::SceneStart) {
            ++counts[{"scenes refused", "by the service"}];
        } else if (message->kind == MessageKind::TableFull) {
            ++counts[{"frames evicted", TABLE_FULL}];
        } else if (const char* const reason = RefusalOf(message->kind)) {
            ++counts[{RowOf(message->kind, *reason == '\0'), reason}];
            --silent[RowOf(message->kind, false)];
        }
    }
    if (call.operation == Operation::NodeEnd) {
        const bool isStagePort = played.configuration->IsStagePort(
            call.Get<std::string>("nodeName"), call.Get<int32_t>("portId"));
        if (!isStagePort || isSilent) {
            return {{{"node ends ignored",
                      isStagePort ? "no scene is running" : "this node and port end no stage"},
                     1}};
        }
    }
    const bool isInScene = played.result != -1;
    if (call.operation == Operation::SceneStart && isSilent && !isInScene) {
        ++counts[{"scenes refused", "not described as a scene to boost"}];
    }
    for (const auto& [row, count] : silent) {
        if (count > 0) {
            counts[{row, isInScene ? RefusalOf(MessageKind::FrameInError)
                                   : "no scene is running"}] += count;
        }
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
    const Counts counts = played.call != nullptr ? CountsOf(*played.call, played) : Counts();
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
        const auto& [row, reason] = what;
        if (!reason.empty()) {
            out << fmt::format("    - {}: {} ({})\n", row, count, reason);
        }
    }
}

void Transcript::ShowSummary() {
    out << (isQuiet ? "" : "\n") << "Summary\n";
    for (const std::string_view row : ROWS) {
        std::string reasons;
        int64_t all = 0;
        for (const auto& [what, count] : total) {
            if (what.first == row) {
                all += count;
                reasons +=
                    what.second.empty() ? "" : fmt::format("{:34}  {}\n", count, what.second);
            }
        }
        out << fmt::format("  {:24}{:8}\n{}", row, all, reasons);
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
