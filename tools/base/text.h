// Numbers, lists and names in text.

#pragma once

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cstdint>
#include <iterator>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "tools/base/times.h"

namespace tools {

// A file that has been read.
struct NamedText {
    std::string name;  // What messages call it.
    std::string text;
};

// "1 frame", "3 frames".
std::string Counted(int64_t count, std::string_view what);

// "a, b and c".
template <typename Parts>
std::string Join(const Parts& parts, std::string_view conjunction = " and ") {
    if (parts.size() < 2) {
        return fmt::format("{}", fmt::join(parts, ""));
    }
    const auto last = std::prev(parts.end());
    return fmt::format("{}{}{}", fmt::join(parts.begin(), last, ", "), conjunction, *last);
}

// With so many digits behind the point: "8.3".
std::string Fixed(double value, int digits);

// Milliseconds without their unit, with as many digits as the times have: "17" where `resolution`
// is 1000 microseconds or more, else "16.667".
std::string Milliseconds(Micros time, Micros resolution);

// Without blanks and control characters, in small letters: names that people take for the same are
// equal then.
std::string Folded(std::string_view text);

// The bytes in base 64, padded.
std::string Base64(std::string_view bytes);

// --- Tables.

using Rows = std::vector<std::vector<std::string>>;

enum class Cells : uint8_t {
    Text,     // All begin at the left.
    Figures,  // All but the first end at the right, and so does a last one unless the first row's
              // last cell, its heading, is empty.
};

// Writes rows of cells, indented by two, each column as wide as its widest cell and two blanks from
// the next. Rows may be shorter than others. No line has blanks at its end.
void WriteTable(std::ostream& out, const Rows& rows, Cells cells);

}  // namespace tools
