// cameraframeboost replay: shows what the boost service would be told of a camera session.

#include "tools/play/replay.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "tools/command/command.h"
#include "tools/session/session.h"

namespace tools {
namespace {

struct Arguments {
    ReplayOptions options;
    std::string session;
    std::string configuration;
    std::string log;
};

int RunReplay(Arguments& arguments) {
    ReplayOptions& options = arguments.options;
    Output out("-");
    const Input input(arguments.session);
    std::istringstream session(input.ReadAll());
    if (!arguments.configuration.empty()) {
        const Input file(arguments.configuration);
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

    CatchInterrupts();
    options.pace.isInterrupted = [] { return InterruptStatus() != 0; };
    ProgressLine progress("frames", !options.isQuiet);
    options.pace.onProgress = [&progress](int64_t done, int64_t all) { progress.Show(done, all); };
    const bool isPlayed =
        Replay(options, session, input.Name(), isLogShown ? nowhere : out, std::cerr);
    progress.Clear();
    out.Close();
    if (logFile && isPlayed) {
        logFile->Close();
    }
    return isPlayed ? NOTHING_FOUND : BAD_INPUT;
}

}  // namespace

void AddReplay(CLI::App& app, Run& run) {
    CLI::App* command = app.add_subcommand(
        "replay", "Plays a camera session and shows what the boost service would be told");
    command->footer(
        "\nUnder each HAL call stands what the boost service was told; !! marks a frame that was "
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
    command->add_option("--config", arguments->configuration,
                        "A TOML file for the configuration store instead of the built-in sample");
    command
        ->add_option("--log", arguments->log,
                     "Write what the library logs, as logcat would have captured it; - takes the "
                     "transcript's place")
        ->group(OUTPUTS);
    command->add_flag("--debug", options.withDebug,
                      "Debug property and trace tags on: show log lines and trace counters");
    command->add_flag("--real-time", options.pace.isRealTime,
                      "Let waits and recordings take their time");
    command->add_flag("--quiet", options.isQuiet, "Show the summary alone");
    command->callback([arguments, &run] { run = [arguments] { return RunReplay(*arguments); }; });
}

}  // namespace tools
