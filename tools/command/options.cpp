// The command line: the subcommands' options and help, and what is wrong with words that fit none.
// The only file that includes the parser, which takes long to compile.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "tools/base/finding.h"
#include "tools/base/words.h"
#include "tools/check/nodes.h"
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

// The subcommand that was asked for, with its arguments.
using Run = std::function<int()>;

// What is wrong with the value of --late; CLI11's own check of a range takes nan.
std::string PeriodsError(const std::string& text) {
    double periods = 0;
    const bool isGood = CLI::detail::lexical_cast(text, periods) && periods >= 1 && periods <= 1000;
    return isGood ? "" : Quoted(text) + " is not a number from 1 to 1000";
}

// Of which CLI11 would say "Value 59.94 not in range".
CLI::Validator WholeNumber(int64_t lowest, int64_t highest) {
    const auto check = [lowest, highest](const std::string& text) {
        const auto number = ReadDigits<int64_t>(text);
        const bool isGood = number && *number >= lowest && *number <= highest;
        return isGood ? std::string()
                      : Quoted(text) + " is not a whole number from " + std::to_string(lowest) +
                            " to " + std::to_string(highest);
    };
    return CLI::Validator(check, "");
}

void AddExplain(CLI::App& app, Run& run) {
    CLI::App* command = app.add_subcommand(
        "explain", "Says what went wrong with the frames of a device's log, and why");
    command->footer(
        "A capture is what logcat -v threadtime writes, or a bug report, zipped or not; several "
        "are read one after the other. The library logs while the property "
        "vendor.tarvo.camera.frameboost.debug.enable is true, which it reads when it is loaded.\n"
        "\nAn interrupt is the end of standard input, of which all is explained that came. While "
        "a file is read it ends the run.\n"
        "\nExit status: 0 nothing found, 1 something found (warnings too), 2 cannot be read; with "
        "--compare, of the capture that it names.\n"
        "\nExamples:\n\n"
        "  adb logcat -d | cameraframeboost explain -\n"
        "  cameraframeboost explain capture.log --to-html capture.html\n"
        "  cameraframeboost explain capture.log --sched trace.txt.gz\n"
        "  cameraframeboost explain before.log --compare after.log\n"
        "  adb logcat | cameraframeboost explain --follow -\n");
    // Lives as long as the command that refers to it.
    const auto arguments = std::make_shared<ExplainArguments>();
    command->add_option("CAPTURE", arguments->captures, "The captures; - for standard input")
        ->required();
    CLI::Option* json = command->add_flag(
        "--json", arguments->isJson, "One JSON object, times in milliseconds, instead of text");
    command->add_flag("--all", arguments->showsAllFrames, "Show all frames in the table");
    command
        ->add_option("--late", arguments->judging.latePeriods,
                     "A frame is late when it comes out more than this many frame periods after "
                     "the one before; by default 1.5")
        ->check(PeriodsError)
        ->type_name("PERIODS");
    CLI::Option* compare = command
                               ->add_option("--compare", arguments->other,
                                            "Show what changed from the captures given to this one")
                               ->excludes(json)
                               ->type_name("CAPTURE");
    command
        ->add_option("--sched", arguments->trace,
                     "A scheduler trace of the same time: say what threads waited for")
        ->type_name("TRACE");
    command
        ->add_option("--compare-sched", arguments->otherTrace,
                     "That of the capture that --compare names")
        ->needs(compare)
        ->type_name("TRACE");
    command
        ->add_option("--frames", arguments->frames,
                     "Show these frames in the trace, and in the table, whatever became of them; "
                     "one, or a range")
        ->type_name("A-B");
    command->option_defaults()->group(OUTPUTS);
    command->add_option("--to-csv", arguments->csv, "Write a row a frame here");
    // A page and a trace show one capture, and a comparison has two.
    command
        ->add_option("--to-html", arguments->page,
                     "Write a page for a browser: findings, figures and frames, in one file")
        ->excludes(compare);
    command
        ->add_option("--to-trace", arguments->tracks,
                     "Write a trace for ui.perfetto.dev, in Chrome's JSON form; as gzip where FILE "
                     "ends in .gz")
        ->excludes(compare);
    command->add_option("--to-session", arguments->session,
                        "Write the HAL's calls here, as a session for replay");
    command->add_option("--to-config", arguments->configuration,
                        "Write the configuration here, for replay --config");
    command->option_defaults()->group("Options");
    CLI::Option* follow =
        command->add_flag("--follow", arguments->isFollowing,
                          "Read on as the log comes, show findings as they are found; goes with "
                          "--late alone");
    for (CLI::Option* option : command->get_options()) {
        if (!option->get_positional() && option->get_name() != "--late" && option != follow &&
            option != command->get_help_ptr()) {
            follow->excludes(option);
        }
    }
    // As --help does, it ends the run before anything is required.
    const auto showKinds = [] {
        Output out("-");
        WriteKinds(out);
        out.Close();
        throw CLI::Success();
    };
    command->add_flag_callback("--kinds", showKinds,
                               "Show what each kind of finding means and what to do about it, as a "
                               "table in Markdown, and exit");
    command->callback([arguments, &run] { run = [arguments] { return RunExplain(*arguments); }; });
}

