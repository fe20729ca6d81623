// Any bytes as a capture, and any messages in any order: it is explained in all outputs, in
// pieces as at once, each bad frame is counted to one cause, and the session that is made from it
// can be read.

#include <cstdint>
#include <sstream>
#include <string>
#include <utility>

#include "tests/fuzz/outputs.h"
#include "tests/support/harmed.h"
#include "tools/account/account.h"
#include "tools/account/reader.h"
#include "tools/log/capture.h"
#include "tools/log/message.h"
#include "tools/session/made_session.h"
#include "tools/session/session.h"

namespace {

// Reads the text in pieces of that length and returns all outputs of it.
std::string Explain(const std::string& text, size_t piece) {
    tools::SceneReader scenes;
    tools::SessionMaker maker;
    tools::CaptureReader reader({&scenes, &maker});
    reader.Begin("name");
    try {
        ReadInPieces(reader, text, piece);
    } catch (const tools::CommandError& error) {
        return error.what();
    }
    reader.Finish();
    const tools::CaptureSummary& summary = reader.Summary();
    Require(summary.notUnderstood <= summary.libraryLines && summary.libraryLines <= summary.lines,
            "more lines of a kind than lines");
    const auto session = maker.Finish();
    std::istringstream lines(session ? session->text : "");
    for (std::string line; std::getline(lines, line);) {
        tools::ParseLine(line);
    }
    tools::Account account = tools::Judge(scenes.Finish(summary.last), summary, {"name"}, {});
    for (const tools::JudgedScene& scene : account.scenes) {
        const std::string wrong = MiscountedFrames(scene, scene.columns, scene.causes);
        Require(wrong.empty(), "frames that are not in one cause: " + wrong);
    }
    tools::MakeFindings(account, {});
    return OutputsOf(std::move(account), nullptr);
}

// Makes lines of the library from the bytes, mostly with small values.
std::string LinesOf(const uint8_t* data, size_t size) {
    std::string text;
    size_t at = 0;
    const auto next = [&]() -> int { return at < size ? data[at++] : 0; };
    int line = 0;
    while (at < size) {
        const auto forms = tools::MessageForms();
        const tools::MessageForm& form = forms[static_cast<size_t>(next()) % forms.size()];
        const int where = next();
        // No two lines have the same time: the same lines are refused.
        const std::string minute = std::to_string(line++ % 60 + 100).substr(1);
        text += "01-01 00:" + minute + ":0" + std::to_string(where % 10) + ".000     1     " +
                std::to_string(where / 10 % 3) +
                " D cameraframeboost: tarvocameraframeboost.cpp 1:" + std::string(form.function) +
                "() ";
        std::string_view rest = form.text;
        for (size_t open = 0; (open = rest.find('{')) != std::string_view::npos;) {
            const size_t close = rest.find('}');
            const std::string_view field = rest.substr(open + 1, close - open - 1);
            const int value = next();
            text += rest.substr(0, open);
            text += field == "truth"  ? (value % 2 == 0 ? "true" : "false")
                    : field == "flag" ? std::to_string(value % 2)
                    : value < 250     ? std::to_string(value % 10)
                                      : "A" + std::to_string(value);
            rest.remove_prefix(close + 1);
        }
        text += rest;
        text += '\n';
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    RequireSameInPieces(data, size, LinesOf, Explain);
    return 0;
}
