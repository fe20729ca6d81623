// Lines of words: how all text files that are written by hand are read, but for TOML.

#pragma once

#include <charconv>
#include <cstddef>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace tools {

// What is wrong with a line or a word, and what was expected instead.
class LineError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A run of non-blanks, or text in double quotes, in which a backslash makes the next character an
// ordinary one.
struct Word {
    std::string text;
    bool isQuoted = false;
};

inline constexpr std::string_view BLANKS = " \t\r\v\f";

// The words of a line up to a comment, which a # begins. Throws a LineError for a text without end.
std::vector<Word> SplitWords(std::string_view line);

// A name as SplitWords reads it: in quotes where it has to be. A line feed, for which there is no
// form, shows as a blank.
std::string WordOf(std::string_view name);

// Throws a LineError that shows the usage where there are fewer or more words.
void RequireWords(const std::vector<Word>& words, size_t fewest, size_t most,
                  std::string_view usage);

// Reads digits to the end of the text; nothing for anything else.
template <typename Integer>
std::optional<Integer> ReadDigits(std::string_view digits, int base = 10) {
    Integer value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value, base);
    return error == std::errc() && stop == end ? std::optional(value) : std::nullopt;
}

// Reads a number in decimal or as 0x hexadecimal; one of 32 bits may be hexadecimal without its
// sign, 0xFFFF8001. Throws a LineError that says what `what` is, and what was expected.
// For int32_t and int64_t.
template <typename Integer>
Integer ReadInteger(const Word& word, std::string_view what,
                    Integer lowest = std::numeric_limits<Integer>::min(),
                    Integer highest = std::numeric_limits<Integer>::max());

}  // namespace tools
