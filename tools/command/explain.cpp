// cameraframeboost explain: from a device's log to what went wrong.

#include "tools/command/explain.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tools/account/summary.h"
#include "tools/base/finding.h"
#include "tools/base/words.h"
#include "tools/output/gzip.h"
#include "tools/output/json.h"
#include "tools/output/page.h"
#include "tools/output/text.h"
#include "tools/output/trace.h"
#include "tools/sched/scheduling.h"
#include "tools/session/made_session.h"

namespace tools {
namespace {

struct Arguments {
    std::vector<std::string> captures;
    std::string other;
    std::string trace, otherTrace;
    std::string page, tracks, csv, session, configuration;  // Files to write.
    std::string frames;                                     // To show whatever became of them.
    JudgeOptions judging;
    bool isJson = false;
    bool isFollowing = false;
    bool showsAllFrames = false;

    bool IsForDesk() const { return !session.empty() || !configuration.empty(); }
};

// What --frames asks for: the first and the last number.
std::optional<std::pair<int64_t, int64_t>> FramesOf(const Arguments& arguments) {
    const std::string_view frames = arguments.frames;
    if (frames.empty()) {
        return {};
    }
    const size_t dash = frames.find('-', 1);
    const auto first = ReadDigits<int64_t>(frames.substr(0, dash));
    const auto last =
        dash == std::string_view::npos ? first : ReadDigits<int64_t>(frames.substr(dash + 1));
    if (!first || !last || *last < *first) {
        FailUsage("--frames is " + Quoted(frames) +
                  ", expected a frame or a range such as 120-140");
    }
    return std::pair(*first, *last);
}

// A capture and what belongs to it.
struct Source {
    std::vector<std::string> captures;
    std::string trace;              // Of the scheduler, taken at the same time; empty for none.
    SessionMaker* maker = nullptr;  // Null when it is not to be played.
};

struct Explained {
    Account account;
    std::optional<Scheduling> scheduling;
};

// Hands a log to its reader, and refuses what is none.
class LogSink : public TextSink {
  public:
    explicit LogSink(CaptureReader& captureReader) : reader(captureReader) {}
    void Read(std::string_view bytes) override {
        if (isBeginning && IsTrace(bytes)) {
            throw CaptureError(
                "is a scheduler trace, which is explained with the log of the same time:\n"
                "cameraframeboost explain LOG --sched TRACE");
        }
        // Text in 16 bits has a mark in front.
        isText = isText && (!isBeginning || bytes.find('\0') == std::string_view::npos ||
                            bytes.starts_with("\xFF\xFE") || bytes.starts_with("\xFE\xFF"));
        isBeginning = false;
        reader.Read(bytes);
    }
    void End() override {
        reader.End();
        if (!isText && reader.Summary().libraryLines == linesBefore) {
            throw CaptureError(
                "is not a log but other data: a capture is logcat's text, or a bug report, also\n"
                "packed by gzip or zip [not-a-log]");
        }
    }
    bool TakeDamage(const char* reason) override { return reader.TakeDamage(reason); }

