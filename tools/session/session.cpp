#include "tools/session/session.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <iterator>
#include <limits>
#include <sstream>
#include <type_traits>
#include <utility>

#include "tools/check/check.h"

namespace tools {
namespace {

constexpr std::string_view RECORDING = "PlayRecording";
constexpr std::string_view WAIT = "Wait";
constexpr std::string_view STATUS = "ServiceStatus";
constexpr std::string_view BLANKS = " \t\r\v\f";
// Two days of video; more than that is taken for a slip.
constexpr int64_t MAX_RECORDING_FRAMES = 10'000'000;
// Eleven days, of which millions still fit into a time in microseconds.
constexpr uint32_t MAX_WAIT_MILLIS = 1'000'000'000;

// A word of a line: a run of non-blanks, or text in double quotes, in which a backslash makes the
// next character an ordinary one.
struct Word {
    std::string text;
    bool isQuoted;
};

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

// Reads digits to the end of the text; nothing for anything else.
template <typename Integer>
std::optional<Integer> ReadDigits(std::string_view digits, int base = 10) {
    Integer value = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value, base);
    return error == std::errc() && stop == end ? std::optional(value) : std::nullopt;
}

// Hexadecimal numbers of 32 bits may also be written without a sign: 0xFFFF8001.
template <typename Integer>
std::optional<Integer> ReadInteger(const Word& word) {
    std::string digits = word.text;
    const bool isNegative = !digits.empty() && digits[0] == '-';
    digits.erase(0, isNegative ? 1 : 0);
    const bool isHex = digits.rfind("0x", 0) == 0 || digits.rfind("0X", 0) == 0;
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

template <typename Integer>
Integer ParseInteger(const Word& word, std::string_view what,
                     Integer lowest = std::numeric_limits<Integer>::min(),
                     Integer highest = std::numeric_limits<Integer>::max()) {
    const std::optional<Integer> value = ReadInteger<Integer>(word);
    if (!value || *value < lowest || *value > highest) {
        std::ostringstream text;
        text << what << " is " << Quoted(word.text)
             << ", expected a decimal or 0x hexadecimal number from " << lowest << " to "
             << highest;
        throw SessionError(text.str());
    }
    return *value;
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

// Of the lines that are no calls of the library.
constexpr std::string_view RECORDING_USAGE = "PlayRecording frames [firstFrame]";
constexpr std::string_view WAIT_USAGE = "Wait milliseconds";
constexpr std::string_view STATUS_USAGE = "ServiceStatus function status";

void RequireWords(const std::vector<Word>& words, size_t fewest, size_t most,
                  std::string_view usage) {
    if (words.size() < fewest || words.size() > most) {
        throw SessionError("wrong number of values, expected " + std::string(usage));
    }
}

Line ParseRecording(const std::vector<Word>& words) {
    RequireWords(words, 2, 3, RECORDING_USAGE);
    Recording recording{ParseInteger<int64_t>(words[1], "frames", 1, MAX_RECORDING_FRAMES), {}};
    if (words.size() == 3) {
        recording.first =
            ParseInteger<int64_t>(words[2], "firstFrame", 1,
                                  std::numeric_limits<int64_t>::max() - 2 * MAX_RECORDING_FRAMES);
    }
    return recording;
}

Line ParseWait(const std::vector<Word>& words) {
    RequireWords(words, 2, 2, WAIT_USAGE);
    const std::string_view text = words[1].text;
    const size_t point = std::min(text.find('.'), text.size());
    std::string decimals(text.substr(std::min(point + 1, text.size())));
    const bool hasDecimals = !decimals.empty() && decimals.size() <= 3;
    decimals.resize(3, '0');
    const auto millis = ReadDigits<uint32_t>(text.substr(0, point));
    const auto micros = ReadDigits<uint32_t>(decimals);
    if (words[1].isQuoted || !millis || !micros || (point < text.size() && !hasDecimals) ||
        *millis > MAX_WAIT_MILLIS) {
        throw SessionError("milliseconds is " + Quoted(text) + ", expected a number from 0 to " +
                           std::to_string(MAX_WAIT_MILLIS) + " with up to three decimals");
    }
    return Wait{int64_t{*millis} * 1000 + *micros};
}

Line ParseServiceStatus(const std::vector<Word>& words) {
    RequireWords(words, 3, 3, STATUS_USAGE);
    const auto function = desktop::ServiceFunctionOf(words[1].text);
    if (!function || words[1].isQuoted) {
        throw SessionError("function is " + Quoted(words[1].text) + ", expected one of " +
                           ServiceFunctionNames(", "));
    }
    return ServiceStatus{*function, ParseInteger<int32_t>(words[2], "status")};
}

// A name as a word; in quotes where it would not be read as one.
std::string WordOf(const std::string& name) {
    if (!name.empty() && name.find_first_of(" \t\r\v\f\n\"#") == std::string::npos) {
        return name;
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

std::string WordsOf(const Parameter& parameter, const Value& value) {
    if (const auto* flag = std::get_if<bool>(&value)) {
        return *flag ? " true" : " false";
    }
    if (const auto* number = std::get_if<int32_t>(&value)) {
        return " " + (parameter.isMode ? ModeText(*number) : std::to_string(*number));
    }
    if (const auto* number = std::get_if<int64_t>(&value)) {
        return " " + std::to_string(*number);
    }
    if (const auto* name = std::get_if<std::string>(&value)) {
        return " " + WordOf(*name);
    }
    std::string words;
    for (const int32_t number : std::get<std::vector<int32_t>>(value)) {
        words += " " + std::to_string(number);
    }
    return words;
}

struct Writer {
    std::string operator()(const Comment& comment) const { return comment.text; }

    std::string operator()(const Call& call) const {
        std::string text(call.operation->name);
        for (size_t i = 0; i < call.arguments.size(); ++i) {
            text += WordsOf(call.operation->parameters[i], call.arguments[i]);
        }
        return text;
    }

    std::string operator()(const Recording& recording) const {
        std::string text = std::string(RECORDING) + " " + std::to_string(recording.frames);
        return recording.first ? text + " " + std::to_string(*recording.first) : text;
    }

    std::string operator()(const Wait& wait) const {
        std::string text = std::string(WAIT) + " " + std::to_string(wait.micros / 1000);
        if (wait.micros % 1000 != 0) {
            // All three decimals, of which a one in front keeps the zeros; those at the end go.
            text += "." + std::to_string(1000 + wait.micros % 1000).substr(1);
            text.erase(text.find_last_not_of('0') + 1);
        }
        return text;
    }

    std::string operator()(const ServiceStatus& status) const {
        return std::string(STATUS) + " " + NameOf(status.function) + " " +
               std::to_string(status.status);
    }
};

}  // namespace

Line ParseLine(std::string_view line) {
    const std::vector<Word> words = SplitWords(line);
    if (words.empty()) {
        const size_t start = std::min(line.find('#'), line.size());
        const size_t end = line.find_last_not_of(BLANKS) + 1;
        return Comment{std::string(line.substr(start, std::max(start, end) - start))};
    }
    const Word& name = words.front();
    if (!name.isQuoted) {
        if (name.text == RECORDING) {
            return ParseRecording(words);
        }
        if (name.text == WAIT) {
            return ParseWait(words);
        }
        if (name.text == STATUS) {
            return ParseServiceStatus(words);
        }
        if (const Operation* operation = FindOperation(name.text)) {
            return ParseCall(*operation, words);
        }
    }
    std::vector<std::string_view> names = {RECORDING, WAIT, STATUS};
    for (const Operation& operation : Operations()) {
        names.push_back(operation.name);
    }
    const auto meant = Meant(name.text, names);
    throw SessionError(Quoted(name.text) + " is not known, expected " +
                       (meant ? std::string(*meant) + ", if that was meant"
                              : "an operation of TarvoCameraFrameBoost, " + std::string(RECORDING) +
                                    ", " + std::string(WAIT) + " or " + std::string(STATUS)));
}

std::vector<Value> ParseValues(const Operation& operation, std::string_view line) {
    std::vector<Word> words = SplitWords(line);
    if (words.empty()) {
        return {};
    }
    words.insert(words.begin(), Word{});
    return ParseCall(operation, words).arguments;
}

std::string ServiceFunctionNames(std::string_view separator) {
    std::string names;
    for (size_t i = 0; i < desktop::SERVICE_FUNCTION_COUNT; ++i) {
        names += names.empty() ? "" : separator;
        names += NameOf(static_cast<desktop::ServiceFunction>(i));
    }
    return names;
}

std::string WriteLine(const Line& line) {
    return std::visit(Writer{}, line);
}

Session::Session(std::istream& in) : text(std::istreambuf_iterator<char>(in), {}) {
    constexpr std::string_view mark = "\xEF\xBB\xBF";
    if (text.compare(0, mark.size(), mark) == 0) {
        text.erase(0, mark.size());
    }
    Parse([](uint32_t, const Line&) { return true; },
          [this](uint32_t number, const SessionError& error) {
              Finding finding{"session-line", Severity::Error, error.what(), {0, number}, 0, {}};
              errors.push_back(std::move(finding));
          });
}

void Session::ForEachLine(const std::function<bool(uint32_t, const Line&)>& use) const {
    Parse(use, [](uint32_t, const SessionError&) {});
}

void Session::Parse(const std::function<bool(uint32_t, const Line&)>& use,
                    const std::function<void(uint32_t, const SessionError&)>& complain) const {
    uint32_t number = 0;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        const std::string_view line = std::string_view(text).substr(at, end - at);
        at = end + 1;
        ++number;
        std::optional<Line> parsed;
        try {
            parsed = ParseLine(line);
        } catch (const SessionError& error) {
            complain(number, error);
        }
        if (parsed && !use(number, *parsed)) {
            return;
        }
    }
}

std::string DescribeFormat() {
    std::ostringstream text;
    text << "A session file holds one HAL call a line: the operation and its arguments, separated\n"
            "by blanks. Numbers are decimal or 0x hexadecimal, flags true or false, names plain\n"
            "words or text in double quotes. '#' starts a comment. The calls:\n\n";
    for (const Operation& operation : Operations()) {
        text << "  " << UsageOf(operation) << '\n';
    }
    text << "\nand, in between:\n\n  " << RECORDING_USAGE
         << "\n\n"
            "plays that many frames of a normal recording: each node of the loaded stage table\n"
            "reports each frame, one stage after another, with as many frames in flight as there\n"
            "are stages. It starts at firstFrame, else where the last one left off, else at 1.\n"
            "Each frame takes its time at the scene's frame rate.\n\n  "
         << WAIT_USAGE << "\n\nlets time pass, to three decimals.\n\n  " << STATUS_USAGE
         << "\n\nsets what the boost service answers from there on. Its functions:\n\n  "
         << ServiceFunctionNames("\n  ") << '\n';
    return text.str();
}

}  // namespace tools
