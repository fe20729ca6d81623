// Any session file: it is played, or refused with file and line, with the same result as text and
// as JSON.

#include <cstdint>
#include <sstream>
#include <string>

#include "tests/fuzz/require.h"
#include "tools/play/replay.h"
#include "tools/session/session.h"

namespace {

// Whether it is short enough to play. Also checks that each line is read back the same as it was
// written.
bool IsShort(const tools::Session& session) {
    bool isShort = true;
    session.ForEachLine([&isShort](uint32_t, const tools::Line& line) {
        const std::string written = tools::WriteLine(line);
        Require(tools::ParseLine(written) == line, written);
        const auto* recording = std::get_if<tools::Recording>(&line);
        isShort = isShort && (recording == nullptr || recording->frames <= 20);
        return true;
    });
    return isShort;
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
    const tools::Session session(text);
    if (!IsShort(session)) {
        return -1;
    }
    tools::ReplayOptions options;
    const Play play = PlayOnce(text, options);
    options.withDebug = true;
    const Play debugged = PlayOnce(text, options);
    Require(play.isPlayed == debugged.isPlayed && play.err == debugged.err, "not the same twice");
    bool hasLine = false;
    session.ForEachLine([&hasLine](uint32_t, const tools::Line&) { return hasLine = true; });
    Require(play.isPlayed == (session.Errors().empty() && hasLine), play.err);
    Require(play.isPlayed == play.err.empty() && play.isPlayed != play.out.empty(), play.err);
    std::istringstream errors(play.err);
    for (std::string line; std::getline(errors, line);) {
        Require(line.rfind("name:", 0) == 0 && line.find(": error: ") != std::string::npos &&
                    line.size() < 500,
                line);
    }
    return 0;
}
