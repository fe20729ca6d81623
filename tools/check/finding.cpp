#include "tools/check/finding.h"

#include <array>
#include <cstddef>

namespace tools {

const char* NameOf(Severity severity) {
    constexpr std::array<const char*, 3> names = {"note", "warning", "error"};
    return names[static_cast<size_t>(severity)];
}

std::string ToString(const Finding& finding, const std::string& file) {
    std::string text = file;
    if (finding.place.line != 0) {
        text += ":" + std::to_string(finding.place.line);
    }
    if (finding.column != 0) {
        text += ":" + std::to_string(finding.column);
    }
    return text + ": " + NameOf(finding.severity) + ": " + finding.message + " [" + finding.check +
           "]";
}

std::string Printable(std::string_view text, size_t longest) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    const bool isLong = text.size() > longest;
    std::string printable;
    for (const char character : text.substr(0, isLong ? longest - 3 : text.size())) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= ' ' && byte <= '~') {
            printable += character;
        } else {
            printable += {'\\', 'x', digits[byte / 16], digits[byte % 16]};
        }
    }
    return printable + (isLong ? "..." : "");
}

std::string Quoted(std::string_view text, size_t longest) {
    return '"' + Printable(text, longest) + '"';
}

}  // namespace tools
