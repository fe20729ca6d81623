#include "tools/command/pictures.h"

#include <CLI/CLI.hpp>
#include <charconv>

#include "tools/base/finding.h"
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
    command
        .add_option("--frames", frames,
                    "Show these frames, whatever became of them; one, or a range")
        ->type_name("A-B");
}

std::optional<std::pair<int64_t, int64_t>> Pictures::Frames() const {
    if (frames.empty()) {
        return {};
    }
    std::pair<int64_t, int64_t> range;
    const char* const end = frames.data() + frames.size();
    auto result = std::from_chars(frames.data(), end, range.first);
    range.second = range.first;
    if (result.ec == std::errc() && result.ptr != end && *result.ptr == '-') {
        result = std::from_chars(result.ptr + 1, end, range.second);
    }
    if (result.ec != std::errc() || result.ptr != end || range.second < range.first) {
        FailUsage("--frames is " + Quoted(frames) +
                  ", expected a frame or a range such as 120-140");
    }
    return range;
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
