#include "tools/base/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

namespace tools {

std::string Counted(int64_t count, std::string_view what) {
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

std::string Fixed(double value, int digits) {
    return fmt::format("{:.{}f}", value, digits);
}

std::string Milliseconds(Micros time, Micros resolution) {
    return Fixed(static_cast<double>(time) / 1000.0, resolution >= MILLISECOND ? 0 : 3);
}

std::string Folded(std::string_view text) {
    std::string folded;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte > ' ' && byte != 0x7F) {
            folded += static_cast<char>(std::tolower(byte));
        }
    }
    return folded;
}

std::string Base64(std::string_view bytes) {
    constexpr char DIGITS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        uint32_t three = 0;
        for (size_t j = i; j < i + 3; ++j) {
            three = three << 8 | (j < bytes.size() ? static_cast<unsigned char>(bytes[j]) : 0U);
        }
        for (size_t j = 0; j < 4; ++j) {
            text += i + j > bytes.size() ? '=' : DIGITS[three >> (18 - 6 * j) & 63];
        }
    }
    return text;
}

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