void AddReplay(CLI::App& app, Run& run) {
    CLI::App* command = app.add_subcommand(
        "replay", "Plays a camera session and shows the calls that the boost service would get");
    command->footer(
        "\nUnder each HAL call stand the calls that the boost service got; !! marks a frame that "
        "was "
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
    const auto arguments = std::make_shared<ReplayArguments>();
    ReplayOptions& options = arguments->options;
    command->add_option("SESSION", arguments->session, "The session file")->required();
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

void AddCheck(CLI::App& app, Run& run) {
    CLI::App* command = app.add_subcommand(
        "check",
        "Says what is wrong or surprising about configurations, with what comes of it, and shows "
        "the table that the library reads");
    command->footer(
        "\nErrors: the process ends, nothing is boosted, or frames cannot complete. Warnings: not "
        "what one would expect, or for some cameras only. Notes: good to know.\n"
        "\n" +
        DescribeNodesFormat() +
        "\nExit status: 0 no errors; 1 some; 2 a file cannot be read or parsed. The worst of "
        "several files counts.");
    // Lives as long as the command that refers to it.
    const auto arguments = std::make_shared<CheckArguments>();
    command
        ->add_option("CONFIG", arguments->configurations,
                     "TOML files as the configuration store would serve them; - for standard input")
        ->required();
    command->add_option(
        "--nodes", arguments->nodes,
        "The nodes that the HAL reports, see below: which stages they end, and which not");
    command->add_flag("--json", arguments->isJson,
                      "One object with findings and table; tables for several files");
    command->callback([arguments, &run] { run = [arguments] { return RunCheck(*arguments); }; });
}

void AddSimulate(CLI::App& app, Run& run) {
    CLI::App* command = app.add_subcommand(
        "simulate", "Runs a virtual camera with faults of your choice and writes a device's log");
    command->footer(
        "\nA sensor hands frames to a chain of nodes, which report them to the library, in "
        "virtual time. The camera file describes them, in TOML; the built-in camera, which fits "
        "the sample configuration, is installed as cameras/video-4k60.toml to copy from. Frames "
        "and stages count from 0; frame 0 opens the pipeline, and faults are for those behind it. "
        "What can go wrong with a frame:\n\n" +
        DescribeFaults() +
        "\nExample: ten seconds of video in which frame 200 takes long and frame 400 is lost:\n\n"
        "  cameraframeboost simulate -o capture.log \\\n"
        "      --fault slow:200:2:40 --fault lost:400:3\n");
    // Lives as long as the command that refers to it.
    const auto arguments = std::make_shared<SimulateArguments>();
    command->add_option("CAMERA", arguments->camera,
                        "The camera file; left out: the built-in camera");
    command
        ->add_option("--frames", arguments->frames,
                     "How many frames the sensor delivers; the built-in camera's: 600")
        ->check(WholeNumber(1, MAX_FRAMES));
    command->add_option("--fps", arguments->fps, "Frames per second; the built-in camera's: 60")
        ->check(WholeNumber(1, 1000));
    command
        ->add_option("--seed", arguments->seed,
                     "Chooses the nodes' times; the same seed gives the same log; else 1")
        ->check(WholeNumber(0, std::numeric_limits<int64_t>::max()));
    command->add_option("--fault", arguments->faults, "What goes wrong, see below; may be repeated")
        ->type_name("KIND:FRAME[:MORE]")
        ->expected(1)
        ->take_all();
    command->add_option("--config", arguments->configuration,
                        "A TOML file for the configuration store instead of the built-in sample");
    command
        ->add_option("--form", arguments->form,
                     "The log's form, as logcat's -v has it: threadtime, which is the default, or "
                     "time, with modifiers such as threadtime,year,usec: year, usec, nsec, zone, "
                     "UTC, epoch, monotonic, uid")
        ->type_name("FORM");
    command->option_defaults()->group(OUTPUTS);
    command->add_option("-o,--output", arguments->output,
                        "Where the log goes; left out: standard output");
    command->add_option(
        "--session", arguments->session,
        "Writes the calls here, as a session that replay plays with the same --config");
    command->add_option("--truth", arguments->truth,
                        "Writes here, as JSON, what was injected and what came of it: when each "
                        "frame came out, what was late, what was boosted");
    command->callback([arguments, &run] { run = [arguments] { return RunSimulate(*arguments); }; });
}

// ": did you mean explain?", where one of the known words is near.
std::string Suggestion(std::string_view typed, const std::vector<std::string>& known) {
    const std::vector<std::string_view> views(known.begin(), known.end());
    const auto meant = Meant(typed, views);
    return meant ? ": did you mean " + std::string(*meant) + "?" : "";
}

void RequireSubcommand(const CLI::App& app, const std::vector<std::string>& words) {
    std::vector<std::string> names;
    for (const CLI::App* subcommand : app.get_subcommands({})) {
        names.push_back(subcommand->get_name());
    }
    const std::string expected = "one of " + CLI::detail::join(names, ", ") + " is expected";
    if (words.empty()) {
        FailUsage(expected + "; see --help");
    }
    const std::string& name = words.front();
    if (!name.starts_with('-') && std::find(names.begin(), names.end(), name) == names.end()) {
        const std::string meant = Suggestion(name, names);
        FailUsage("there is no subcommand " + Quoted(name) +
                  (meant.empty() ? ": " + expected : meant));
    }
}

// How help shows what follows an option's name; paths and numbers have no type name of their own.
std::string FormOf(const CLI::Option& option) {
    const std::map<std::string, std::string> names = {
        {"TEXT", "FILE"}, {"INT", "N"}, {"UINT", "N"}};
    const std::string type = option.get_type_name();
    const auto name = names.find(type);
    std::string form;
    if (!type.empty() && !option.get_positional()) {
        form = " " + (name == names.end() ? type : name->second);
    }
    return form + (option.get_expected_max() > 1 ? " ..." : "") +
           (option.get_required() ? " (required)" : "");
}

class HelpFormatter : public CLI::Formatter {
    std::string make_option_opts(const CLI::Option* option) const override {
        return FormOf(*option);
    }
};

// What is wrong with the words that were typed.
std::string Explanation(const CLI::ParseError& error, const CLI::App& app,
                        const CLI::App& command) {
    for (const std::string& word : app.remaining(true)) {
        if (!word.starts_with('-')) {
            return Quoted(word) + " is one argument too many";
        }
        std::vector<std::string> names;
        for (const CLI::Option* option : command.get_options()) {
            names.push_back(option->get_name());
        }
        return "there is no option " + Printable(word) + Suggestion(word, names);
    }
    std::string text = error.what();
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ArgumentMismatch)) {
        const std::string name = text.substr(0, text.find(':'));  // "--late: 1 required ..."
        const CLI::Option* const option = command.get_option_no_throw(name);
        return name + " needs a value" + (option == nullptr ? "" : ": " + name + FormOf(*option));
    }
    text = CLI::detail::find_and_replace(text, " excludes ", " does not go with ");
    return CLI::detail::find_and_replace(text, " requires ", " goes with ");
}

