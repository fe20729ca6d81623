#include "tools/output/html.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace tools {
namespace {

constexpr std::string_view MARKUP = "&<>\"";
constexpr std::array ENTITIES{"&amp;", "&lt;", "&gt;", "&quot;"};

// The character at the front, where it is one of U+202A to U+202E and U+2066 to U+2069; else 0.
uint32_t DirectionOf(std::string_view text) {
    const auto isWithin = [&text](std::string_view first, std::string_view last) {
        return text.substr(0, 3) >= first && text.substr(0, 3) <= last;
    };
    return isWithin("\u202A", "\u202E") || isWithin("\u2066", "\u2069")
               ? 0x2000U + (static_cast<uint32_t>(text[1]) & 0x3FU) * 0x40U +
                     (static_cast<uint32_t>(text[2]) & 0x3FU)
               : 0;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Escaped& escaped) {
    for (size_t i = 0; i < escaped.text.size(); ++i) {
        if (const uint32_t direction = DirectionOf(escaped.text.substr(i)); direction != 0) {
            out << fmt::format("\\u{:x}", direction);
            i += 2;
            continue;
        }
        const char character = escaped.text[i];
        if (const size_t place = MARKUP.find(character); place != std::string_view::npos) {
            out << ENTITIES[place];
        } else {
            // Control characters but for line ends have no place in HTML.
            out << (static_cast<unsigned char>(character) < ' ' && character != '\n' ? ' '
                                                                                     : character);
        }
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
