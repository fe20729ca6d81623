// Any session file: it is played, or refused with file and line, with the same result as text and
// as JSON; and the steps say what the service was told.

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

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

// Counts what the service was told according to the steps, and compares it with the real calls.
class Ledger : public tools::StepSink {
  public:
    void OnStep(const tools::Step& step) override {
        for (const tools::Event& event : step.events) {
            Require(event.outcome != tools::Outcome::Unknown, "an event with an unknown outcome");
            const bool isTold = event.outcome == tools::Outcome::Forwarded ||
                                event.outcome == tools::Outcome::Reported;
            counts[event.kind] += isTold ? 1 : 0;
        }
    }

    void Close() {
        for (const auto& [kind, function, before] : functions) {
            Require(counts[kind] == desktop::ServiceCallCount(function) - before,
                    std::string(NameOf(function)) + ": " + std::to_string(counts[kind]));
        }
    }

  private:
    struct Row {
        tools::EventKind kind;
        desktop::ServiceFunction function;
        int64_t before = desktop::ServiceCallCount(function);
    };
    const std::vector<Row> functions = {
        {tools::EventKind::FrameStart, desktop::ServiceFunction::FrameStart},
        {tools::EventKind::FrameEnd, desktop::ServiceFunction::FrameEnd},
        {tools::EventKind::StageStart, desktop::ServiceFunction::StageStart},
        {tools::EventKind::StageEnd, desktop::ServiceFunction::StageEnd},
        {tools::EventKind::Report, desktop::ServiceFunction::NotifyErrOfUser}};
    std::map<tools::EventKind, int64_t> counts;
};

struct Play {
    bool isPlayed;
    std::string out;
    std::string err;
};

Play PlayOnce(const std::string& text, const tools::ReplayOptions& options) {
    std::istringstream session(text);
    std::ostringstream out;
    std::ostringstream err;
    const bool isPlayed = tools::Replay(options, session, "name", out, err);
    return {isPlayed, out.str(), err.str()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(data, data + size);
    std::istringstream in(text);
    const tools::Session session(in);
    if (!IsShort(session)) {
        return -1;
    }
    tools::ReplayOptions options;
    Ledger ledger;
    options.steps = &ledger;
    const Play play = PlayOnce(text, options);
    ledger.Close();
    options.steps = nullptr;
    options.withDebug = true;
    options.isJson = true;
    const Play json = PlayOnce(text, options);
    Require(play.isPlayed == json.isPlayed && play.err == json.err, "not the same twice");
    Require(play.isPlayed == session.Errors().empty(), play.err);
    Require(play.isPlayed == play.err.empty() && play.isPlayed != play.out.empty(), play.err);
    std::istringstream errors(play.err);
    for (std::string line; std::getline(errors, line);) {
        Require(line.rfind("name:", 0) == 0 && line.find(": error: ") != std::string::npos &&
                    line.size() < 500,
                line);
    }
    std::istringstream lines(json.out);
    for (std::string line; std::getline(lines, line);) {
        Require(nlohmann::json::accept(line), line);
    }
    return 0;
}
