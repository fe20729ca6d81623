#include "tools/check/printable.h"

#include <algorithm>
#include <cstddef>

namespace tools {
namespace {

// As much as tells what is meant in a message of one line.
constexpr size_t LONGEST_QUOTED = 60;

bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

// The bytes of the UTF-8 character that `text` begins with; 0 when it begins with none, or with
// one that controls a terminal.
size_t PrintableLength(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    if (first < 0x80) {
        const bool isControl = (first < 0x20 && first != '\t') || first == 0x7F;
        return isControl ? 0 : 1;
    }
    const size_t length = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (length == 0 || first > 0xF4 || length > text.size() ||
        !std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(length),
                     IsContinuation)) {
        return 0;
    }
    // The controls from U+0080 to U+009F.
    const bool isControl = first == 0xC2 && static_cast<unsigned char>(text[1]) < 0xA0;
    return isControl ? 0 : length;
}

}  // namespace

std::string Printable(std::string_view text) {
    std::string printable;
    printable.reserve(text.size());
    while (!text.empty()) {
        const size_t length = PrintableLength(text);
        if (length == 0) {
            printable += '?';
        } else {
            printable += text.substr(0, length);
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return printable;
}

std::string Quoted(std::string_view text) {
    std::string shown = Printable(text.substr(0, LONGEST_QUOTED + 4));
    if (text.size() > LONGEST_QUOTED) {
        size_t end = LONGEST_QUOTED;
        while (IsContinuation(shown[end])) {
            --end;
        }
        shown.replace(end, std::string::npos, "...");
    }
    return '"' + shown + '"';
}

}  // namespace tools
