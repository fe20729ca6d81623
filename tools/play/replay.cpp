#include "tools/play/replay.h"

#include <algorithm>
#include <optional>
#include <variant>

#include "tools/check/check.h"
#include "tools/play/log_writer.h"
#include "tools/play/transcript.h"
#include "tools/session/session.h"

namespace tools {
namespace {

constexpr char DEBUG_PROPERTY[] = "vendor.tarvo.camera.frameboost.debug.enable";
constexpr uint64_t CAMERA_TRACE_TAG = 0x400;

// The first recording, when no recording can be played.
std::optional<Finding> UnplayableRecording(const Session& session, const Player& player) {
    std::optional<Finding> finding;
    if (const auto reason = player.WhyNotRecordable()) {
        session.ForEachLine([&](uint32_t number, const Line& line) {
            if (std::holds_alternative<Recording>(line)) {
                finding = {"not-recordable", Severity::Error, *reason, {0, number}};
            }
            return !finding;
        });
    }
    return finding;
}

}  // namespace

bool PreparePlatform(const std::optional<NamedText>& configuration,
                     const std::function<void(const Finding&)>& tell) {
    desktop::Reset();
    desktop::SetLogToStderr(false);
    desktop::SetProperty(DEBUG_PROPERTY, "true");
    if (!configuration) {
        return true;
    }
    const CheckedConfiguration checked = CheckConfiguration(configuration->text);
    for (const Finding& finding : checked.findings) {
        tell(finding);
    }
    return checked.isReadable && !checked.endsProcess &&
           !desktop::LoadConfiguration(configuration->text, configuration->name);
}

bool Replay(const ReplayOptions& options, std::istream& sessionFile, const std::string& name,
            std::ostream& out, std::ostream& err) {
    Transcript transcript(out, options.isQuiet, options.withDebug);
    const auto tell = [&err](const Finding& finding, const std::string& file) {
        err << ToString(finding, file) << '\n';
    };

    const Session session(sessionFile);
    // A file that is no session has as many errors as lines.
    constexpr size_t MOST_ERRORS = 20;
    const size_t errors = session.Errors().size();
    for (size_t i = 0; i < std::min(errors, MOST_ERRORS); ++i) {
        tell(session.Errors()[i], name);
    }
    if (errors > MOST_ERRORS) {
        const std::string message =
            std::to_string(errors) +
            " lines cannot be read: is it a session? explain --to-session makes one of a log";
        tell({"session-line", Severity::Error, message}, name);
    }
    if (!session.Errors().empty() ||
        !PreparePlatform(options.configuration, [&](const Finding& finding) {
            tell(finding, options.configuration->name);
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
        if (options.pace.isRealTime) {
            out.flush();
        }
    };
    Player player(watch, options.pace);
    if (const auto finding = UnplayableRecording(session, player)) {
        tell(*finding, name);
        return false;
    }
    session.ForEachLine([&](uint32_t number, const Line& line) {
        if (!std::holds_alternative<Call>(line) && !std::holds_alternative<Recording>(line)) {
            transcript.Show(line);
            if (options.pace.isRealTime) {
                out.flush();
            }
        }
        player.Play(line, number);
        return !options.pace.isInterrupted();
    });
    transcript.ShowSummary();
    return true;
}

}  // namespace tools
