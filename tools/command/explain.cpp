// cameraframeboost explain: from a device's log to what went wrong.

#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/account/accountant.h"
#include "tools/log/capture.h"
#include "tools/capture/verify.h"
#include "tools/command/command.h"
#include "tools/command/pictures.h"
#include "tools/output/json.h"
#include "tools/output/text.h"

namespace tools {
namespace {

struct Arguments {
    std::vector<std::string> captures;
    std::string other;
    std::string csv, session, configuration;
    Pictures pictures;
    double latePeriods = AccountOptions().latePeriods;
    bool isJson = false;
    bool isFollowing = false;
    bool showsAllFrames = false;
    bool isVerifying = false;

    bool IsForDesk() const { return isVerifying || !session.empty() || !configuration.empty(); }
};

// What it takes to play a capture on the desk.
struct Desk {
    SessionMaker maker;
    CapturedMessages messages;
};

class Tee : public StepSink {
  public:
    Tee(StepSink& firstSink, StepSink* secondSink) : first(firstSink), second(secondSink) {}
    void OnStep(const Step& step) override {
        first.OnStep(step);
        if (second != nullptr) {
            second->OnStep(step);
        }
    }
    void OnDisturbance(const Disturbance& disturbance) override {
        first.OnDisturbance(disturbance);
        if (second != nullptr) {
            second->OnDisturbance(disturbance);
        }
    }

