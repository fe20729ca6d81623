// cameraframeboost: for those who integrate the library, and look after it in the field. This is
// the command line: the subcommands' options and help, and messages about words that are neither.
// The only file that includes the parser, which takes long to compile.

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

#include "tools/base/finding.h"
#include "tools/check/check.h"
#include "tools/command/command.h"
#include "tools/command/subcommands.h"
#include "tools/output/outputs.h"
#include "tools/play/camera.h"
#include "tools/session/session.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

// The group of a subcommand's options that name files to write.
constexpr const char* OUTPUTS = "Outputs";

// Help shows of an option what stands behind its name where it is declared.
class HelpFormatter : public CLI::Formatter {
    std::string make_option_opts(const CLI::Option* option) const override {
        return option->get_option_text();
    }
};

// Declares an option: its name and what follows that in help, as in "--late PERIODS".
template <typename Value>
CLI::Option* Add(CLI::App& command, const std::string& usage, Value& value,
                 const std::string& help) {
    const size_t end = usage.find(' ');
    return command.add_option(usage.substr(0, end), value, help)
        ->option_text(end == std::string::npos ? "" : usage.substr(end));
}

// CLI11's own check of a range takes nan, and says of 59.94 that it is not between 1 and 1000.
template <typename Number>
CLI::Validator Within(Number lowest, Number highest) {
    const auto check = [lowest, highest](const std::string& text) {
        Number number{};
        const bool isGood =
            CLI::detail::lexical_cast(text, number) && number >= lowest && number <= highest;
        const char* const kind = std::is_integral_v<Number> ? "whole number" : "number";
        return isGood ? std::string()
                      : fmt::format("{} is not a {} from {} to {}", Quoted(text), kind, lowest,
                                    highest);
    };
    return CLI::Validator(check, "");
}

void AddExplain(CLI::App& app, ExplainArguments& arguments) {
    CLI::App& command = *app.add_subcommand(
        "explain", "Says what went wrong with the frames in a recording or a log, and why");
    command.footer(
        "A capture is a recording of Perfetto, a log as logcat -v threadtime writes it, or a bug "
        "report; each may be zipped. Several are read one after the other. The library logs while "
        "the property vendor.tarvo.camera.frameboost.debug.enable is true, which it reads when it "
        "is loaded.\n"
        "\nAn interrupt is the end of standard input: what was read until then is explained. "
        "While a file is read, an interrupt ends the run.\n"
        "\nExit status: 0 nothing found, 1 something found (warnings too), 2 cannot be read; with "
        "--compare, of the capture that it names.\n"
        "\nExamples:\n\n"
        "  cameraframeboost explain camera.pftrace --to-html camera.html\n"
        "  adb logcat -d | cameraframeboost explain -\n"
        "  cameraframeboost explain capture.log --sched trace.txt.gz\n"
        "  cameraframeboost explain before.log --compare after.log\n"
        "  adb logcat | cameraframeboost explain --follow -\n");
    Add(command, "CAPTURE ... (required)", arguments.captures, "The captures; - for standard input")
        ->required();
    CLI::Option* const json = command.add_flag(
        "--json", arguments.isJson, "One JSON object, times in milliseconds, instead of text");
    command.add_flag("--all", arguments.showsAllFrames, "Show all frames in the table");
    CLI::Option* const late =
        Add(command, "--late PERIODS", arguments.judging.latePeriods,
            "A frame is late when it comes out more than this many frame periods after the one "
            "before; by default 1.5")
            ->check(Within(1.0, 1000.0));
    CLI::Option* const compare = Add(command, "--compare CAPTURE", arguments.other,
                                     "Show what changed from the captures given to this one")
                                     ->excludes(json);
    Add(command, "--sched TRACE", arguments.trace,
        "A scheduler trace of the same time, which a recording has already: say for what threads "
        "waited");
    Add(command, "--compare-sched TRACE", arguments.otherTrace,
        "The scheduler trace of the capture that --compare names")
        ->needs(compare);
    Add(command, "--frames A-B", arguments.frames,
        "Show these frames in the trace, and in the table, whatever became of them; one, or a "
        "range");
    command.option_defaults()->group(OUTPUTS);
    for (size_t i = 0; i < std::size(FILE_FORMS); ++i) {
        const FileForm& form = FILE_FORMS[i];
        CLI::Option* const option =
            Add(command, form.option + std::string(" FILE"), arguments.files[i], form.help);
        if (form.isOfOne) {
            option->excludes(compare);
        }
    }
    Add(command, "--to-session FILE", arguments.session,
        "Write the HAL's calls here, as a session for replay");
    Add(command, "--to-config FILE", arguments.configuration,
        "Write the configuration here, for replay --config");
    command.option_defaults()->group("Options");
    const auto others = command.get_options(
        [late](const CLI::Option* option) { return option->nonpositional() && option != late; });
    CLI::Option* const follow =
        command.add_flag("--follow", arguments.isFollowing,
                         "Read on as the log comes, and show findings as they are found; goes with "
                         "--late alone");
    for (CLI::Option* const option : others) {
        follow->excludes(option);
    }
    // As --help does, it ends the run before anything is required.
    const auto showKinds = [] {
        WriteFile("-", WriteKinds);
        throw CLI::Success();
    };
    command.add_flag_callback("--kinds", showKinds,
                              "Show what each kind of finding means and what to do about it, as a "
                              "table in Markdown, and exit");
}

