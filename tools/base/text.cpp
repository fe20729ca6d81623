#include "tools/base/text.h"

#include <fmt/format.h>

#include <cctype>
#include <cstddef>

namespace tools {

std::string Counted(int64_t count, std::string_view what) {
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

std::string Join(std::span<const std::string> parts) {
    std::string text;
    for (size_t i = 0; i < parts.size(); ++i) {
        text += i == 0 ? "" : i + 1 == parts.size() ? " and " : ", ";
        text += parts[i];
    }
    return text;
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

}  // namespace tools