  private:
    StepSink& first;
    StepSink* second;
};

// What steps do not tell: the inputs, and what was read of them.
void Complete(Account& account, const std::vector<std::string>& paths,
              const CaptureSummary& summary) {
    for (const std::string& path : paths) {
        account.inputs.push_back(NameOfInput(path));
    }
    if (summary.libraryLines == 0) {
        std::string names;
        for (const std::string& input : account.inputs) {
            names += (names.empty() ? "" : ", ") + input;
        }
        if (summary.lines == 0) {
            throw CommandError(names + ": error: there are no lines in it [no-lines]");
        }
        throw CommandError(
            names + ": error: none of the " + std::to_string(summary.lines) +
            " lines is the library's. Was the property\n"
            "vendor.tarvo.camera.frameboost.debug.enable set to true before the camera's process\n"
            "was started? Does the capture have the tags cameraframeboost and\n"
            "tarvocameraframeboostutils at debug level? Was the log's buffer (adb logcat -G 16M)\n"
            "large enough to still hold them? [no-lines]");
    }
    account.from = summary.from;
    account.to = summary.to;
    account.lines = summary.lines;
    account.libraryLines = summary.libraryLines;
    account.notUnderstood = summary.notUnderstood;
    account.lost = summary.lost;
    if (!summary.damage.empty()) {
        AccountedFinding finding;
        finding.check = "lines-lost";
        finding.severity = Severity::Warning;
        finding.message =
            "the zip cannot be read to its end, what follows is missing: " + summary.damage;
        account.findings.push_back(std::move(finding));
    }
    if (summary.notUnderstood > 0) {
        AccountedFinding finding;
        finding.check = "not-understood";
        // Where a capture begins and where it ends, a line may be only half there.
        const auto isAtEdge = [&](const NotUnderstood& line) {
            return line.place.line == 1 || (paths.size() == 1 && line.place.line == summary.lines);
        };
        const auto& shown = summary.firstNotUnderstood;
        finding.severity = static_cast<size_t>(summary.notUnderstood) == shown.size() &&
                                   std::all_of(shown.begin(), shown.end(), isAtEdge)
                               ? Severity::Note
                               : Severity::Warning;
        finding.times = summary.notUnderstood;
        finding.message = std::to_string(summary.notUnderstood) +
                          (summary.notUnderstood == 1 ? " line of the library's was"
                                                      : " lines of the library's were") +
                          " not understood:";
        for (const NotUnderstood& line : shown) {
            finding.message += "\n    line " + std::to_string(line.place.line) + ": " + line.text;
        }
        if (!shown.empty()) {
            finding.place = shown.front().place;
        }
        account.findings.push_back(std::move(finding));
    }
    if (account.configuration) {
        if (!account.configuration->stageCount) {
            account.configuration->stageCount = summary.stageCount;
        }
        if (!account.configuration->additionalWidth) {
            account.configuration->additionalWidth = summary.additionalWidth;
        }
        for (Finding& finding : CheckConfiguration(ToToml(*account.configuration)).findings) {
            finding.place = {};  // Of a text that nobody has.
            account.configurationFindings.push_back(std::move(finding));
        }
    }
}

// `desk`: null when the capture is not to be played.
Account Explain(const std::vector<std::string>& paths, double latePeriods, ProgressLine& progress,
                Desk* desk = nullptr, bool isVerifying = false) {
    AccountOptions options;
    options.latePeriods = latePeriods;
    Accountant accountant(options);
    Tee tee(accountant, desk == nullptr ? nullptr : &desk->maker);
    CaptureReader reader(tee);
    if (isVerifying) {
        reader.SetListener(
            [desk](const Message& message, std::string_view text, const Moment& moment) {
                desk->messages.Add(message, text, moment);
            });
    }
    for (size_t i = 0; i < paths.size() && !IsInterrupted(); ++i) {
        Protect(paths[i]);
        try {
            ReadCapture(reader, static_cast<uint32_t>(i), paths[i],
                        [&progress](int64_t done, int64_t all) {
                            progress.Show(done >> 20, all >> 20);
                            return !IsInterrupted();
                        });
        } catch (const CaptureError& error) {
            throw CommandError(NameOfInput(paths[i]) + ": error: " + error.what());
        }
    }
    reader.Finish();
    progress.Clear();
    Account account = accountant.Finish();
    Complete(account, paths, reader.Summary());
    return account;
}

// Writes the files for the desk, and plays them there. Returns an exit status.
int BringToDesk(const Arguments& arguments, const Account& account, Desk& desk) {
    const std::optional<MadeSession> session = desk.maker.Finish();
    const std::string& input = account.inputs.front();
    if (!session) {
        throw CommandError(input + ": error: none of the lines tells of a call");
    }
    std::optional<Configuration> loaded = session->configuration;
    if (loaded && account.configuration && loaded->stages == account.configuration->stages) {
        // What the dump does not tell, and other lines do.
        loaded->stageCount = account.configuration->stageCount;
        loaded->additionalWidth = account.configuration->additionalWidth;
    }
    const auto writeTo = [](const std::string& path, const std::string& text) {
        if (!path.empty()) {
            Output file(path);
            file << text;
            file.Close();
        }
    };
    writeTo(arguments.session, session->text);
    if (!loaded && (arguments.isVerifying || !arguments.configuration.empty())) {
        throw CommandError(input +
                           ": error: the log lacks the configuration, which the library writes to\n"
                           "it when the camera's process starts");
    }
    writeTo(arguments.configuration, loaded ? ToToml(*loaded) : "");
    if (!arguments.isVerifying) {
        return NOTHING_FOUND;
    }
    const Verification verification = Verify(*session, ToToml(*loaded), desk.messages);
    if (!verification.obstacle.empty()) {
        throw CommandError(input + ": error: cannot be played: " + verification.obstacle);
    }
    Output out("-");
    for (const Difference& difference : verification.first) {
        const std::string sessionLine = std::to_string(difference.sessionLine);
        out << (difference.place.line == 0 ? input
                                           : account.inputs[difference.place.input] + ":" +
                                                 std::to_string(difference.place.line))
            << ": error: the device logged "
            << (difference.captured.empty() ? "nothing more" : "\"" + difference.captured + "\"")
            << ", the desk "
            << (difference.replayed.empty()
                    ? "nothing more"
                    : "\"" + difference.replayed + "\" at line " + sessionLine + " of the session")
            << " [not-the-same]\n";
    }
    out << verification.messages << " messages are the same, " << verification.differing
        << " differ or come after a difference on their thread";
    if (session->leftOut != 0) {
        out << "; " << session->leftOut
            << " calls of other processes, or of other runs of the library, were left out";
    }
    out << '\n';
    out.Close();
    return verification.differing == 0 ? NOTHING_FOUND : FAULTS_FOUND;
}

int StatusOf(const Account& account) {
    Severity worst = WorstOf(account);
    for (const Finding& finding : account.configurationFindings) {
        worst = std::max(worst, finding.severity);
    }
    return worst == Severity::Note ? NOTHING_FOUND : FAULTS_FOUND;
}

// A status line, on a terminal, about once a second.
class StatusLine {
  public:
    void Show(const Scene* scene) {
        const auto now = std::chrono::steady_clock::now();
        if (!isWanted || scene == nullptr || now - lastShown < std::chrono::seconds(1)) {
            return;
        }
        lastShown = now;
        int64_t frames = 0;
        for (const int64_t count : scene->statusCounts) {
            frames += count;
        }
        std::cerr << '\r' << frames << " frames, " << scene->notBoosted << " not boosted, "
                  << scene->lateFrames << " late (more than "
                  << static_cast<double>(scene->lateThreshold) / 1000 << " ms)\033[K" << std::flush;
    }
    void Clear() {
        if (isWanted) {
            std::cerr << "\r\033[K" << std::flush;
        }
    }

