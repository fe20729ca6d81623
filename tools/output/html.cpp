#include "tools/output/html.h"

#include <fmt/format.h>

namespace tools {

std::ostream& operator<<(std::ostream& out, const Escaped& escaped) {
    for (const char character : escaped.text) {
        switch (character) {
            case '&':
                out << "&amp;";
                break;
            case '<':
                out << "&lt;";
                break;
            case '>':
                out << "&gt;";
                break;
            case '"':
                out << "&quot;";
                break;
            default:
                // Control characters but for line ends have no place in HTML.
                out << (static_cast<unsigned char>(character) < ' ' && character != '\n'
                            ? ' '
                            : character);
        }
    }
    return out;
}

std::string ShortMilliseconds(Micros time) {
    return time == NO_TIME ? "" : fmt::format("{}", static_cast<double>(time) / 1000);
}

}  // namespace tools
