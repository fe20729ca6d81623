// cameraframeboost replay: shows what the boost service would be told of a camera session.

#include "tools/play/replay.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "host/desktop.h"
#include "tools/account/summary.h"
#include "tools/base/words.h"
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
    const auto status =
        ReadDigits<int32_t>(equals == std::string::npos ? "" : text.substr(equals + 1));
    if (!function || !status) {
        FailUsage("--status is " + Quoted(text) + ", expected FUNCTION=STATUS with one of " +
                  ServiceFunctionNames(", ") + ", and a number");
    }
    return {*function, *status};
}

// Hands what is written to it to a reader of captures, and to a stream if there is one.
class CaptureBuffer : public std::streambuf {
  public:
    CaptureBuffer(CaptureReader& captureReader, std::ostream* otherStream)
        : reader(captureReader), other(otherStream) {}

  protected:
    std::streamsize xsputn(const char* text, std::streamsize length) override {
        reader.Read({text, static_cast<size_t>(length)});
        if (other != nullptr) {
            other->write(text, length);
        }
        return length;
    }
    int_type overflow(int_type character) override {
        const char text = traits_type::to_char_type(character);
        xsputn(&text, 1);
        return traits_type::not_eof(character);
    }

  private:
    CaptureReader& reader;
    std::ostream* other;
};

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

    FactsMaker facts;
    CaptureReader reader({&facts});
    CaptureBuffer buffer(reader, options.log);
    std::ostream log(&buffer);
    log.exceptions(std::ios::badbit);
    if (arguments.pictures.AreWanted()) {
        reader.Begin(0);
        options.log = &log;
    }

    CatchInterrupts();
    options.pace.isInterrupted = IsInterrupted;
    ProgressLine progress("frames", !options.isQuiet);
    options.pace.onProgress = [&progress](int64_t done, int64_t all) { progress.Show(done, all); };
    const bool isPlayed =
        Replay(options, session, session.Name(), isLogShown ? nowhere : out, std::cerr);
    progress.Clear();
    if (isPlayed && arguments.pictures.AreWanted()) {
        reader.End();
        reader.Finish();
        const std::string name = logFile ? arguments.log : "the log of " + session.Name();
        const Account account = MakeAccount(facts, reader.Summary(), {name}, {});
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
    if (arguments.pictures.Frames() && !arguments.pictures.IsTraceWanted()) {
        FailUsage("--frames goes with --to-trace");
    }
    RemoveStale(arguments.pictures.Paths(), {arguments.session, arguments.configuration});
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
            MakeJsonTranscript(out, false, false)
                ->Show(Finding{"unusable", Severity::Error, error.what()}, "");
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
    command->add_option("--config", arguments->configuration,
                        "A TOML file for the configuration store instead of the built-in sample");
    command->add_option(
        "--log", arguments->log,
        "Write what the library logs, as logcat would have captured it; - takes the\n"
        "transcript's place");
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
