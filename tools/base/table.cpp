#include "tools/base/table.h"

#include <algorithm>
#include <cstddef>

namespace tools {

void WriteTable(std::ostream& out, const Rows& rows, Cells cells) {
    std::vector<size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            const bool isText = cells == Cells::Text || i == 0 ||
                                (i + 1 == row.size() && rows.front().back().empty());
            const std::string fill(widths[i] - row[i].size(), ' ');
            line += "  " + (isText ? row[i] + fill : fill + row[i]);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << '\n';
    }
}

}  // namespace tools
