// cameraframeboost replay: shows the calls that the boost service would get in a camera session.

#include "tools/play/replay.h"

#include "tools/command/command.h"
#include "tools/command/subcommands.h"

namespace tools {

int RunReplay(ReplayArguments& arguments) {
    ReplayOptions& options = arguments.options;
    const NamedText session = ReadFile(arguments.session);
    options.configuration = ReadOption(arguments.configuration);
    Output out("-");
    std::ostream nowhere(nullptr);
    // A log on standard output takes the transcript's place.
    const bool isLogShown = arguments.log == "-";
    const auto log = OpenOutput(isLogShown ? "" : arguments.log);
    options.log = isLogShown ? &out : log.get();

    CatchInterrupts();
    options.isInterrupted = [] { return InterruptStatus() != 0; };
    const bool isPlayed = Replay(options, session, isLogShown ? nowhere : out, Complain);
    out.Close();
    if (log && isPlayed) {
        log->Close();
    }
    return isPlayed ? NOTHING_FOUND : BAD_INPUT;
}

}  // namespace tools
