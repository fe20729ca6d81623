#include "tools/play/transcript.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string_view>
#include <variant>
#include <vector>

#include "host/desktop.h"
#include "tools/log/message.h"
#include "tools/play/log_writer.h"
#include "tools/session/calls.h"

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

using Json = nlohmann::ordered_json;
// The rows of a summary, in the order of Tally.
struct Row {
    const char* text;
    const char* json;
};
constexpr auto ROWS = std::to_array<Row>({
    {"scenes started", "scenesStarted"},
    {"scenes refused", "scenesRefused"},
    {"frames started", "framesStarted"},
    {"frames ended", "framesEnded"},
    {"frames evicted", "framesEvicted"},
    {"frame starts refused", "frameStartsRefused"},
    {"frame ends refused", "frameEndsRefused"},
    {"stage events forwarded", "stageEventsForwarded"},
    {"stage events refused", "stageEventsRefused"},
    {"node ends ignored", "nodeEndsIgnored"},
    {"error reports", "errorReports"},
});

// Why an event was not done, as the message says that it left; empty: it was.
constexpr std::pair<MessageKind, std::string_view> REASONS[] = {
    {MessageKind::FrameStart, ""},
    {MessageKind::FrameEnd, ""},
    {MessageKind::StageStart, ""},
    {MessageKind::StageEnd, ""},
    {MessageKind::FrameAlreadyExists, "already in flight"},
    {MessageKind::FrameNotContinuous, "does not follow the newest frame"},
    {MessageKind::EndedFrameNotExist, "not in flight"},
    {MessageKind::FrameNotExist, "the frame is not in flight"},
    {MessageKind::FrameRemoved, "the frame is not in flight"},
    {MessageKind::FrameInError, "the frame is in error"},
    {MessageKind::StageNotInRange, "no such stage"},
    {MessageKind::StageOutOfOrder, "out of order with another stage"},
    {MessageKind::StageOutOfTurn, "the stage has run already, or has not started"},
};

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
    const auto frame = [&call] { return call.Get<int64_t>(Parameter::HalFrameNumber); };
    const auto stage = [&call] { return call.Get<int32_t>(Parameter::Stage); };
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
            Message nodeEnd;
            nodeEnd.frame = frame();
            nodeEnd.stage = configuration.StageOf(call.Get<std::string>(Parameter::NodeName));
            nodeEnd.count = configuration.stageCount.value_or(0);
            std::vector<CallEvent> events = EventsOf(nodeEnd);
            if (!isInScene) {
                // Nobody meant to start a frame.
                std::erase_if(events, [](const CallEvent& event) {
                    return event.kind == MessageKind::FrameStart;
                });
            }
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
    const size_t length = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    const bool isWhole =
        length != 0 && first <= 0xF4 && length <= text.size() &&
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

Json JsonOf(const Value& value) {
    return std::visit([](const auto& held) { return Json(held); }, value);
}

