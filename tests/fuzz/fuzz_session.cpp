// Any session file: it is played or refused with file and line, and the same in either form.

#include <cstdint>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "tests/fuzz/require.h"
#include "tools/play/replay.h"
#include "tools/session/session.h"

namespace {

// Recordings may be as long as the player has patience; a fuzzer has none.
bool IsShort(const std::string& text) {
    std::istringstream session(text);
    for (std::string line; std::getline(session, line);) {
        try {
            const tools::Line parsed = tools::ParseLine(line);
            const auto* recording = std::get_if<tools::Recording>(&parsed);
            if (recording != nullptr && recording->frames > 20) {
                return false;
            }
        } catch (const tools::SessionError&) {
            return true;
        }
    }
    return true;
}

struct Play {
    bool status;
    std::string out;
    std::string err;
};

Play PlayOnce(const std::string& text, const tools::ReplayOptions& options) {
    std::istringstream session(text);
    std::ostringstream out;
    std::ostringstream err;
    const bool status = tools::Replay(options, session, "name", out, err);
    return {status, out.str(), err.str()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(data, data + size);
    if (!IsShort(text)) {
        return -1;
    }
    tools::ReplayOptions options;
    const Play play = PlayOnce(text, options);
    options.withDebug = true;
    options.isJson = true;
    const Play json = PlayOnce(text, options);
    Require(play.status == json.status && play.err == json.err, "not the same twice");
    if (play.status) {
        Require(play.err.empty() && !play.out.empty(), play.err);
    } else {
        Require(!play.status && play.err.rfind("name:", 0) == 0 &&
                    play.err.find('\n') == play.err.size() - 1,
                play.err);
    }
    std::istringstream lines(json.out);
    for (std::string line; std::getline(lines, line);) {
        Require(nlohmann::json::accept(line), line);
    }
    return 0;
}
