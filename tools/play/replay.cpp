#include "tools/play/replay.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "host/desktop.h"
#include "tools/check/check.h"
#include "tools/log/calls.h"
#include "tools/log/message.h"
#include "tools/session/session.h"

namespace tools {
namespace {

constexpr char DEBUG_PROPERTY[] = "vendor.tarvo.camera.frameboost.debug.enable";
constexpr uint64_t CAMERA_TRACE_TAG = 0x400;

// How often each row of the summary, such as "frames started", and why it was not done; no reason:
// it was done.
using Counts = std::map<std::pair<std::string_view, std::string_view>, int64_t>;

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
    if (call.form->name == "TcfbtNotifyNodeEnd") {
        const ConfiguredStage* const stage =
            configuration.StageOf(call.Get<std::string>("nodeName"));
        return tools::EventsOf(call.Get<int64_t>("halFrameNumber"),
                               stage == nullptr ? -1 : stage->stage,
                               configuration.stageCount.value_or(0));
    }
    // Of an operation's own messages those of events have a refusal, an empty one.
    std::vector<CallEvent> events;
    for (const MessageForm& form : MessageForms()) {
        if (form.function == call.form->name && form.refusal != nullptr) {
            events.push_back({form.kind, 0});
        }
    }
    return events;
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
    if (call.form->name == "TcfbtNotifyNodeEnd") {
        const bool isStagePort = played.configuration->IsStagePort(
            call.Get<std::string>("nodeName"), call.Get<int32_t>("portId"));
        if (!isStagePort || isSilent) {
            return {{{"node ends ignored",
                      isStagePort ? "no scene is running" : "this node and port end no stage"},
                     1}};
        }
    }
    const bool isInScene = played.result != -1;
    if (call.form->name == "TcfbtNotifySceneStart" && isSilent && !isInScene) {
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

// What a play shows: a transcript of calls with what followed from each, and a summary.
struct Transcript {
    std::ostream& out;
    const ReplayOptions& options;
    Counts total{};

    // A line of the session that is no call.
    void Show(const Line& line) {
        if (!options.isQuiet) {
            out << Shown(WriteLine(line)) << '\n';
        }
    }

    // A call, or the loading of the library.
    void Show(const Played& played) {
        const Counts counts = played.call != nullptr ? CountsOf(*played.call, played) : Counts();
        for (const auto& [what, count] : counts) {
            total[what] += count;
        }
        if (options.isQuiet) {
            return;
        }
        if (played.call != nullptr) {
            ShowCall(*played.call, played.result);
        }
        for (const desktop::Effect& effect : played.effects) {
            if (const auto* call = std::get_if<desktop::ServiceCall>(&effect.event)) {
                const bool isReport = call->function == desktop::ServiceFunction::NotifyErrOfUser;
                out << (isReport ? " !! " : "    ") << ToString(*call) << '\n';
            } else if (options.withDebug) {
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

    // What has become of everything up to here.
    void ShowSummary() {
        out << (options.isQuiet ? "" : "\n") << "Summary\n";
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

    void ShowCall(const Call& call, std::optional<int32_t> result) {
        const OperationForm& form = *call.form;
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
};

}  // namespace

bool PreparePlatform(const std::optional<NamedText>& configuration, const Complaints& complain) {
    desktop::Reset();
    desktop::SetLogToStderr(false);
    desktop::SetProperty(DEBUG_PROPERTY, "true");
    if (!configuration) {
        return true;
    }
    const CheckedConfiguration checked = CheckConfiguration(configuration->text);
    for (const Finding& finding : checked.findings) {
        complain(ToString(finding, configuration->name));
    }
    return checked.isReadable && !checked.endsProcess &&
           !desktop::LoadConfiguration(configuration->text, configuration->name);
}

bool Replay(const ReplayOptions& options, const NamedText& file, std::ostream& out,
            const Complaints& complain) {
    const auto fail = [&](const char* check, std::string message, uint32_t line = 0) {
        complain(ToString({check, Severity::Error, std::move(message), {0, line}}, file.name));
        return false;
    };

    constexpr uint32_t mostErrors = 20;  // So many are shown.
    uint32_t lines = 0;
    uint32_t errors = 0;
    uint32_t recording = 0;  // The line of the first one.
    ForEachLine(
        file.text,
        [&](uint32_t number, const Line& line) {
            ++lines;
            const bool isFirst = recording == 0 && std::holds_alternative<Recording>(line);
            recording = isFirst ? number : recording;
            return true;
        },
        [&](uint32_t number, const LineError& error) {
            if (++errors <= mostErrors) {
                fail("session-line", error.what(), number);
            }
        });
    if (lines == 0) {
        return fail("no-session",
                    "no line of it is a call; a session is made of a log by "
                    "cameraframeboost explain LOG --to-session SESSION");
    }
    if (errors > mostErrors) {
        fail("session-line", fmt::format("as many as {} lines cannot be read", errors));
    }
    if (errors != 0 || !PreparePlatform(options.configuration, complain)) {
        return false;
    }
    desktop::SetTraceTags(options.withDebug ? CAMERA_TRACE_TAG : 0);

    Transcript transcript{out, options};
    const auto watch = [&](const Played& played) {
        transcript.Show(played);
        for (const desktop::Effect& effect : played.effects) {
            const auto* line = std::get_if<desktop::LogLine>(&effect.event);
            if (options.log != nullptr && line != nullptr) {
                WriteLogLine(*options.log, {}, CAPTURE_BEGIN + played.time, CAPTURE_PROCESS, *line);
            }
        }
    };
    Player player(watch, options.isInterrupted);
    if (const auto reason = player.WhyNotRecordable(); reason && recording != 0) {
        return fail("not-recordable", *reason, recording);
    }
    ForEachLine(file.text, [&](uint32_t, const Line& line) {
        if (!std::holds_alternative<Call>(line) && !std::holds_alternative<Recording>(line)) {
            transcript.Show(line);
        }
        player.Play(line);
        return !options.isInterrupted();
    });
    transcript.ShowSummary();
    return true;
}

}  // namespace tools