// Session files may hold any bytes; JSON holds UTF-8.
std::string Dump(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

int64_t TotalOf(Tally tally, const Counts& counts) {
    int64_t total = 0;
    for (const auto& [what, count] : counts) {
        total += what.first == tally ? count : 0;
    }
    return total;
}

// Why how many of them were not done, in the order of the texts.
std::map<std::string, int64_t> ReasonsOf(Tally tally, const Counts& counts) {
    std::map<std::string, int64_t> reasons;
    for (const auto& [what, count] : counts) {
        if (what.first == tally && !what.second.empty()) {
            reasons.emplace(what.second, count);
        }
    }
    return reasons;
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
            counts[{Tally::ErrorReports, ""}] +=
                service->function == desktop::ServiceFunction::NotifyErrOfUser ? 1 : 0;
        } else if (const auto* line = std::get_if<desktop::LogLine>(&effect.event)) {
            if (const auto message = ParseMessage(line->tag, line->text)) {
                messages.push_back(*message);
            }
        }
    }
    const auto count = [&counts](Tally tally, std::string_view reason) {
        ++counts[{tally, reason}];
    };
    const bool isNodeEnd = call.operation == Operation::NodeEnd;
    if (isNodeEnd && !played.configuration->IsStagePort(call.Get<std::string>(Parameter::NodeName),
                                                        call.Get<int32_t>(Parameter::PortId))) {
        count(Tally::NodeEndsIgnored, "this node and port end no stage");
        return counts;
    }
    if (call.operation == Operation::SceneStart && played.result == -1 && messages.empty()) {
        count(Tally::ScenesRefused, "not described as a scene to boost");
    }
    const bool isInScene = isNodeEnd ? !messages.empty() : played.result != -1;
    EventLines events(EventsOf(call, *played.configuration, isInScene));
    std::vector<std::string_view> reasons(
        events.Events().size(), isInScene ? "the frame is in error" : "no scene is running");
    for (const Message& message : messages) {
        if (message.kind == MessageKind::SceneDisabled) {
            count(Tally::ScenesRefused, "switched off, or the operation mode is not supported");
        } else if (message.kind == MessageKind::SceneStart) {
            count(message.flag ? Tally::ScenesStarted : Tally::ScenesRefused,
                  message.flag ? "" : "by the service");
        } else if (message.kind == MessageKind::TableFull) {
            count(Tally::FramesEvicted, "too many frames in flight");
        }
        const std::optional<size_t> event = events.Take(message);
        for (const auto& [kind, reason] : REASONS) {
            if (event && kind == message.kind) {
                reasons[*event] = reason;
            }
        }
    }
    for (size_t i = 0; i < reasons.size(); ++i) {
        count(TallyOf(events.Events()[i].kind, reasons[i].empty()), reasons[i]);
    }
    return counts;
}

class TextTranscript : public Transcript {
  public:
    using Transcript::Transcript;

    void Show(const Line& line, uint32_t /*number*/) override {
        if (!isQuiet) {
            out << Shown(WriteLine(line)) << '\n';
        }
    }

    void Show(const Finding& /*finding*/, const std::string& /*file*/) override {}

    void ShowSummary() override {
        out << (isQuiet ? "" : "\n") << "Summary\n";
        for (size_t row = 0; row < ROWS.size(); ++row) {
            const auto tally = static_cast<Tally>(row);
            out << "  " << std::left << std::setw(24) << ROWS[row].text << std::right
                << std::setw(8) << TotalOf(tally, total) << '\n';
            for (const auto& [reason, count] : ReasonsOf(tally, total)) {
                out << std::setw(34) << count << "  " << reason << '\n';
            }
        }
    }

  private:
    void ShowPlayed(const Played& played, const Counts& counts) override {
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
        for (size_t row = 0; row < ROWS.size(); ++row) {
            for (const auto& [reason, count] : ReasonsOf(static_cast<Tally>(row), counts)) {
                out << "    - " << ROWS[row].text << ": " << count << " (" << reason << ")\n";
            }
        }
    }

    void ShowCall(const Call& call, std::optional<int32_t> result) {
        const OperationForm& form = FormOf(call.operation);
        out << form.name << '(';
        const char* separator = "";
        for (size_t i = 0; i < call.arguments.size(); ++i) {
            const Value& value = call.arguments[i];
            const Parameter parameter = form.parameters[i];
            out << std::exchange(separator, ", ") << NameOf(parameter) << '='
                << (parameter == Parameter::OperationMode ? ModeText(std::get<int32_t>(value))
                                                          : Shown(Dump(JsonOf(value))));
        }
        out << ')';
        if (result) {
            out << " = " << *result;
        }
        out << '\n';
    }
};

class JsonTranscript : public Transcript {
  public:
    using Transcript::Transcript;

    void Show(const Line& line, uint32_t number) override {
        if (isQuiet) {
            return;
        }
        if (const auto* wait = std::get_if<Wait>(&line)) {
            Write({{"type", "wait"}, {"line", number}, {"milliseconds", Millis(wait->micros)}});
        } else if (const auto* status = std::get_if<ServiceStatus>(&line)) {
            Write({{"type", "serviceStatus"},
                   {"line", number},
                   {"function", NameOf(status->function)},
                   {"status", status->status}});
        }
    }

