// cameraframeboost explain: from a device's log to what went wrong.

#include "tools/command/explain.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <sstream>
#include <utility>

#include "tools/account/account.h"
#include "tools/account/reader.h"
#include "tools/base/finding.h"
#include "tools/base/words.h"
#include "tools/command/subcommands.h"
#include "tools/output/outputs.h"
#include "tools/sched/ftrace.h"
#include "tools/sched/scheduling.h"
#include "tools/session/made_session.h"

namespace tools {
namespace {

// What --frames asks for: the first and the last number.
std::optional<std::pair<int64_t, int64_t>> FramesOf(const ExplainArguments& arguments) {
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
        if (isBeginning && IsFtrace(bytes)) {
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

// Ends an interrupted run: what a part of a capture shows may be wrong of the whole.
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
        Complain(file.Name() + ": note: interrupted: explained as a capture that ends here");
        ForgetInterrupt();
    }
    EndIfInterrupted(fmt::format("{}: interrupted after {:.1f} of {:.1f} MB", file.Name(), doneMb,
                                 std::max(doneMb, allMb)));
    return file.Name();
}

SchedTrace ReadTrace(const std::string& path, ProgressLine& progress) {
    FtraceReader reader;
    const std::string name = ReadInput(reader, path, progress);
    SchedTrace trace = reader.Finish();
    if (trace.IsEmpty()) {
        throw CommandError(name + ": error: none of its lines is a scheduler trace's [no-lines]");
    }
    if (trace.events.empty()) {
        throw CommandError(
            name +
            ": error: it has no switch of threads: was the event sched_switch on? [no-lines]");
    }
    return trace;
}

Explained Explain(const Source& source, const JudgeOptions& options, ProgressLine& progress) {
    SceneReader scenes;
    CountedLines counted;
    std::vector<MessageSink*> sinks = {&scenes};
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
    Explained explained{
        Judge(scenes.Finish(reader.Summary().last), reader.Summary(), names, options),
        std::nullopt};
    if (!source.trace.empty()) {
        SchedTrace trace = ReadTrace(source.trace, progress);
        progress.Clear();
        const std::string name = NameOfInput(source.trace);
        try {
            explained.scheduling =
                MakeScheduling(explained.account, name, std::move(trace), counted);
        } catch (const TieError& error) {
            throw CommandError(name + ": error: " + error.what());
        }
    }
    MakeFindings(explained.account, options);
    return explained;
}

// Writes the files for the desk.
void BringToDesk(const ExplainArguments& arguments, const Account& account, SessionMaker& maker) {
    const std::optional<MadeSession> session = maker.Finish();
    const std::string& input = account.inputs.front();
    if (!session) {
        throw CommandError(input + ": error: none of the lines comes of a call");
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
    // What the dump lacks, and other lines show.
    Configuration loaded = *session->configuration;
    for (const LoadedConfiguration& other : account.configurations) {
        const Configuration completed = Completed(loaded, other.configuration);
        loaded = completed == other.configuration ? completed : loaded;
    }
    WriteFile(arguments.configuration, [&loaded](std::ostream& file) { file << ToToml(loaded); });
}

}  // namespace

int RunExplain(const ExplainArguments& arguments) {
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

}  // namespace tools
