// cameraframeboost explain: from a device's log to what went wrong.

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <sstream>
#include <utility>

#include "tools/account/account.h"
#include "tools/account/reader.h"
#include "tools/base/cursor.h"
#include "tools/base/finding.h"
#include "tools/command/command.h"
#include "tools/command/subcommands.h"
#include "tools/output/outputs.h"
#include "tools/sched/scheduling.h"
#include "tools/sched/trace.h"
#include "tools/session/made_session.h"

namespace tools {
namespace {

// What --frames asks for: the first and the last number.
std::optional<std::pair<int64_t, int64_t>> RangeOf(const std::string& frames) {
    if (frames.empty()) {
        return {};
    }
    std::string_view rest = frames;
    std::pair<int64_t, int64_t> range;
    const bool hasFirst = TakeNumber(rest, range.first);
    range.second = range.first;
    const bool hasLast = rest.empty() || (Skip(rest, "-") && TakeNumber(rest, range.second));
    if (!hasFirst || !hasLast || !rest.empty() || range.second < range.first) {
        FailUsage("--frames is " + Quoted(frames) +
                  ", expected a frame or a range such as 120-140");
    }
    return range;
}

// Ends an interrupted run: what a part of a capture shows may be wrong of the whole.
void EndIfInterrupted(const std::string& howFar) {
    if (InterruptStatus() != 0) {
        throw CommandError(howFar + ": no verdict, and no file is written");
    }
}

void ReadInput(TextSink& sink, const std::string& path) {
    const Input file(path);
    std::string howFar = "0 MB";
    ReadText(sink, file.name, file.descriptor, [&howFar](int64_t done, int64_t all) {
        constexpr double MB = 1 << 20;
        howFar = fmt::format("{:.1f} MB", static_cast<double>(done) / MB);
        howFar += all == 0 ? "" : fmt::format(" of {:.1f} MB", static_cast<double>(all) / MB);
        ShowProgress(howFar);
        return InterruptStatus() == 0;
    });
    ClearProgress();
    if (path == "-" && InterruptStatus() != 0) {
        Complain(file.name + ": note: interrupted: explained as a capture that ends here");
        ForgetInterrupt();
    }
    EndIfInterrupted(file.name + ": interrupted after " + howFar);
}

// Writes what it reads, unpacked.
class Copier : public TextSink {
  public:
    explicit Copier(std::ostream& stream) : out(stream) {}
    void Read(std::string_view bytes) override { out << bytes; }