void AddReplay(CLI::App& app, ReplayArguments& arguments) {
    CLI::App& command = *app.add_subcommand(
        "replay", "Plays a camera session and shows the calls that the boost service would get");
    command.footer(
        "\nUnder each HAL call stand the calls that the boost service got; !! marks a frame that "
        "was reported as bad, and a dash an event that was refused, with the reason. A "
        "summary ends the transcript.\n\n" +
        DescribeFormat() +
        "\nFor example, two seconds of video in which the sensor drops two frames:\n\n"
        "  TcfbtSetSceneInfo true 3840 60\n"
        "  TcfbtNotifySceneStart 0x8001\n"
        "  PlayRecording 60\n"
        "  # Frames 61 and 62 never come.\n"
        "  PlayRecording 58 63\n"
        "  TcfbtNotifySceneEnd\n");
    Add(command, "SESSION (required)", arguments.session, "The session file")->required();
    Add(command, "--config FILE", arguments.configuration,
        "A TOML file for the configuration store instead of the built-in sample");
    command.add_flag("--debug", arguments.options.withDebug,
                     "Debug property and trace tags on: show log lines and trace counters");
    command.add_flag("--quiet", arguments.options.isQuiet, "Show the summary alone");
    Add(command, "--log FILE", arguments.log,
        "Write what the library logs, as logcat would have captured it; - takes the transcript's "
        "place")
        ->group(OUTPUTS);
}

void AddCheck(CLI::App& app, CheckArguments& arguments) {
    CLI::App& command = *app.add_subcommand(
        "check",
        "Says what is wrong or surprising about configurations, with what comes of it, and shows "
        "the table that the library reads");
    command.footer(
        "\nErrors: the process ends, nothing is boosted, or frames cannot complete. Warnings: not "
        "what one would expect, or for some cameras only. Notes: good to know.\n\n" +
        DescribeNodesFormat() +
        "\nExit status: 0 no errors; 1 some; 2 a file cannot be read or parsed. The worst of "
        "several files counts.");
    Add(command, "CONFIG ... (required)", arguments.configurations,
        "TOML files as the configuration store would serve them; - for standard input")
        ->required();
    Add(command, "--nodes FILE", arguments.nodes,
        "The nodes that the HAL reports, see below: which stages they end, and which not");
    command.add_flag("--json", arguments.isJson,
                     "One object with findings and table; tables for several files");
}

