// cameraframeboost replay: shows the calls that the boost service would get in a camera session.

#include "tools/play/replay.h"

#include <optional>

#include "tools/command/command.h"
#include "tools/command/subcommands.h"

namespace tools {

int RunReplay(ReplayArguments arguments) {
    ReplayOptions& options = arguments.options;
    Output out("-");
    const NamedText session = ReadFile(arguments.session);
    options.configuration = ReadOption(arguments.configuration);
    // A capture on standard output takes the transcript's place.
    const bool isLogShown = arguments.log == "-";
    std::ostream nowhere(nullptr);
    std::optional<Output> logFile;
    if (!arguments.log.empty() && !isLogShown) {
        logFile.emplace(arguments.log);
    }
    if (isLogShown) {
        options.log = &out;
    } else if (logFile) {
        options.log = &*logFile;
    }

    CatchInterrupts();
    options.pace.isInterrupted = [] { return InterruptStatus() != 0; };
    ProgressLine progress("frames", !options.isQuiet);
    options.pace.onProgress = [&progress](int64_t done, int64_t all) { progress.Show(done, all); };
    const bool isPlayed = Replay(options, session, isLogShown ? nowhere : out, Complain);
    progress.Clear();
    out.Close();
    if (logFile && isPlayed) {
        logFile->Close();
    }
    return isPlayed ? NOTHING_FOUND : BAD_INPUT;
}

}  // namespace tools
