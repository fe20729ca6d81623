#include "tools/output/meaning.h"

#include <fmt/format.h>

#include "tools/output/html.h"
#include "tools/output/page_assets.h"

namespace tools {

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
