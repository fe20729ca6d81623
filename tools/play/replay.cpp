#include "tools/play/replay.h"

#include <memory>
#include <optional>
#include <variant>

#include "tools/output/transcript.h"
#include "tools/play/player.h"
#include "tools/session/session.h"

namespace tools {
namespace {

constexpr char DEBUG_PROPERTY[] = "vendor.tarvo.camera.frameboost.debug.enable";
constexpr uint64_t CAMERA_TRACE_TAG = 0x400;

// Serves the configuration that was asked for. Returns false, with the reasons written to `err`,
// when that would not do.
bool ServeConfiguration(const Options& options, std::ostream& err) {
    if (options.configuration.empty()) {
        return true;
    }
    if (const auto error = desktop::LoadConfigurationFile(options.configuration)) {
        err << *error << '\n';
        return false;
    }
    const std::vector<std::string> findings = desktop::CheckConfiguration();
    for (const std::string& finding : findings) {
        err << finding << '\n';
    }
    return findings.empty();
}

}  // namespace

bool Replay(const Options& options, std::istream& session, const std::string& name,
           std::ostream& out, std::ostream& err) {
    desktop::Reset();
    if (!ServeConfiguration(options, err)) {
        return false;
    }
    for (const auto& [function, status] : options.statuses) {
        desktop::SetServiceStatus(function, status);
    }
    // The player reads the log whether or not it is to be shown.
    desktop::SetLogToStderr(false);
    desktop::SetProperty(DEBUG_PROPERTY, "true");
    desktop::SetTraceTags(options.withDebug ? CAMERA_TRACE_TAG : 0);

    const std::unique_ptr<Report> report =
        options.isJson ? MakeJsonReport(out, options.isQuiet, options.withDebug)
                       : MakeTextReport(out, options.isQuiet, options.withDebug);
    Player player(*report, options.isRealTime, options.onProgress);
    size_t number = 0;
    for (std::string text; std::getline(session, text);) {
        ++number;
        try {
            const Line line = ParseLine(text);
            if (const auto* call = std::get_if<Call>(&line)) {
                player.Play(*call, number);
            } else if (const auto* recording = std::get_if<Recording>(&line)) {
                player.Play(*recording, number);
            } else if (const auto* comment = std::get_if<Comment>(&line)) {
                report->Show(*comment);
            }
        } catch (const SessionError& error) {
            out.flush();
            err << name << ':' << number << ": " << error.what() << '\n';
            return false;
        }
    }
    report->ShowSummary(player.Total());
    return true;
}

}  // namespace tools
