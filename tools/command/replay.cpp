// cameraframeboost replay: shows what the boost service would be told of a camera session.

#include "tools/play/replay.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/desktop.h"
#include "tools/account/accountant.h"
#include "tools/check/check.h"
#include "tools/command/command.h"
#include "tools/command/pictures.h"
#include "tools/play/transcript.h"
#include "tools/session/session.h"

namespace tools {
namespace {

struct Arguments {
    ReplayOptions options;
    std::string session;
    std::string configuration;
    std::string log;
    std::vector<std::string> statuses;
    Pictures pictures;
};

// "cfbtFrameStart=7"
std::pair<desktop::ServiceFunction, int32_t> ParseStatus(const std::string& text) {
    const size_t equals = text.find('=');
    const auto function = desktop::ServiceFunctionOf(text.substr(0, equals));
    int32_t status = 0;
    const char* end = text.data() + text.size();
    if (!function || equals == std::string::npos ||
        std::from_chars(text.data() + equals + 1, end, status).ptr != end) {
        FailUsage("--status is " + Quoted(text) + ", expected FUNCTION=STATUS with one of " +
                  ServiceFunctionNames(", ") + ", and a number");
    }
    return {*function, status};
}

// Plays to `out`, which is standard output.
bool PlayTo(Output& out, Arguments& arguments) {
    ReplayOptions& options = arguments.options;
    Input session(arguments.session);
    if (!arguments.configuration.empty()) {
        Input file(arguments.configuration);
        options.configuration = {file.Name(), file.ReadAll()};
    }
    // A capture on standard output takes the transcript's place.
    const bool isLogShown = arguments.log == "-";
    std::ostream nowhere(nullptr);
    std::optional<Output> logFile;
    if (!arguments.log.empty() && !isLogShown) {
        logFile.emplace(arguments.log);
    }
    options.log = isLogShown ? &out : logFile ? &*logFile : nullptr;

    Accountant accountant;
    options.steps = arguments.pictures.AreWanted() ? &accountant : nullptr;

    CatchInterrupts();
    options.pace.isInterrupted = IsInterrupted;
    ProgressLine progress("frames", !options.isQuiet);
    options.pace.onProgress = [&progress](int64_t done, int64_t all) { progress.Show(done, all); };
    const bool isPlayed =
        Replay(options, session, session.Name(), isLogShown ? nowhere : out, std::cerr);
    progress.Clear();
    if (isPlayed && arguments.pictures.AreWanted()) {
        Account account = accountant.Finish();
        account.inputs = {session.Name()};
        account.hasTimes = true;
        if (options.configuration) {
            account.inputs.push_back(options.configuration->name);
            account.configurationFindings =
                CheckConfiguration(options.configuration->text).findings;
            for (Finding& finding : account.configurationFindings) {
                finding.place.input = 1;
            }
        }
        arguments.pictures.Write(account, session.Name());
    }
    if (logFile) {
        logFile->Close();
    }
    return isPlayed;
}

int RunReplay(Arguments& arguments) {
    for (const std::string& status : arguments.statuses) {
        arguments.options.statuses.push_back(ParseStatus(status));
    }
    if (arguments.pictures.Frames() && !arguments.pictures.AreWanted()) {
        FailUsage("--frames goes with --to-html");
    }
    Output out("-");
    bool isPlayed = false;
    try {
        isPlayed = PlayTo(out, arguments);
    } catch (const CommandError& error) {
        if (!out) {
            throw;
        }
        std::cerr << error.what() << '\n';
        if (arguments.options.isJson) {
            Finding finding;
            finding.check = "unusable";
            finding.severity = Severity::Error;
            finding.message = error.what();
            MakeJsonTranscript(out, false, false)->Show(finding, "");
        }
    }
    out.Close();
    return isPlayed ? NOTHING_FOUND : BAD_INPUT;
}

}  // namespace

void AddReplay(CLI::App& app, Run& run) {
    CLI::App* command = app.add_subcommand(
        "replay", "Plays a camera session and shows what the boost service would be told");
    command->footer(
        "\nUnder each HAL call stands what the boost service was told; !! marks a frame that was\n"
        "reported as bad, and a dash what was refused, and why. A summary ends it.\n\n" +
        DescribeFormat() +
        "\nFor example, two seconds of video in which the sensor drops two frames:\n\n"
        "  TcfbtSetSceneInfo true 3840 60\n"
        "  TcfbtNotifySceneStart 0x8001\n"
        "  PlayRecording 60\n"
        "  # Frames 61 and 62 never come.\n"
        "  PlayRecording 58 63\n"
        "  TcfbtNotifySceneEnd\n"
        "\nExit status: 0 played, 2 the session or the configuration cannot be, 130 interrupted.");
    // Lives as long as the command that refers to it.
    const auto arguments = std::make_shared<Arguments>();
    ReplayOptions& options = arguments->options;
    command->add_option("SESSION", arguments->session, "The session file")
        ->required()
        ->type_name("");
    command
        ->add_option("--config", arguments->configuration,
                     "A TOML file for the configuration store instead of the built-in sample")
        ->type_name("FILE");
    command
        ->add_option("--log", arguments->log,
                     "Write what the library logs, as logcat would have captured it; - takes the\n"
                     "transcript's place")
        ->type_name("FILE");
    arguments->pictures.AddOptions(*command);
    command->add_flag("--debug", options.withDebug,
                      "Debug property and trace tags on: show log lines and trace counters");
    command
        ->add_option("--status", arguments->statuses,
                     "What a service function answers, such as cfbtFrameStart=7; may be repeated")
        ->type_name("FUNCTION=STATUS")
        ->expected(1)
        ->take_all();
    command->add_flag("--real-time", options.pace.isRealTime,
                      "Let waits and recordings take their time");
    command->add_flag("--quiet", options.isQuiet, "Show the summary alone");
    command->add_flag("--json", options.isJson,
                      "Show JSON objects, one a line; times in milliseconds from the beginning");
    command->callback([arguments, &run] { run = [arguments] { return RunReplay(*arguments); }; });
}

}  // namespace tools
