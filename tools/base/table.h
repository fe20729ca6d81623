// Tables of text.

#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace tools {

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
