#include "tools/command/pictures.h"

#include <CLI/CLI.hpp>
#include <charconv>

#include "tools/command/command.h"
#include "tools/output/page.h"
#include "tools/output/trace.h"

namespace tools {

void Pictures::AddOptions(CLI::App& command) {
    command
        .add_option("--to-html", page,
                    "Write a page for a browser: findings, timelines, figures, in one file")
        ->type_name("FILE");
    command
        .add_option("--to-trace", trace, "Write a trace for ui.perfetto.dev, in Chrome's JSON form")
        ->type_name("FILE");
    command.add_option("--frames", frames, "Show these frames, whatever became of them")
        ->type_name("A-B");
}

std::optional<std::pair<int64_t, int64_t>> Pictures::Frames() const {
    if (frames.empty()) {
        return {};
    }
    int64_t first = 0;
    int64_t last = 0;
    const char* const end = frames.data() + frames.size();
    const char* next = std::from_chars(frames.data(), end, first).ptr;
    if (next == frames.data() || next == end || *next != '-' ||
        std::from_chars(next + 1, end, last).ptr != end || next + 1 == end || last < first) {
        throw CommandError("cameraframeboost: error: --frames is \"" + frames +
                           "\", expected the first and the last one such as 190-230");
    }
    return std::pair(first, last);
}

void Pictures::Write(const Account& account, const std::string& title) const {
    if (!page.empty()) {
        Output out(page);
        WritePage(out, account, {title, Frames()});
        out.Close();
    }
    if (!trace.empty()) {
        Output out(trace);
        WriteTrace(out, account);
        out.Close();
    }
}

}  // namespace tools