  private:
    CaptureReader& reader;
    const int64_t linesBefore = reader.Summary().libraryLines;
    bool isBeginning = true;
    bool isText = true;
};

// Ends an interrupted run: of a capture that was not read whole nothing is known to be true.
void EndIfInterrupted(const std::string& howFar) {
    if (InterruptStatus() != 0) {
        throw CommandError(howFar + ": no verdict, and no file is written", InterruptStatus());
    }
}

// Returns what messages call the file.
std::string ReadInput(TextSink& sink, const std::string& path, ProgressLine& progress) {
    const Input file(path);
    double doneMb = 0;
    double allMb = 0;
    try {
        ReadText(sink, file.Descriptor(), [&](int64_t done, int64_t all) {
            doneMb = static_cast<double>(done) / (1 << 20);
            allMb = static_cast<double>(all) / (1 << 20);
            progress.Show(done >> 20, all >> 20);
            return InterruptStatus() == 0;
        });
    } catch (const CaptureError& error) {
        throw CommandError(file.Name() + ": error: " + error.what());
    } catch (const LinesError& error) {
        throw CommandError(error.what());
    }
    if (path == "-" && InterruptStatus() != 0) {
        progress.Clear();
        std::cerr << file.Name() << ": note: interrupted: explained as a capture that ends here\n";
        ForgetInterrupt();
    }
    EndIfInterrupted(fmt::format("{}: interrupted after {:.1f} of {:.1f} MB", file.Name(), doneMb,
                                 std::max(doneMb, allMb)));
    return file.Name();
}

SchedTrace ReadTrace(const std::string& path, ProgressLine& progress) {
    TraceReader reader;
    const std::string name = ReadInput(reader, path, progress);
    SchedTrace trace = reader.Finish();
    if (trace.traceLines == 0) {
        throw CommandError(name + ": error: none of its lines is a scheduler trace's [no-lines]");
    }
    if (trace.events.empty()) {
        throw CommandError(
            name + ": error: it tells of no thread: was the event sched_switch on? [no-lines]");
    }
    return trace;
}

Explained Explain(const Source& source, const JudgeOptions& options, ProgressLine& progress) {
    FactsMaker facts;
    CountedLines counted;
    std::vector<MessageSink*> sinks = {&facts};
    if (source.maker != nullptr) {
        sinks.push_back(source.maker);
    }
    if (!source.trace.empty()) {
        sinks.push_back(&counted);
    }
    CaptureReader reader(sinks);
    std::vector<std::string> names;
    for (const std::string& capture : source.captures) {
        reader.Begin(NameOfInput(capture));
        LogSink sink(reader);
        names.push_back(ReadInput(sink, capture, progress));
    }
    reader.Finish();
    progress.Clear();
    RequireLibraryLines(reader.Summary(), names);
    if (source.trace.empty()) {
        return {MakeAccount(facts, reader.Summary(), names, options), std::nullopt};
    }
    SchedTrace trace = ReadTrace(source.trace, progress);
    progress.Clear();
    // Findings of a kind are joined when the trace has told their causes.
    JudgeOptions apart = options;
    apart.toldOneByOne = SIZE_MAX;
    Explained explained{MakeAccount(facts, reader.Summary(), names, apart), std::nullopt};
    const std::string name = NameOfInput(source.trace);
    try {
        explained.scheduling = MakeScheduling(explained.account, name, std::move(trace),
                                              counted.All(), options.toldOneByOne);
    } catch (const TieError& error) {
        throw CommandError(name + ": error: " + error.what());
    }
    return explained;
}

// What is wrong with the value of --late; CLI11's own check of a range takes nan.
std::string PeriodsError(const std::string& text) {
    double periods = 0;
    const bool isGood = CLI::detail::lexical_cast(text, periods) && periods >= 1 && periods <= 1000;
    return isGood ? "" : Quoted(text) + " is not a number from 1 to 1000";
}

// Writes the files for the desk.
void BringToDesk(const Arguments& arguments, const Account& account, SessionMaker& maker) {
    const std::optional<MadeSession> session = maker.Finish();
    const std::string& input = account.inputs.front();
    if (!session) {
        throw CommandError(input + ": error: none of the lines tells of a call");
    }
    WriteFile(arguments.session, [&session](std::ostream& file) { file << session->text; });
    if (arguments.configuration.empty()) {
        return;
    }
    if (!session->configuration) {
        throw CommandError(input +
                           ": error: the log lacks the configuration, which the library writes to\n"
                           "it when the camera's process starts");
    }
    // What the dump does not tell, and other lines do.
    Configuration loaded = *session->configuration;
    for (const LoadedConfiguration& other : account.configurations) {
        const Configuration completed = Completed(loaded, other.configuration);
        loaded = completed == other.configuration ? completed : loaded;
    }
    WriteFile(arguments.configuration, [&loaded](std::ostream& file) { file << ToToml(loaded); });
}

int RunExplain(const Arguments& arguments) {
    CatchInterrupts();
    if (arguments.isFollowing) {
        if (const std::string& file = arguments.captures.front(); file != "-") {
            FailUsage("--follow reads standard input:\ntail -f " + file +
                      " | cameraframeboost explain --follow -");
        }
        return Follow(arguments.judging);
    }
    const Shown shown = {arguments.showsAllFrames, FramesOf(arguments)};
    ProgressLine progress("MB", false);
    SessionMaker maker;
    const Explained explained =
        Explain({arguments.captures, arguments.trace, arguments.IsForDesk() ? &maker : nullptr},
                arguments.judging, progress);
    std::optional<Explained> after;
    if (!arguments.other.empty()) {
        after = Explain({{arguments.other}, arguments.otherTrace}, arguments.judging, progress);
    }
    EndIfInterrupted("cameraframeboost: interrupted");
    const Account& account = explained.account;
    const Scheduling* const scheduling = explained.scheduling ? &*explained.scheduling : nullptr;
    if (arguments.IsForDesk()) {
        BringToDesk(arguments, account, maker);
    }
    WriteFile(arguments.csv, [&](std::ostream& file) { WriteCsv(file, account, scheduling); });
    const size_t more = account.inputs.size() - 1;
    const std::string title =
        account.inputs.front() + (more == 0 ? "" : fmt::format(" and {} more", more));
    WriteFile(arguments.page,
              [&](std::ostream& file) { WritePage(file, account, title, scheduling); });
    WriteFile(arguments.tracks, [&](std::ostream& file) {
        if (!arguments.tracks.ends_with(".gz")) {
            WriteTrace(file, account, shown.range, scheduling);
            return;
        }
        std::ostringstream text;
        WriteTrace(text, account, shown.range, scheduling);
        file << Gzip(text.str());
    });

    Output out("-", arguments.isJson ? Style() : StyleOf(STDOUT_FILENO));
    if (after) {
        WriteComparison(out, account, after->account, scheduling,
                        after->scheduling ? &*after->scheduling : nullptr);
    } else if (arguments.isJson) {
        WriteJson(out, account, scheduling);
    } else {
        WriteText(out, account, shown, scheduling);
    }
    out.Close();
    const Account& last = after ? after->account : account;
    return StatusOf(WorstOf(last), last.configurations);
}

}  // namespace

int StatusOf(Severity worst, const std::vector<LoadedConfiguration>& configurations) {
    for (const LoadedConfiguration& loaded : configurations) {
        for (const Finding& finding : loaded.findings) {
            worst = std::max(worst, finding.severity);
        }
    }
    return worst == Severity::Note ? NOTHING_FOUND : FAULTS_FOUND;
}

void RequireLibraryLines(const CaptureSummary& summary, const std::vector<std::string>& names) {
    if (summary.libraryLines != 0) {
        return;
    }
    const std::string inputs = fmt::format("{}", fmt::join(names, ", "));
    if (summary.lines == 0) {
        throw CommandError(inputs + ": error: there are no lines in it [no-lines]");
    }
    throw CommandError(fmt::format(
        "{}: error: none of the {} lines is the library's. Was the property\n"
        "vendor.tarvo.camera.frameboost.debug.enable set to true before the camera's process\n"
        "was started? Does the capture have the tags cameraframeboost and\n"
        "tarvocameraframeboostutils at debug level? Was the log's buffer (adb logcat -G 16M)\n"
        "large enough to still hold them? [no-lines]",
        inputs, summary.lines));
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
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("CAPTURE", arguments->captures, "The captures; - for standard input")
        ->required()
        ->type_name("");
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
    command->callback([arguments, &run] { run = [arguments] { return RunExplain(*arguments); }; });
}

}  // namespace tools
