#include "tools/base/words.h"

#include <fmt/format.h>

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <type_traits>

#include "tools/base/cursor.h"
#include "tools/base/finding.h"

namespace tools {
namespace {

constexpr std::string_view WORD_ENDS = " \t\r\v\f\"#";

template <typename Integer>
std::optional<Integer> IntegerOf(std::string_view digits) {
    const bool isNegative = Skip(digits, "-");
    const int base = Skip(digits, "0x") || Skip(digits, "0X") ? 16 : 10;
    if (base == 16 && !isNegative && std::is_same_v<Integer, int32_t>) {
        const auto bits = ReadDigits<uint32_t>(digits, base);
        return bits ? std::optional(static_cast<Integer>(*bits)) : std::nullopt;
    }
    if (digits.starts_with('-')) {
        return std::nullopt;
    }
    return ReadDigits<Integer>((isNegative ? "-" : "") + std::string(digits), base);
}

}  // namespace

std::vector<Word> SplitWords(std::string_view line) {
    std::vector<Word> words;
    while (true) {
        line.remove_prefix(std::min(line.find_first_not_of(BLANKS), line.size()));
        if (line.empty() || line[0] == '#') {
            return words;
        }
        Word word{"", Skip(line, "\"")};
        if (!word.isQuoted) {
            word.text = line.substr(0, line.find_first_of(WORD_ENDS));
            line.remove_prefix(word.text.size());
        }
        while (word.isQuoted && !Skip(line, "\"")) {
            line.remove_prefix(line.size() > 1 && line[0] == '\\' ? 1 : 0);
            if (line.empty()) {
                throw LineError("a text without an end, expected a closing double quote");
            }
            word.text += line[0];
            line.remove_prefix(1);
        }
        words.push_back(std::move(word));
    }
}

std::string WordOf(std::string_view name) {
    std::string word(name);
    std::replace(word.begin(), word.end(), '\n', ' ');
    if (!word.empty() && word.find_first_of(WORD_ENDS) == std::string::npos) {
        return word;
    }
    std::ostringstream quoted;
    quoted << std::quoted(word);
    return quoted.str();
}

void RequireWords(const std::vector<Word>& words, size_t fewest, size_t most,
                  std::string_view usage) {
    if (words.size() < fewest || words.size() > most) {
        throw LineError("wrong number of values, expected " + std::string(usage));
    }
}

template <typename Integer>
Integer ReadInteger(const Word& word, std::string_view what, Integer lowest, Integer highest) {
    const auto value = word.isQuoted ? std::nullopt : IntegerOf<Integer>(word.text);
    if (!value || *value < lowest || *value > highest) {
        throw LineError(
            fmt::format("{} is {}, expected a decimal or 0x hexadecimal number from {} to {}", what,
                        Quoted(word.text), lowest, highest));
    }
    return *value;
}

template int32_t ReadInteger(const Word&, std::string_view, int32_t, int32_t);
template int64_t ReadInteger(const Word&, std::string_view, int64_t, int64_t);

}  // namespace tools