  private:
    std::ostream& out;
};

// `trace`: of the scheduler, taken at the same time as the captures; empty for none. `sinks` get
// the captures' messages, too.
Explained Explain(const std::vector<std::string>& captures, const std::string& trace,
                  std::vector<MessageSink*> sinks, const JudgeOptions& options) {
    SceneReader scenes;
    CountedLines counted;
    counted.isOn = !trace.empty();
    sinks.insert(sinks.end(), {&scenes, &counted});
    CaptureReader reader(sinks);
    SchedReader scheduler;
    const bool isAlone = captures.size() == 1;
    if (isAlone && trace.empty()) {
        reader.SetPacketSink([&](std::string_view packet) {
            scheduler.TakePacket(packet);
            counted.isOn = true;
        });
    }
    std::vector<std::string> names;
    for (const std::string& capture : captures) {
        const int64_t before = reader.Summary().libraryLines;
        names.push_back(NameOfInput(capture));
        reader.Begin(names.back());
        ReadInput(reader, capture);
        if (!isAlone && reader.Summary().libraryLines == before) {
            Complain(names.back() +
                     ": warning: none of its lines is the library's; a scheduler "
                     "trace goes with --sched");
        }
    }
    reader.Finish();
    RequireLibraryLines(reader.Summary(), names);
    Explained explained{
        Judge(scenes.Finish(reader.Summary().last), reader.Summary(), names, options)};
    if (const std::optional<Micros> ahead = reader.Summary().ahead; isAlone && ahead) {
        explained.clocks = {{0, *ahead}};
    }
    const bool isRecorded = trace.empty();
    if (!isRecorded) {
        ReadInput(scheduler, trace);
    }
    SchedTrace read = scheduler.Finish();
    read.name = isRecorded ? names.front() : NameOfInput(trace);
    if (read.events.empty() && !isRecorded) {
        throw CommandError(fmt::format(
            "{}: error: there is no switch of threads in it{}:\n"
            "is it a scheduler trace, and was the event sched_switch on? [no-lines]",
            read.name, read.damage.empty() ? "" : ", as far as it can be read: " + read.damage));
    }
    const bool isTied = !isRecorded || !explained.clocks.empty() || !read.counters.empty();
    if (!read.events.empty() && !isTied) {
        Complain(read.name +
                 ": warning: what threads did is not known: it has no counters of the library's, "
                 "and no\nsnapshots of its clocks, or the log's clock was set between them");
    } else if (!read.events.empty()) {
        explained.scheduling = std::make_unique<Scheduling>(
            MakeScheduling(explained.account, std::move(read), counted, explained.clocks));
        if (isRecorded) {
            explained.clocks = explained.scheduling->tie.knots;
        }
    }
    MakeFindings(explained.account, options);
    return explained;
}

// Writes the files for the desk.
void BringToDesk(const ExplainArguments& arguments, const Account& account, SessionMaker& maker) {
    const std::optional<MadeSession> session = maker.Finish();
    const std::string failure = account.inputs.front() + ": error: ";
    if (!session) {
        throw CommandError(failure + "no line of it comes from a call of the HAL");
    }
    WriteFile(arguments.session, [&session](std::ostream& file) { file << session->text; });
    if (arguments.configuration.empty()) {
        return;
    }
    if (!session->configuration) {
        throw CommandError(failure +
                           "the log lacks the configuration, which the library writes to\n"
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
    Shown shown = {arguments.showsAllFrames, RangeOf(arguments.frames)};
    SessionMaker maker;
    std::vector<MessageSink*> sinks;
    if (!arguments.session.empty() || !arguments.configuration.empty()) {
        sinks = {&maker};
    }
    Explained explained = Explain(arguments.captures, arguments.trace, sinks, arguments.judging);
    explained.shown = shown;
    const Account& account = explained.account;
    std::optional<Explained> after;
    if (!arguments.other.empty()) {
        after = Explain({arguments.other}, arguments.otherTrace, {}, arguments.judging);
    }
    EndIfInterrupted("cameraframeboost: interrupted");

    if (!sinks.empty()) {
        BringToDesk(arguments, account, maker);
    }
    for (size_t i = 0; i < std::size(FILE_FORMS); ++i) {
        WriteFile(arguments.files[i], [&](std::ostream& file) {
            if (FILE_FORMS[i].write == WriteTrace && !explained.clocks.empty()) {
                if (arguments.captures.front() == "-") {
                    throw CommandError(
                        "standard input: error: for --to-trace a recording is read twice: give a "
                        "file");
                }
                Copier copier(file);
                ReadInput(copier, arguments.captures.front());
            }
            FILE_FORMS[i].write(file, explained);
        });
    }
    if (arguments.isJson) {
        WriteFile("-", [&](std::ostream& out) { WriteJson(out, explained); });
    } else {
        std::ostringstream text;
        if (after) {
            WriteComparison(text, explained, *after);
        } else {
            WriteText(text, explained);
        }
        Show(text.str());
    }
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
    if (summary.libraryLines == 0) {
        throw CommandError(fmt::format(
            "{}: error: none of the {} lines is the library's{}.\n"
            "Is it a log, a bug report, or a recording that has the data source android.log? Was "
            "the\n"
            "property vendor.tarvo.camera.frameboost.debug.enable set to true before the camera's\n"
            "process was started? Does the capture have the tags cameraframeboost and\n"
            "tarvocameraframeboostutils at debug level? scripts/record-phone sees to all that. "
            "Was\n"
            "the log's buffer (adb logcat -G 16M) large enough to still hold them? A scheduler "
            "trace\n"
            "goes with its log: explain LOG --sched TRACE. [no-lines]",
            fmt::join(names, ", "), summary.lines,
            summary.damage.empty() ? "" : ", as far as it can be read: " + summary.damage));
    }
}

}  // namespace tools