void AddSimulate(CLI::App& app, SimulateArguments& arguments) {
    CLI::App& command = *app.add_subcommand(
        "simulate", "Runs a virtual camera with faults of your choice and writes a device's log");
    command.footer(
        "\nA sensor hands frames to a chain of nodes, which report them to the library, in "
        "virtual time. The camera file describes them, in TOML; the built-in camera, which fits "
        "the sample configuration, is installed as cameras/video-4k60.toml to copy from. Frames "
        "and stages count from 0; frame 0 opens the pipeline, and faults are for those behind it. "
        "What can go wrong with a frame, or some in a row:\n\n" +
        DescribeFaults() +
        "\nExample: ten seconds of video in which frame 200 takes long and frame 400 is lost:\n\n"
        "  cameraframeboost simulate -o capture.log \\\n"
        "      --fault slow:200:2:40 --fault lost:400:3\n");
    Add(command, "CAMERA", arguments.camera, "The camera file; left out: the built-in camera");
    Add(command, "--frames N", arguments.frames,
        "How many frames the sensor delivers; the built-in camera's: 600")
        ->check(Within<int64_t>(1, MAX_FRAMES));
    Add(command, "--fps N", arguments.fps, "Frames per second; the built-in camera's: 60")
        ->check(Within<int64_t>(1, 1000));
    Add(command, "--seed N", arguments.seed,
        "Chooses the nodes' times; the same seed gives the same log; left out: 1")
        ->check(Within<int64_t>(0, std::numeric_limits<int64_t>::max()));
    Add(command, "--fault KIND:FRAME[:MORE]", arguments.faults,
        "What goes wrong, see below; may be repeated")
        ->expected(1)
        ->take_all();
    Add(command, "--config FILE", arguments.configuration,
        "A TOML file for the configuration store instead of the built-in sample");
    Add(command, "--form FORM", arguments.form,
        "The log's form, as logcat's -v has it: threadtime, which is the default, or time, with "
        "modifiers such as threadtime,year,usec: year, usec, nsec, zone, UTC, epoch, monotonic, "
        "uid")
        ->check([](const std::string& form) {
            return FormatOf(form) ? "" : Quoted(form) + " is not threadtime or time with modifiers";
        });
    command.option_defaults()->group(OUTPUTS);
    Add(command, "-o,--output FILE", arguments.output,
        "Where the log goes; left out: standard output")
        ->capture_default_str();
    Add(command, "--session FILE", arguments.session,
        "Write the calls here, as a session that replay plays with the same --config");
    Add(command, "--truth FILE", arguments.truth,
        "Write here, as JSON, which faults the camera had and what came of them: when each frame "
        "came out, which were late, which were boosted");
}

// What is wrong with the words that were typed for `command`.
std::string Explanation(const CLI::ParseError& error, const CLI::App& command) {
    const std::vector<std::string> unknown = command.remaining(true);
    if (!unknown.empty()) {
        const std::string& word = unknown.front();
        if (!word.starts_with('-') && command.get_parent() != nullptr) {
            return Quoted(word) + " is one argument too many";
        }
        std::vector<std::string> names;
        for (const CLI::Option* option : command.get_options()) {
            names.push_back(option->get_name());
        }
        for (const CLI::App* subcommand : command.get_subcommands({})) {
            names.push_back(subcommand->get_name());
        }
        const auto meant = Meant(word, names);
        return Quoted(word) + " is not known" + (meant ? ": did you mean " + *meant + "?" : "");
    }
    const std::string text = error.what();
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ArgumentMismatch)) {
        const std::string name = text.substr(0, text.find(':'));  // "--late: 1 required ..."
        return name + " needs a value: " + name + command.get_option(name)->get_option_text();
    }
    return CLI::detail::find_and_replace(
        CLI::detail::find_and_replace(text, " excludes ", " does not go with "), " requires ",
        " goes with ");
}

