#include "tools/output/html.h"

#include <array>
#include <cstdio>

namespace tools {
namespace {

std::string WithoutZeros(std::string number) {
    number.erase(number.find_last_not_of('0') + 1);
    if (number.back() == '.') {
        number.pop_back();
    }
    return number;
}

}  // namespace

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

std::string Fixed(double value, int digits) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", digits, value);
    return text.data();
}

std::string Milliseconds(Micros time) {
    return time == NO_TIME ? "" : WithoutZeros(Fixed(static_cast<double>(time) / 1e3, 3));
}

std::string Clock(Micros time) {
    constexpr Micros MINUTE = 60'000'000;
    if (time < MINUTE) {
        return WithoutZeros(Fixed(static_cast<double>(time) / 1e6, 3)) + " s";
    }
    const std::string seconds = WithoutZeros(Fixed(static_cast<double>(time % MINUTE) / 1e6, 3));
    const bool isOneDigit = time % MINUTE < 10'000'000;
    return std::to_string(time / MINUTE) + (isOneDigit ? ":0" : ":") + seconds;
}

std::string Counted(int64_t count, const char* unit) {
    return std::to_string(count) + ' ' + unit + (count == 1 ? "" : "s");
}

}  // namespace tools
