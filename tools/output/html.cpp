#include "tools/output/html.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <utility>

namespace tools {
namespace {

// Markup, and what turns the direction of text: U+202A to U+202E and U+2066 to U+2069.
constexpr std::pair<std::string_view, std::string_view> REPLACED[] = {
    {"&", "&amp;"},        {"<", "&lt;"},         {">", "&gt;"},         {"\"", "&quot;"},
    {"\u202A", "\\u202a"}, {"\u202B", "\\u202b"}, {"\u202C", "\\u202c"}, {"\u202D", "\\u202d"},
    {"\u202E", "\\u202e"}, {"\u2066", "\\u2066"}, {"\u2067", "\\u2067"}, {"\u2068", "\\u2068"},
    {"\u2069", "\\u2069"},
};

}  // namespace

std::ostream& operator<<(std::ostream& out, const Escaped& escaped) {
    std::string_view rest = escaped.text;
    while (!rest.empty()) {
        const auto* const found =
            std::find_if(std::begin(REPLACED), std::end(REPLACED),
                         [rest](const auto& one) { return rest.starts_with(one.first); });
        if (found != std::end(REPLACED)) {
            out << found->second;
            rest.remove_prefix(found->first.size());
            continue;
        }
        // Control characters but for line ends have no place in HTML.
        const auto byte = static_cast<unsigned char>(rest[0]);
        out << (byte < ' ' && byte != '\n' ? ' ' : rest[0]);
        rest.remove_prefix(1);
    }
    return out;
}

std::ostream& operator<<(std::ostream& out, const Name& name) {
    return out << "<bdi>" << Escaped{name.text} << "</bdi>";
}

std::string_view Take(std::string_view& text, std::string_view end) {
    const size_t length = text.find(end);
    const std::string_view taken = text.substr(0, length);
    text.remove_prefix(length == std::string_view::npos ? text.size() : length + end.size());
    return taken;
}

std::ostream& operator<<(std::ostream& out, const Markdown& markdown) {
    std::string_view rest = markdown.text;
    while (!rest.empty()) {
        const size_t mark = std::min(rest.find_first_of("`["), rest.find("**"));
        out << Escaped{rest.substr(0, mark)};
        rest.remove_prefix(std::min(mark, rest.size()));
        if (rest.starts_with('`')) {
            Take(rest, "`");
            out << "<code>" << Escaped{Take(rest, "`")} << "</code>";
        } else if (rest.starts_with('[')) {
            Take(rest, "[");
            out << Escaped{Take(rest, "](")};
            Take(rest, ")");
        } else if (!rest.empty()) {
            Take(rest, "**");
            out << "<b>" << Escaped{Take(rest, "**")} << "</b>";
        }
    }
    return out;
}

std::string Seconds(Micros time) {
    return fmt::format("{:.3f}", static_cast<double>(time) / 1e6);
}

std::string ShortMilliseconds(Micros time) {
    return time == NO_TIME ? "" : fmt::format("{}", static_cast<double>(time) / 1000);
}

}  // namespace tools
