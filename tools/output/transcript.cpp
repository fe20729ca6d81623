#include "tools/output/transcript.h"

#include <iomanip>
#include <nlohmann/json.hpp>
#include <utility>

namespace tools {
namespace {

struct CounterNames {
    const char* text;
    const char* json;
};

// In the order of Counter.
constexpr std::array<CounterNames, COUNTERS> COUNTER_NAMES = {{
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
}};

template <typename... Visitors>
struct Overloaded : Visitors... {
    using Visitors::operator()...;
};
template <typename... Visitors>
Overloaded(Visitors...) -> Overloaded<Visitors...>;

nlohmann::ordered_json JsonOf(const Value& value) {
    return std::visit([](const auto& held) { return nlohmann::ordered_json(held); }, value);
}

// Session files may hold any bytes; JSON holds UTF-8.
std::string Dump(const nlohmann::ordered_json& json) {
    return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

bool IsErrorReport(const desktop::ServiceCall& call) {
    return call.function == desktop::ServiceFunction::NotifyErrOfUser;
}

class TextReport : public Report {
  public:
    TextReport(std::ostream& stream, bool quiet, bool debug)
        : out(stream), isQuiet(quiet), withDebug(debug) {}

    void ShowLoading(const std::vector<desktop::Effect>& effects) override {
        if (!isQuiet) {
            ShowEffects(effects);
        }
    }

    void Show(const Comment& comment) override {
        if (!isQuiet) {
            out << comment.text << '\n';
        }
    }

    void Show(const Played& played) override {
        if (isQuiet) {
            return;
        }
        out << played.call.operation->name << '(';
        const char* separator = "";
        for (size_t i = 0; i < played.call.arguments.size(); ++i) {
            out << std::exchange(separator, ", ") << played.call.operation->parameters[i].name
                << '=' << Dump(JsonOf(played.call.arguments[i]));
        }
        out << ')';
        if (played.result) {
            out << " = " << *played.result;
        }
        out << '\n';
        ShowEffects(played.effects);
        // What was forwarded shows above; what was not has a reason.
        for (size_t i = 0; i < COUNTERS; ++i) {
            for (const auto& [reason, count] : played.tally.Get(Counter(i)).reasons) {
                out << "    - " << COUNTER_NAMES[i].text << ": " << count << " (" << reason
                    << ")\n";
            }
        }
    }

    void ShowSummary(const Tally& tally) override {
        out << (isQuiet ? "" : "\n") << "Summary\n";
        for (size_t i = 0; i < COUNTERS; ++i) {
            const Tally::Count& counted = tally.Get(Counter(i));
            out << "  " << std::left << std::setw(24) << COUNTER_NAMES[i].text << std::right
                << std::setw(8) << counted.total << '\n';
            for (const auto& [reason, count] : counted.reasons) {
                out << std::setw(34) << count << "  " << reason << '\n';
            }
        }
    }

  private:
    void ShowEffects(const std::vector<desktop::Effect>& effects) {
        for (const desktop::Effect& effect : effects) {
            std::visit(Overloaded{
                           [this](const desktop::ServiceCall& call) {
                               out << (IsErrorReport(call) ? " !! " : "    ") << ToString(call)
                                   << '\n';
                           },
                           [this](const auto& debugOutput) {
                               if (withDebug) {
                                   out << "      " << ToString(debugOutput) << '\n';
                               }
                           },
                       },
                       effect.event);
        }
    }

    std::ostream& out;
    bool isQuiet;
    bool withDebug;
};

class JsonReport : public Report {
  public:
    JsonReport(std::ostream& stream, bool quiet, bool debug)
        : out(stream), isQuiet(quiet), withDebug(debug) {}

    void ShowLoading(const std::vector<desktop::Effect>& effects) override {
        if (!isQuiet) {
            out << Dump({{"type", "load"}, {"effects", JsonOf(effects)}}) << '\n';
        }
    }

    void Show(const Comment& /*comment*/) override {}

    void Show(const Played& played) override {
        if (isQuiet) {
            return;
        }
        nlohmann::ordered_json json = {
            {"type", "call"}, {"line", played.line}, {"operation", played.call.operation->name}};
        auto& arguments = json["arguments"] = nlohmann::ordered_json::object();
        for (size_t i = 0; i < played.call.arguments.size(); ++i) {
            const std::string name(played.call.operation->parameters[i].name);
            arguments[name] = JsonOf(played.call.arguments[i]);
        }
        json["result"] = played.result ? nlohmann::ordered_json(*played.result) : nullptr;
        json["effects"] = JsonOf(played.effects);
        json["reasons"] = ReasonsOf(played.tally);
        out << Dump(json) << '\n';
    }

    void ShowSummary(const Tally& tally) override {
        nlohmann::ordered_json json = {{"type", "summary"}};
        for (size_t i = 0; i < COUNTERS; ++i) {
            json[COUNTER_NAMES[i].json] = tally.Get(Counter(i)).total;
        }
        json["reasons"] = ReasonsOf(tally);
        out << Dump(json) << '\n';
    }

  private:
    nlohmann::ordered_json JsonOf(const std::vector<desktop::Effect>& effects) const {
        auto json = nlohmann::ordered_json::array();
        for (const desktop::Effect& effect : effects) {
            if (withDebug || std::holds_alternative<desktop::ServiceCall>(effect.event)) {
                json.push_back(
                    std::visit([](const auto& event) { return JsonOf(event); }, effect.event));
            }
        }
        return json;
    }

    static nlohmann::ordered_json JsonOf(const Value& value) { return tools::JsonOf(value); }

    // Why how many events of which kind were not forwarded.
    static nlohmann::ordered_json ReasonsOf(const Tally& tally) {
        auto json = nlohmann::ordered_json::object();
        for (size_t i = 0; i < COUNTERS; ++i) {
            const auto& reasons = tally.Get(Counter(i)).reasons;
            if (!reasons.empty()) {
                json[COUNTER_NAMES[i].json] = reasons;
            }
        }
        return json;
    }

    static nlohmann::ordered_json JsonOf(const desktop::ServiceCall& call) {
        nlohmann::ordered_json json = {{"call", NameOf(call.function)}};
        for (const desktop::ServiceArgument& argument : call.arguments) {
            json[argument.name] = argument.value;
        }
        if (call.function == desktop::ServiceFunction::AddTids ||
            call.function == desktop::ServiceFunction::RemoveTids) {
            json["tids"] = call.tids;
        }
        json["status"] = call.status;
        return json;
    }

    static nlohmann::ordered_json JsonOf(const desktop::LogLine& line) {
        return {{"log", line.text}, {"tag", line.tag}, {"priority", line.priority}};
    }

    static nlohmann::ordered_json JsonOf(const desktop::CounterUpdate& update) {
        return {{"counter", update.name}, {"value", update.value}};
    }

    std::ostream& out;
    bool isQuiet;
    bool withDebug;
};

}  // namespace

void Tally::Add(Counter counter, int64_t times, const std::string& reason) {
    if (times == 0) {
        return;
    }
    Count& count = counts[static_cast<size_t>(counter)];
    count.total += times;
    if (!reason.empty()) {
        count.reasons[reason] += times;
    }
}

void Tally::Add(const Tally& other) {
    for (size_t i = 0; i < COUNTERS; ++i) {
        counts[i].total += other.counts[i].total;
        for (const auto& [reason, count] : other.counts[i].reasons) {
            counts[i].reasons[reason] += count;
        }
    }
}

const Tally::Count& Tally::Get(Counter counter) const {
    return counts[static_cast<size_t>(counter)];
}

std::unique_ptr<Report> MakeTextReport(std::ostream& out, bool isQuiet, bool withDebug) {
    return std::make_unique<TextReport>(out, isQuiet, withDebug);
}

std::unique_ptr<Report> MakeJsonReport(std::ostream& out, bool isQuiet, bool withDebug) {
    return std::make_unique<JsonReport>(out, isQuiet, withDebug);
}

}  // namespace tools
