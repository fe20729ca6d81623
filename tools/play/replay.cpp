#include "tools/play/replay.h"

#include <fmt/format.h>

#include <algorithm>
#include <variant>
#include <vector>

#include "tools/check/check.h"
#include "tools/play/transcript.h"
#include "tools/session/session.h"

namespace tools {
namespace {

constexpr char DEBUG_PROPERTY[] = "vendor.tarvo.camera.frameboost.debug.enable";
constexpr uint64_t CAMERA_TRACE_TAG = 0x400;

}  // namespace

bool PreparePlatform(const std::optional<NamedText>& configuration,
                     const std::function<void(const Finding&)>& report) {
    desktop::Reset();
    desktop::SetLogToStderr(false);
    desktop::SetProperty(DEBUG_PROPERTY, "true");
    if (!configuration) {
        return true;
    }
    const CheckedConfiguration checked = CheckConfiguration(configuration->text);
    for (const Finding& finding : checked.findings) {
        report(finding);
    }
    return checked.isReadable && !checked.endsProcess &&
           !desktop::LoadConfiguration(configuration->text, configuration->name);
}

bool Replay(const ReplayOptions& options, const NamedText& file, std::ostream& out,
            const std::function<void(const std::string&)>& complain) {
    if (options.pace.isRealTime) {
        out << std::unitbuf;
    }
    Transcript transcript(out, options.isQuiet, options.withDebug);
    const auto report = [&complain](const Finding& finding, const std::string& name) {
        complain(ToString(finding, name));
    };

    uint32_t lines = 0;
    uint32_t recording = 0;  // The line of the first one.
    std::vector<Finding> errors;
    ForEachLine(
        file.text,
        [&](uint32_t number, const Line& line) {
            ++lines;
            recording =
                recording == 0 && std::holds_alternative<Recording>(line) ? number : recording;
            return true;
        },
        [&errors](uint32_t number, const LineError& error) {
            errors.push_back({"session-line", Severity::Error, error.what(), {0, number}});
        });
    const size_t shown = std::min<size_t>(errors.size(), lines == 0 ? 1 : 20);
    for (size_t i = 0; i < shown; ++i) {
        report(errors[i], file.name);
    }
    if (lines == 0) {
        report({"no-session", Severity::Error,
                "no line of it is a call; a session is made of a log by "
                "cameraframeboost explain LOG --to-session SESSION"},
               file.name);
    } else if (errors.size() > shown) {
        report({"session-line", Severity::Error,
                fmt::format("as many as {} lines cannot be read", errors.size())},
               file.name);
    }
    if (lines == 0 || !errors.empty() ||
        !PreparePlatform(options.configuration, [&](const Finding& finding) {
            report(finding, options.configuration->name);
        })) {
        return false;
    }
    desktop::SetTraceTags(options.withDebug ? CAMERA_TRACE_TAG : 0);

    const auto watch = [&](const Played& played) {
        transcript.Show(played);
        for (const desktop::Effect& effect : played.effects) {
            const auto* line = std::get_if<desktop::LogLine>(&effect.event);
            if (options.log != nullptr && line != nullptr) {
                WriteLogLine(*options.log, {}, CAPTURE_BEGIN + played.time, CAPTURE_PROCESS, *line);
            }
        }
    };
    Player player(watch, options.pace);
    if (const auto reason = player.WhyNotRecordable(); reason && recording != 0) {
        report({"not-recordable", Severity::Error, *reason, {0, recording}}, file.name);
        return false;
    }
    ForEachLine(file.text, [&](uint32_t, const Line& line) {
        if (!std::holds_alternative<Call>(line) && !std::holds_alternative<Recording>(line)) {
            transcript.Show(line);
        }
        player.Play(line);
        return !options.pace.isInterrupted();
    });
    transcript.ShowSummary();
    return true;
}

}  // namespace tools
