#include "tools/output/meaning.h"

#include <fmt/format.h>

#include <cstddef>

#include "tools/output/page_assets.h"

namespace tools {
namespace {

// Takes what stands before `end` off the front of `text`, and `end` with it.
std::string_view Take(std::string_view& text, std::string_view end) {
    const size_t length = text.find(end);
    const std::string_view taken = text.substr(0, length);
    text.remove_prefix(length == std::string_view::npos ? text.size() : length + end.size());
    return taken;
}

}  // namespace

Meaning MeaningOf(Check check) {
    std::string_view guide = FIELD_GUIDE;
    Take(guide, "\n| finding |");  // Before it, a status may have the same name.
    Take(guide, fmt::format("\n| `{}` | ", NameOf(check)));
    const std::string_view what = Take(guide, " | ");
    return {what, Take(guide, " |\n")};
}

std::vector<Explanation> Words() {
    std::vector<Explanation> words;
    std::string_view guide = FIELD_GUIDE;
    Take(guide, "\n| status | meaning |\n|---|---|\n");
    std::string_view statuses = Take(guide, "\n\n");
    while (!statuses.empty()) {
        std::string_view row = Take(statuses, "\n");
        Take(row, "| ");
        const std::string_view term = Take(row, " | ");
        words.push_back({term, Take(row, " |")});
    }
    Take(guide, "\n## Words\n");
    Take(guide, "\n- **");
    while (!guide.empty()) {
        std::string_view item = Take(guide, "\n- **");
        const std::string_view term = Take(item, "**: ");
        words.push_back({term, item});
    }
    return words;
}

}  // namespace tools
