#include "tools/base/words.h"

#include <fmt/format.h>

#include <algorithm>
#include <type_traits>

#include "tools/base/finding.h"

namespace tools {
namespace {

constexpr std::string_view WORD_ENDS = " \t\r\v\f\"#";

template <typename Integer>
std::optional<Integer> IntegerOf(const Word& word) {
    std::string digits = word.text;
    const bool isNegative = digits.starts_with('-');
    digits.erase(0, isNegative ? 1 : 0);
    const bool isHex = digits.starts_with("0x") || digits.starts_with("0X");
    digits.erase(0, isHex ? 2 : 0);
    if (word.isQuoted || digits.empty() || digits[0] == '-') {
        return std::nullopt;
    }
    if (isHex && !isNegative && std::is_same_v<Integer, int32_t>) {
        const auto bits = ReadDigits<uint32_t>(digits, 16);
        return bits ? std::optional(static_cast<Integer>(*bits)) : std::nullopt;
    }
    return ReadDigits<Integer>((isNegative ? "-" : "") + digits, isHex ? 16 : 10);
}

}  // namespace

std::vector<Word> SplitWords(std::string_view line) {
    std::vector<Word> words;
    for (size_t at = 0; at < line.size();) {
        if (BLANKS.find(line[at]) != std::string_view::npos) {
            ++at;
        } else if (line[at] == '#') {
            break;
        } else if (line[at] == '"') {
            Word word{"", true};
            for (++at; at < line.size() && line[at] != '"'; ++at) {
                if (line[at] == '\\' && at + 1 < line.size()) {
                    ++at;
                }
                word.text += line[at];
            }
            if (at == line.size()) {
                throw LineError("a text without an end, expected a closing double quote");
            }
            ++at;
            words.push_back(std::move(word));
        } else {
            const size_t end = std::min(line.find_first_of(WORD_ENDS, at), line.size());
            words.push_back({std::string(line.substr(at, end - at))});
            at = end;
        }
    }
    return words;
}

std::string WordOf(std::string_view name) {
    if (!name.empty() && name.find('\n') == std::string_view::npos &&
        name.find_first_of(WORD_ENDS) == std::string_view::npos) {
        return std::string(name);
    }
    std::string word = "\"";
    for (const char character : name) {
        if (character == '"' || character == '\\') {
            word += '\\';
        }
        word += character == '\n' ? ' ' : character;
    }
    return word + '"';
}

void RequireWords(const std::vector<Word>& words, size_t fewest, size_t most,
                  std::string_view usage) {
    if (words.size() < fewest || words.size() > most) {
        throw LineError("wrong number of values, expected " + std::string(usage));
    }
}

template <typename Integer>
Integer ReadInteger(const Word& word, std::string_view what, Integer lowest, Integer highest) {
    const std::optional<Integer> value = IntegerOf<Integer>(word);
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