// No file that is written may be one that another option names; nor is standard input read twice.
void RequireApart(const CLI::App& command) {
    std::map<fs::path, const CLI::Option*> users;
    for (const CLI::Option* option : command.get_options(
             [](const CLI::Option* any) { return any->get_items_expected_max() != 0; })) {
        const bool isOutput = option->get_group() == OUTPUTS;
        for (const std::string& path : option->results()) {
            std::error_code error;
            const fs::path file =
                fs::weakly_canonical(fs::absolute(path == "-" ? "/dev/stdin" : path, error), error);
            if (path == "-" ? isOutput : fs::is_other(file, error)) {
                continue;  // A device or a pipe keeps nothing.
            }
            const auto [user, isNew] = users.try_emplace(file, option);
            if (!isNew && (isOutput || path == "-" || user->second->get_group() == OUTPUTS)) {
                throw CommandError(NameOfInput(path) + ": error: " + user->second->get_name() +
                                   " and " + option->get_name() + " both use it");
            }
        }
    }
}

}  // namespace

int RunCommand(std::vector<std::string> words) {
    CLI::App app("Shows what the camera frame boost library does, without a phone.",
                 "cameraframeboost");
    app.footer(
        "Each subcommand has a --help of its own. Files may be - for standard input or output.\n"
        "Exit status: 0 nothing found, 1 faults found, 2 bad usage or input, 130 interrupted (143 "
        "by SIGTERM).");
    app.set_version_flag("--version", "cameraframeboost " CAMERAFRAMEBOOST_VERSION);
    app.formatter(std::make_shared<HelpFormatter>());
    app.require_subcommand(1);
    Run run;
    AddExplain(app, run);
    AddReplay(app, run);
    AddCheck(app, run);
    AddSimulate(app, run);
    for (CLI::App* command : app.get_subcommands({})) {
        command
            ->add_option("--color", ColorOption(),
                         "Colours for severities; auto: on terminals, unless NO_COLOR is set")
            ->check(CLI::IsMember({"auto", "always", "never"}).description(""))
            ->type_name("auto|always|never")
            ->group("Options");
    }
    if (!words.empty() && words.front() == "help") {
        words.erase(words.begin());
        words.emplace_back("--help");
    }
    RequireSubcommand(app, words);
    try {
        app.parse(std::vector(words.rbegin(), words.rend()));
    } catch (const CLI::ParseError& error) {
        const std::vector<CLI::App*> chosen = app.get_subcommands();
        const CLI::App& command = chosen.empty() ? app : *chosen.front();
        if (error.get_exit_code() != 0) {
            FailUsage(Explanation(error, app, command) + "\nTry cameraframeboost " +
                      (chosen.empty() ? "" : command.get_name() + " ") + "--help.");
        }
        // Help and version come this way, too.
        std::ostringstream text;
        app.exit(error, text, std::cerr);
        Output out("-");
        out << StyledHelp(text.str());
        out.Close();
        return NOTHING_FOUND;
    }
    RequireApart(*app.get_subcommands().front());
    const int status = run();
    return InterruptStatus() != 0 ? InterruptStatus() : status;
}

}  // namespace tools
