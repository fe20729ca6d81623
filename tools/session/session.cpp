#include "tools/session/session.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <limits>
#include <sstream>

namespace tools {
namespace {

constexpr std::string_view RECORDING = "PlayRecording";
constexpr std::string_view BLANKS = " \t\r\v\f";
// Two days of video; more than that is taken for a slip.
constexpr int64_t MAX_RECORDING_FRAMES = 10'000'000;

// A word of a line: a run of non-blanks, or text in double quotes, in which a backslash makes the
// next character an ordinary one.
struct Word {
    std::string text;
    bool isQuoted;
};

// In quotes for a message; what a terminal might take for a command shows as a question mark.
std::string Quoted(std::string_view text) {
    std::string quoted(text);
    std::replace_if(
        quoted.begin(), quoted.end(),
        [](unsigned char character) { return std::iscntrl(character) != 0; }, '?');
    return '"' + quoted + '"';
}

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
                throw SessionError("a text without an end, expected a closing double quote");
            }
            ++at;
            words.push_back(word);
        } else {
            const size_t end = std::min(line.find_first_of(" \t\r\v\f\"#", at), line.size());
            words.push_back({std::string(line.substr(at, end - at)), false});
            at = end;
        }
    }
    return words;
}

template <typename Integer>
Integer ParseInteger(const Word& word, std::string_view what,
                     Integer lowest = std::numeric_limits<Integer>::min(),
                     Integer highest = std::numeric_limits<Integer>::max()) {
    std::string digits = word.text;
    const bool isNegative = !digits.empty() && digits[0] == '-';
    digits.erase(0, isNegative ? 1 : 0);
    const bool isHex = digits.rfind("0x", 0) == 0 || digits.rfind("0X", 0) == 0;
    digits.erase(0, isHex ? 2 : 0);
    const bool hasDigits = !digits.empty() && digits[0] != '-';
    if (isNegative) {
        digits.insert(0, "-");
    }
    Integer value = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value, isHex ? 16 : 10);
    if (word.isQuoted || !hasDigits || error != std::errc() || stop != end || value < lowest ||
        value > highest) {
        std::ostringstream text;
        text << what << " is " << Quoted(word.text)
             << ", expected a decimal or 0x hexadecimal number from " << lowest << " to "
             << highest;
        throw SessionError(text.str());
    }
    return value;
}

Value ParseValue(const Parameter& parameter, const Word& word) {
    if (std::holds_alternative<bool>(parameter.type)) {
        if (word.isQuoted || (word.text != "true" && word.text != "false")) {
            throw SessionError(std::string(parameter.name) + " is " + Quoted(word.text) +
                               ", expected true or false");
        }
        return word.text == "true";
    }
    if (std::holds_alternative<int32_t>(parameter.type)) {
        return ParseInteger<int32_t>(word, parameter.name);
    }
    if (std::holds_alternative<int64_t>(parameter.type)) {
        return ParseInteger<int64_t>(word, parameter.name);
    }
    return word.text;
}

// "Name parameter parameter", as a line has it.
std::string UsageOf(const Operation& operation) {
    std::string usage(operation.name);
    for (const Parameter& parameter : operation.parameters) {
        const bool isList = std::holds_alternative<std::vector<int32_t>>(parameter.type);
        usage += " " + std::string(parameter.name) + (isList ? "..." : "");
    }
    return usage;
}

Call ParseCall(const Operation& operation, const std::vector<Word>& words) {
    Call call{&operation, {}};
    size_t next = 1;
    for (const Parameter& parameter : operation.parameters) {
        if (std::holds_alternative<std::vector<int32_t>>(parameter.type)) {
            // A list takes all that is left.
            std::vector<int32_t> list;
            for (; next < words.size(); ++next) {
                list.push_back(ParseInteger<int32_t>(words[next], parameter.name));
            }
            call.arguments.emplace_back(std::move(list));
        } else if (next < words.size()) {
            call.arguments.push_back(ParseValue(parameter, words[next++]));
        } else {
            throw SessionError(std::string(parameter.name) + " is missing, expected " +
                               UsageOf(operation));
        }
    }
    if (next < words.size()) {
        throw SessionError(Quoted(words[next].text) + " is one too many, expected " +
                           UsageOf(operation));
    }
    return call;
}

Recording ParseRecording(const std::vector<Word>& words) {
    if (words.size() < 2 || words.size() > 3) {
        throw SessionError("wrong number of values, expected " + std::string(RECORDING) +
                           " frames [firstFrame]");
    }
    Recording recording{ParseInteger<int64_t>(words[1], "frames", 1, MAX_RECORDING_FRAMES), {}};
    if (words.size() == 3) {
        recording.first =
            ParseInteger<int64_t>(words[2], "firstFrame", 1,
                                  std::numeric_limits<int64_t>::max() - 2 * MAX_RECORDING_FRAMES);
    }
    return recording;
}

}  // namespace

Line ParseLine(std::string_view line) {
    const std::vector<Word> words = SplitWords(line);
    if (words.empty()) {
        const size_t start = std::min(line.find('#'), line.size());
        const size_t end = line.find_last_not_of(BLANKS) + 1;
        return Comment{std::string(line.substr(start, std::max(start, end) - start))};
    }
    const Word& name = words.front();
    if (!name.isQuoted && name.text == RECORDING) {
        return ParseRecording(words);
    }
    const Operation* operation = name.isQuoted ? nullptr : FindOperation(name.text);
    if (operation == nullptr) {
        throw SessionError(Quoted(name.text) +
                           " is not known, expected an operation of TarvoCameraFrameBoost or " +
                           std::string(RECORDING));
    }
    return ParseCall(*operation, words);
}

std::string DescribeFormat() {
    std::ostringstream text;
    text << "A session file holds one HAL call a line: the operation and its arguments, separated\n"
            "by blanks. Numbers are decimal or 0x hexadecimal, flags true or false, names plain\n"
            "words or text in double quotes. '#' starts a comment. The calls:\n\n";
    for (const Operation& operation : Operations()) {
        text << "  " << UsageOf(operation) << '\n';
    }
    text << "\nand one line for many:\n\n  " << RECORDING
         << " frames [firstFrame]\n\n"
            "plays that many frames of a normal recording: each node of the loaded stage table\n"
            "reports each frame, one stage after another, with as many frames in flight as there\n"
            "are stages. It starts at firstFrame, else where the last one left off, else at 1.\n";
    return text.str();
}

}  // namespace tools