    void Show(const Finding& finding, const std::string& file) override {
        Json json = {{"type", finding.severity == Severity::Error ? "error" : "finding"}};
        if (!file.empty()) {
            json["file"] = file;
        }
        if (finding.place.line != 0) {
            json["line"] = finding.place.line;
        }
        if (finding.column != 0) {
            json["column"] = finding.column;
        }
        json["severity"] = NameOf(finding.severity);
        json["check"] = finding.check;
        json["message"] = finding.message;
        Write(json);
    }

    void ShowSummary() override {
        Json json = {{"type", "summary"}};
        for (size_t row = 0; row < ROWS.size(); ++row) {
            json[ROWS[row].json] = TotalOf(static_cast<Tally>(row), total);
        }
        json["reasons"] = JsonOfReasons(total);
        Write(json);
    }

  private:
    void ShowPlayed(const Played& played, const Counts& counts) override {
        if (played.call == nullptr) {
            Write({{"type", "load"}, {"effects", EffectsOf(played)}});
            return;
        }
        const OperationForm& form = FormOf(played.call->operation);
        Json json = {{"type", "call"}, {"line", played.line}, {"operation", form.name}};
        auto& arguments = json["arguments"] = Json::object();
        for (size_t i = 0; i < form.parameters.size(); ++i) {
            arguments[std::string(NameOf(form.parameters[i]))] = JsonOf(played.call->arguments[i]);
        }
        json["result"] = played.result ? Json(*played.result) : nullptr;
        json["effects"] = EffectsOf(played);
        json["reasons"] = JsonOfReasons(counts);
        Write(json);
    }

    Json EffectsOf(const Played& played) const {
        auto list = Json::array();
        for (const desktop::Effect& effect : played.effects) {
            if (withDebug || std::holds_alternative<desktop::ServiceCall>(effect.event)) {
                Json json = {{"time", Millis(played.time)}, {"thread", CAPTURE_PROCESS}};
                std::visit([&json](const auto& event) { Describe(event, json); }, effect.event);
                list.push_back(std::move(json));
            }
        }
        return list;
    }

    // Why how many of what were not done.
    static Json JsonOfReasons(const Counts& counts) {
        auto json = Json::object();
        for (size_t row = 0; row < ROWS.size(); ++row) {
            const auto reasons = ReasonsOf(static_cast<Tally>(row), counts);
            if (!reasons.empty()) {
                json[ROWS[row].json] = reasons;
            }
        }
        return json;
    }

    static void Describe(const desktop::ServiceCall& call, Json& json) {
        json["call"] = NameOf(call.function);
        for (const desktop::ServiceArgument& argument : call.arguments) {
            json[argument.name] = argument.value;
        }
        if (call.function == desktop::ServiceFunction::AddTids ||
            call.function == desktop::ServiceFunction::RemoveTids) {
            json["tids"] = call.tids;
        }
        json["status"] = call.status;
    }

    static void Describe(const desktop::LogLine& line, Json& json) {
        json["log"] = line.text;
        json["tag"] = line.tag;
        json["priority"] = line.priority;
    }

    static void Describe(const desktop::CounterUpdate& update, Json& json) {
        json["counter"] = update.name;
        json["value"] = update.value;
    }

    static double Millis(Micros micros) { return static_cast<double>(micros) / 1000; }

    void Write(const Json& json) { out << Dump(json) << '\n'; }
};

}  // namespace

void Transcript::Show(const Played& played) {
    const Counts counts = CountsOf(played);
    for (const auto& [what, count] : counts) {
        total[what] += count;
    }
    if (!isQuiet) {
        ShowPlayed(played, counts);
    }
}

std::unique_ptr<Transcript> MakeTextTranscript(std::ostream& out, bool isQuiet, bool withDebug) {
    return std::make_unique<TextTranscript>(out, isQuiet, withDebug);
}

std::unique_ptr<Transcript> MakeJsonTranscript(std::ostream& out, bool isQuiet, bool withDebug) {
    return std::make_unique<JsonTranscript>(out, isQuiet, withDebug);
}

}  // namespace tools
