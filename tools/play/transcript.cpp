#include "tools/play/transcript.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <string_view>
#include <variant>

namespace tools {
namespace {

using Json = nlohmann::ordered_json;
using Counts = std::map<std::pair<EventKind, Outcome>, int64_t>;

// A row of a summary: events of one or two kinds, those that were refused or those that were not.
struct Row {
    const char* text;
    const char* json;
    EventKind kind;
    EventKind otherKind;
    bool isRefused;
    bool hasReasons;
};

constexpr std::array<Row, 11> ROWS = {{
    {"scenes started", "scenesStarted", EventKind::SceneStart, EventKind::SceneStart, false, false},
    {"scenes refused", "scenesRefused", EventKind::SceneStart, EventKind::SceneStart, true, true},
    {"frames started", "framesStarted", EventKind::FrameStart, EventKind::FrameStart, false, false},
    {"frames ended", "framesEnded", EventKind::FrameEnd, EventKind::FrameEnd, false, false},
    {"frames evicted", "framesEvicted", EventKind::Eviction, EventKind::Eviction, false, true},
    {"frame starts refused", "frameStartsRefused", EventKind::FrameStart, EventKind::FrameStart,
     true, true},
    {"frame ends refused", "frameEndsRefused", EventKind::FrameEnd, EventKind::FrameEnd, true,
     true},
    {"stage events forwarded", "stageEventsForwarded", EventKind::StageStart, EventKind::StageEnd,
     false, false},
    {"stage events refused", "stageEventsRefused", EventKind::StageStart, EventKind::StageEnd, true,
     true},
    {"node ends ignored", "nodeEndsIgnored", EventKind::NodeEnd, EventKind::NodeEnd, false, true},
    {"error reports", "errorReports", EventKind::Report, EventKind::Report, false, false},
}};

struct Tally {
    int64_t total = 0;
    std::map<std::string, int64_t> reasons;
};

Tally TallyOf(const Row& row, const Counts& counts) {
    Tally tally;
    for (const auto& [event, count] : counts) {
        const auto& [kind, outcome] = event;
        if ((kind == row.kind || kind == row.otherKind) && IsRefused(outcome) == row.isRefused) {
            tally.total += count;
            if (row.hasReasons) {
                const bool isStage = kind == EventKind::StageStart || kind == EventKind::StageEnd;
                const bool needsSubject = isStage && outcome == Outcome::NotInFlight;
                tally.reasons[(needsSubject ? "the frame is " : "") +
                              std::string(ReasonOf(outcome))] += count;
            }
        }
    }
    return tally;
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

class TextTranscript : public Transcript {
  public:
    TextTranscript(std::ostream& stream, bool quiet, bool debug)
        : out(stream), isQuiet(quiet), withDebug(debug) {}

    void Show(const Line& line, uint32_t /*number*/) override {
        if (!isQuiet) {
            out << Shown(WriteLine(line)) << '\n';
        }
    }

    void Show(const Finding& /*finding*/, const std::string& /*file*/) override {}

    void ShowSummary() override {
        out << (isQuiet ? "" : "\n") << "Summary\n";
        for (const Row& row : ROWS) {
            const Tally tally = TallyOf(row, Total());
            out << "  " << std::left << std::setw(24) << row.text << std::right << std::setw(8)
                << tally.total << '\n';
            for (const auto& [reason, count] : tally.reasons) {
                out << std::setw(34) << count << "  " << reason << '\n';
            }
        }
    }

  private:
    void ShowStep(const Step& step, std::span<const desktop::Effect> effects,
                  const Counts& counts) override {
        if (isQuiet) {
            return;
        }
        if (step.call.operation != nullptr) {
            ShowCall(step);
        }
        for (const desktop::Effect& effect : effects) {
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
        for (const Row& row : ROWS) {
            for (const auto& [reason, count] : TallyOf(row, counts).reasons) {
                out << "    - " << row.text << ": " << count << " (" << reason << ")\n";
            }
        }
    }

    void ShowCall(const Step& step) {
        const Operation& operation = *step.call.operation;
        out << operation.name << '(';
        const char* separator = "";
        for (size_t i = 0; i < step.call.arguments.size(); ++i) {
            const Value& value = step.call.arguments[i];
            const Parameter& parameter = operation.parameters[i];
            out << std::exchange(separator, ", ") << parameter.name << '='
                << (parameter.isMode ? ModeText(std::get<int32_t>(value))
                                     : Shown(Dump(JsonOf(value))));
        }
        out << ')';
        if (step.result) {
            out << " = " << *step.result;
        }
        out << '\n';
    }

    std::ostream& out;
    bool isQuiet;
    bool withDebug;
};

class JsonTranscript : public Transcript {
  public:
    JsonTranscript(std::ostream& stream, bool quiet, bool debug)
        : out(stream), isQuiet(quiet), withDebug(debug) {}

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
        for (const Row& row : ROWS) {
            json[row.json] = TallyOf(row, Total()).total;
        }
        json["reasons"] = ReasonsOf(Total());
        Write(json);
    }

  private:
    void ShowStep(const Step& step, std::span<const desktop::Effect> effects,
                  const Counts& counts) override {
        if (isQuiet) {
            return;
        }
        if (step.call.operation == nullptr) {
            Write({{"type", "load"}, {"effects", EffectsOf(step, effects)}});
            return;
        }
        Json json = {
            {"type", "call"}, {"line", step.place.line}, {"operation", step.call.operation->name}};
        auto& arguments = json["arguments"] = Json::object();
        for (size_t i = 0; i < step.call.arguments.size(); ++i) {
            const std::string name(step.call.operation->parameters[i].name);
            arguments[name] = JsonOf(step.call.arguments[i]);
        }
        json["result"] = step.result ? Json(*step.result) : nullptr;
        json["effects"] = EffectsOf(step, effects);
        json["reasons"] = ReasonsOf(counts);
        Write(json);
    }

    Json EffectsOf(const Step& step, std::span<const desktop::Effect> effects) const {
        auto list = Json::array();
        for (const desktop::Effect& effect : effects) {
            if (withDebug || std::holds_alternative<desktop::ServiceCall>(effect.event)) {
                Json json = {{"time", Millis(step.time)}, {"thread", step.thread}};
                std::visit([&json](const auto& event) { Describe(event, json); }, effect.event);
                list.push_back(std::move(json));
            }
        }
        return list;
    }

    // Why how many events of which kind were not forwarded.
    static Json ReasonsOf(const Counts& counts) {
        auto json = Json::object();
        for (const Row& row : ROWS) {
            const Tally tally = TallyOf(row, counts);
            if (!tally.reasons.empty()) {
                json[row.json] = tally.reasons;
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

    std::ostream& out;
    bool isQuiet;
    bool withDebug;
};

}  // namespace

void Transcript::Show(const Step& step, std::span<const desktop::Effect> effects) {
    Counts counts;
    for (const Event& event : step.events) {
        ++counts[{event.kind, event.outcome}];
        ++total[{event.kind, event.outcome}];
    }
    ShowStep(step, effects, counts);
}

std::unique_ptr<Transcript> MakeTextTranscript(std::ostream& out, bool isQuiet, bool withDebug) {
    return std::make_unique<TextTranscript>(out, isQuiet, withDebug);
}

std::unique_ptr<Transcript> MakeJsonTranscript(std::ostream& out, bool isQuiet, bool withDebug) {
    return std::make_unique<JsonTranscript>(out, isQuiet, withDebug);
}

}  // namespace tools
