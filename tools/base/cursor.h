// Text that is read from its beginning: what has been read is taken off.

#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <system_error>

namespace tools {

inline bool IsDigit(char character) {
    return character >= '0' && character <= '9';
}

inline void SkipBlanks(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
}

// Takes the words off; false, with nothing taken, where the text begins with others.
// The length of words that are known when this is compiled is known then, too, which costs less.
inline bool Skip(std::string_view& text, std::string_view words) {
    const bool isThere =
        text.size() >= words.size() && std::memcmp(text.data(), words.data(), words.size()) == 0;
    text.remove_prefix(isThere ? words.size() : 0);
    return isThere;
}

// Takes a decimal number off, with its sign; false where there is none, or one that is too large.
template <typename Number>
bool TakeNumber(std::string_view& text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return error == std::errc();
}

// Calls `take` for each line of text that comes in pieces of any length. `carry` keeps the
// beginning of a line whose end has not come; what a line has beyond `longest` is dropped.
template <typename Take>
void SplitLines(std::string_view text, std::string& carry, size_t longest, const Take& take) {
    while (!text.empty()) {
        const size_t length = std::min(text.find('\n'), text.size());
        const bool isWhole = length < text.size();
        if (isWhole && carry.empty()) {
            take(text.substr(0, length));
        } else {
            carry += text.substr(0, std::min(length, longest - carry.size()));
            if (isWhole) {
                take(std::string_view(carry));
                carry.clear();
            }
        }
        text.remove_prefix(length + (isWhole ? 1 : 0));
    }
}

}  // namespace tools