// No file that is written may be one that another option names; nor is standard input read twice,
// or standard output written by two options.
void RequireApart(const CLI::App& command) {
    std::map<fs::path, const CLI::Option*> users;
    for (const CLI::Option* option : command.get_options(
             [](const CLI::Option* any) { return any->get_items_expected_max() != 0; })) {
        const bool isOutput = option->get_group() == OUTPUTS;
        std::vector<std::string> paths = option->results();
        paths.push_back(paths.empty() ? option->get_default_str() : "");
        for (const std::string& path : paths) {
            const bool isStandard = path == "-";
            std::string name = NameOfInput(path);
            std::error_code error;
            fs::path file =
                fs::weakly_canonical(fs::absolute(isStandard ? "/dev/stdin" : path, error), error);
            if (isStandard && isOutput) {
                file = name = "standard output";
            }
            if (path.empty() || (!isStandard && fs::is_other(file, error))) {
                continue;  // A device or a pipe keeps nothing.
            }
            const auto [user, isNew] = users.try_emplace(file, option);
            if (!isNew && (isOutput || isStandard || user->second->get_group() == OUTPUTS)) {
                throw CommandError(name + ": error: " + user->second->get_name() + " and " +
                                   option->get_name() + " both use it");
            }
        }
    }
}

// Reads the command line, of which `words` are all but the name, and runs the subcommand. Returns
// an exit status.
int Run(std::vector<std::string> words) {
    CLI::App app("Shows what the camera frame boost library does, without a phone.",
                 "cameraframeboost");
    app.footer(
        "Each subcommand has a --help of its own. Files may be - for standard input or output.\n"
        "Exit status: 0 nothing found, 1 faults found, 2 bad usage or input, 130 interrupted (143 "
        "by SIGTERM).");
    app.set_version_flag("--version", "cameraframeboost " CAMERAFRAMEBOOST_VERSION);
    app.formatter(std::make_shared<HelpFormatter>());
    app.require_subcommand(1);
    ExplainArguments explain;
    ReplayArguments replay;
    CheckArguments check;
    SimulateArguments simulate;
    AddExplain(app, explain);
    AddReplay(app, replay);
    AddCheck(app, check);
    AddSimulate(app, simulate);
    for (CLI::App* command : app.get_subcommands({})) {
        Add(*command, "--color auto|always|never", colorOption,
            "Colours for severities; auto: on terminals, unless NO_COLOR is set")
            ->check(CLI::IsMember({"auto", "always", "never"}))
            ->group("Options");
    }
    if (!words.empty() && words.front() == "help") {
        words.erase(words.begin());
        words.emplace_back("--help");
    }
    try {
        app.parse(std::vector(words.rbegin(), words.rend()));
    } catch (const CLI::ParseError& error) {
        const std::vector<CLI::App*> chosen = app.get_subcommands();
        const CLI::App& command = chosen.empty() ? app : *chosen.front();
        if (error.get_exit_code() != 0 || !command.remaining().empty()) {
            FailUsage(Explanation(error, command) + "\nTry cameraframeboost " +
                      (chosen.empty() ? "" : command.get_name() + " ") + "--help.");
        }
        // Help and version come this way, too.
        std::ostringstream text;
        app.exit(error, text, std::cerr);
        Show(CLI::detail::find_and_replace(text.str(), "\n\n\n", "\n\n"), true);
        return NOTHING_FOUND;
    }
    const CLI::App* const command = app.get_subcommands().front();
    RequireApart(*command);
    if (command->get_name() == "explain") {
        return RunExplain(explain);
    }
    if (command->get_name() == "replay") {
        return RunReplay(replay);
    }
    return command->get_name() == "check" ? RunCheck(check) : RunSimulate(simulate);
}

}  // namespace
}  // namespace tools

int main(int argc, char** argv) {
    // A standard stream that is closed stays unusable: no file that is opened takes its place.
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) == -1) {
            open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
    // Whoever read has seen enough; a limit of files' sizes shows as a write that fails.
    std::signal(SIGPIPE,
                tools::Output::EndProcess);  // NOLINT(cert-err33-c): cannot fail for these.
    std::signal(SIGXFSZ, SIG_IGN);           // NOLINT(cert-err33-c)
    int status = tools::BAD_INPUT;
    try {
        status = tools::Run({argv + 1, argv + argc});
    } catch (const tools::CommandError& error) {
        tools::Complain(error.what());
    } catch (const std::exception& error) {
        tools::Complain(std::string("cameraframeboost: error: ") + error.what());
    }
    return tools::InterruptStatus() != 0 ? tools::InterruptStatus() : status;
}
