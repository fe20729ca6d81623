#include "tools/command/pictures.h"

#include <CLI/CLI.hpp>
#include <string_view>

#include "tools/base/finding.h"
#include "tools/base/words.h"
#include "tools/command/command.h"
#include "tools/output/gzip.h"
#include "tools/output/page.h"
#include "tools/output/trace.h"

namespace tools {

void Pictures::AddOptions(CLI::App& command) {
    command.add_option("--to-html", page,
                       "Write a page for a browser: findings, figures and frames, in one file");
    command.add_option(
        "--to-trace", trace,
        "Write a trace for ui.perfetto.dev, in Chrome's JSON form; as gzip where FILE "
        "ends in .gz");
    command
        .add_option("--frames", frames,
                    "Show these frames in the trace, and in explain's table, whatever became of\n"
                    "them; one, or a range")
        ->type_name("A-B");
}

std::optional<std::pair<int64_t, int64_t>> Pictures::Frames() const {
    if (frames.empty()) {
        return {};
    }
    const size_t dash = frames.find('-', 1);
    const auto first = ReadDigits<int64_t>(std::string_view(frames).substr(0, dash));
    const auto last = dash == std::string::npos
                          ? first
                          : ReadDigits<int64_t>(std::string_view(frames).substr(dash + 1));
    if (!first || !last || *last < *first) {
        FailUsage("--frames is " + Quoted(frames) +
                  ", expected a frame or a range such as 120-140");
    }
    return std::pair(*first, *last);
}

void Pictures::Write(const Account& account, const std::string& title,
                     const Scheduling* scheduling) const {
    WriteFile(page, [&](std::ostream& file) { WritePage(file, account, title, scheduling); });
    WriteFile(trace, [&](std::ostream& file) {
        if (!trace.ends_with(".gz")) {
            WriteTrace(file, account, Frames(), scheduling);
            return;
        }
        GzipStream packed(file);
        WriteTrace(packed, account, Frames(), scheduling);
        packed.Close();
    });
}

}  // namespace tools