  private:
    bool isWanted = isatty(STDERR_FILENO) != 0;
    std::chrono::steady_clock::time_point lastShown = std::chrono::steady_clock::now();
};

int Follow(const Arguments& arguments) {
    Account named;
    named.inputs = {NameOfInput("-")};
    Input in("-");
    Output out("-");
    StatusLine status;
    AccountOptions options;
    options.latePeriods = arguments.latePeriods;
    options.keepsFrames = false;
    options.onFinding = [&](const Scene& scene, const AccountedFinding& finding) {
        status.Clear();
        out << LineOf(named, &scene, finding) << std::endl;
    };
    Accountant accountant(options);
    CaptureReader reader(accountant);
    reader.Begin(0);
    std::string bytes;
    while (!IsInterrupted()) {
        pollfd input{STDIN_FILENO, POLLIN, 0};
        if (poll(&input, 1, 1000) == 0) {
            // What might have had more behind it is not held back.
            reader.Settle();
            accountant.Settle();
        } else if (in.peek() == std::char_traits<char>::eof()) {
            break;
        } else {
            bytes.resize(static_cast<size_t>(in.rdbuf()->in_avail()));
            in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
            reader.Read(bytes);
        }
        status.Show(accountant.Current());
    }
    reader.End();
    reader.Finish();
    Account account = accountant.Finish();
    status.Clear();
    Complete(account, {"-"}, reader.Summary());
    for (const AccountedFinding& finding : account.findings) {
        out << LineOf(account, nullptr, finding) << '\n';
    }
    out << VerdictOf(account) << '\n';
    out.Close();
    return StatusOf(account);
}

int RunExplain(const Arguments& arguments) {
    CatchInterrupts();
    if (arguments.isFollowing) {
        const bool hasOutputs = arguments.isJson || arguments.showsAllFrames ||
                                arguments.IsForDesk() || arguments.pictures.AreWanted() ||
                                arguments.pictures.Frames() ||
                                !(arguments.csv + arguments.other).empty();
        if (arguments.captures != std::vector<std::string>{"-"} || hasOutputs) {
            FailUsage("--follow reads standard input (-) and goes with no other option but --late");
        }
        return Follow(arguments);
    }
    if (arguments.isJson && (arguments.isVerifying || !arguments.other.empty())) {
        FailUsage("--json goes with neither --compare nor --verify");
    }
    TextOptions text;
    text.showsAllFrames = arguments.showsAllFrames;
    text.frames = arguments.pictures.Frames();
    ProgressLine progress("MB", false);
    Desk desk;
    const Account account = Explain(arguments.captures, arguments.latePeriods, progress,
                                    arguments.IsForDesk() ? &desk : nullptr, arguments.isVerifying);
    if (arguments.IsForDesk()) {
        const int status = BringToDesk(arguments, account, desk);
        if (arguments.isVerifying) {
            return status;
        }
    }
    if (!arguments.csv.empty()) {
        Output csv(arguments.csv);
        WriteCsv(csv, account);
        csv.Close();
    }
    arguments.pictures.Write(account, account.inputs.front());

    Output out("-");
    if (!arguments.other.empty()) {
        const Account after = Explain({arguments.other}, arguments.latePeriods, progress);
        WriteComparison(out, account, after);
        out.Close();
        return StatusOf(after);
    }
    if (arguments.isJson) {
        WriteJson(out, account);
    } else {
        WriteText(out, account, text);
    }
    out.Close();
    return StatusOf(account);
}

}  // namespace

void AddExplain(CLI::App& app, Run& run) {
    CLI::App* command = app.add_subcommand(
        "explain", "Says what went wrong with the frames of a device's log, and why");
    command->footer(
        "\nA capture is a file that logcat has written, in whatever form, or a bug report, zipped\n"
        "or not; several are read one after the other. The library logs while the property\n"
        "vendor.tarvo.camera.frameboost.debug.enable is true, which it reads when it is loaded.\n"
        "\nExit status: 0 nothing found, 1 something found (warnings too), 2 cannot be read.\n"
        "\nExamples:\n\n"
        "  adb logcat -d | cameraframeboost explain -\n"
        "  cameraframeboost explain capture.log --to-html capture.html\n"
        "  cameraframeboost explain before.log --compare after.log\n"
        "  adb logcat | cameraframeboost explain --follow -\n");
    // Lives as long as the command that refers to it.
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("CAPTURE", arguments->captures, "The captures; - for standard input")
        ->required()
        ->type_name("");
    command->add_flag("--json", arguments->isJson,
                      "One JSON object, times in milliseconds, instead of text");
    command->add_flag("--all", arguments->showsAllFrames, "Show all frames in the table");
    command
        ->add_option("--late", arguments->latePeriods,
                     "A frame is late when it comes out more than this many frame periods after\n"
                     "the one before; 1.5 unless told")
        ->check(CLI::Range(1.0, 1000.0).description(""))
        ->type_name("PERIODS");
    command
        ->add_option("--compare", arguments->other,
                     "Show what changed from the captures given to this one")
        ->type_name("CAPTURE");
    command->add_flag("--follow", arguments->isFollowing,
                      "Read on as the log comes, show findings as they are found");
    command->add_option("--to-csv", arguments->csv, "Write a row a frame here")->type_name("FILE");
    arguments->pictures.AddOptions(*command);
    command
        ->add_option("--to-session", arguments->session,
                     "Write the HAL's calls here, as a session for replay")
        ->type_name("FILE");
    command
        ->add_option("--to-config", arguments->configuration,
                     "Write the configuration here, for replay --config")
        ->type_name("FILE");
    command->add_flag(
        "--verify", arguments->isVerifying,
        "Play the capture on the desk and show only whether the library logs the same");
    command->callback([arguments, &run] { run = [arguments] { return RunExplain(*arguments); }; });
}

}  // namespace tools
