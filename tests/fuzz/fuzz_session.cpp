// Any session file: it is played, or refused with file and line, with the same result as text and
// as JSON.

#include <cstdint>
#include <sstream>
#include <string>

#include "tests/fuzz/require.h"
#include "tools/play/replay.h"
#include "tools/session/session.h"

namespace {

struct Content {
    bool isShort = true;  // Enough to be played.
    bool hasLine = false, hasError = false;
};

// Checks, too, that each line is read back the same as it was written.
Content ContentOf(const std::string& session) {
    Content content;
    tools::ForEachLine(
        session,
        [&content](uint32_t, const tools::Line& line) {
            const std::string written = tools::WriteLine(line);
            Require(tools::ParseLine(written) == line, written);
            const auto* recording = std::get_if<tools::Recording>(&line);
            content.isShort = content.isShort && (recording == nullptr || recording->frames <= 20);
            return content.hasLine = true;
        },
        [&content](uint32_t, const tools::LineError&) { content.hasError = true; });
    return content;
}

struct Play {
    bool isPlayed;
    std::string out;
    std::string err;
};

Play PlayOnce(const std::string& text, const tools::ReplayOptions& options) {
    std::ostringstream out;
    std::ostringstream err;
    const bool isPlayed = tools::Replay(options, {"name", text}, out,
                                        [&err](const std::string& line) { err << line << '\n'; });
    return {isPlayed, out.str(), err.str()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(data, data + size);
    const Content content = ContentOf(text);
    if (!content.isShort) {
        return -1;
    }
    tools::ReplayOptions options;
    const Play play = PlayOnce(text, options);
    options.withDebug = true;
    const Play debugged = PlayOnce(text, options);
    Require(play.isPlayed == debugged.isPlayed && play.err == debugged.err, "not the same twice");
    Require(play.isPlayed == (content.hasLine && !content.hasError), play.err);
    Require(play.isPlayed == play.err.empty() && play.isPlayed != play.out.empty(), play.err);
    std::istringstream errors(play.err);
    for (std::string line; std::getline(errors, line);) {
        Require(line.rfind("name:", 0) == 0 && line.find(": error: ") != std::string::npos &&
                    line.size() < 500,
                line);
    }
    return 0;
}
