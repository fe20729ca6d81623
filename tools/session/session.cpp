#include "tools/session/session.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <limits>
#include <sstream>
#include <utility>

#include "tools/check/check.h"

namespace tools {
namespace {

constexpr std::string_view RECORDING = "PlayRecording";
constexpr std::string_view WAIT = "Wait";
constexpr std::string_view STATUS = "ServiceStatus";
// Two days of video; more than that is taken for a slip.
constexpr int64_t MAX_RECORDING_FRAMES = 10'000'000;
constexpr int64_t MAX_WAIT_MILLIS = MAX_WAIT / MILLISECOND;

// The functions of the boost service by their names.
std::string ServiceFunctionNames(std::string_view separator) {
    std::string names;
    for (size_t i = 0; i < desktop::SERVICE_FUNCTION_COUNT; ++i) {
        names += names.empty() ? "" : separator;
        names += NameOf(static_cast<desktop::ServiceFunction>(i));
    }
    return names;
}

Value ParseValue(std::string_view parameter, const Value& type, const Word& word) {
    if (std::holds_alternative<bool>(type)) {
        if (word.isQuoted || (word.text != "true" && word.text != "false")) {
            throw LineError(
                fmt::format("{} is {}, expected true or false", parameter, Quoted(word.text)));
        }
        return word.text == "true";
    }
    if (std::holds_alternative<int32_t>(type)) {
        return ReadInteger<int32_t>(word, parameter);
    }
    if (std::holds_alternative<int64_t>(type)) {
        return ReadInteger<int64_t>(word, parameter);
    }
    return word.text;
}

bool IsList(const Value& type) {
    return std::holds_alternative<std::vector<int32_t>>(type);
}

// "Name parameter parameter", as a line has it.
std::string UsageOf(const OperationForm& form) {
    std::string usage(form.name);
    for (size_t i = 0; i < form.parameters.size(); ++i) {
        usage += fmt::format(" {}{}", form.parameters[i], IsList(form.types[i]) ? "..." : "");
    }
    return usage;
}

Call ParseCall(const OperationForm& form, const std::vector<Word>& words) {
    Call call{form.operation, {}};
    size_t next = 1;
    for (size_t i = 0; i < form.parameters.size(); ++i) {
        const std::string_view parameter = form.parameters[i];
        if (IsList(form.types[i])) {
            // A list takes all that is left.
            std::vector<int32_t> list;
            for (; next < words.size(); ++next) {
                list.push_back(ReadInteger<int32_t>(words[next], parameter));
            }
            call.arguments.emplace_back(std::move(list));
        } else if (next < words.size()) {
            call.arguments.push_back(ParseValue(parameter, form.types[i], words[next++]));
        } else {
            throw LineError(fmt::format("{} is missing, expected {}", parameter, UsageOf(form)));
        }
    }
    if (next < words.size()) {
        throw LineError(Quoted(words[next].text) + " is one too many, expected " + UsageOf(form));
    }
    return call;
}

// Of the lines that are no calls of the library.
constexpr std::string_view RECORDING_USAGE = "PlayRecording frames [firstFrame]";
constexpr std::string_view WAIT_USAGE = "Wait milliseconds";
constexpr std::string_view STATUS_USAGE = "ServiceStatus function status";

Line ParseRecording(const std::vector<Word>& words) {
    RequireWords(words, 2, 3, RECORDING_USAGE);
    Recording recording{ReadInteger<int64_t>(words[1], "frames", 1, MAX_RECORDING_FRAMES), {}};
    if (words.size() == 3) {
        recording.first =
            ReadInteger<int64_t>(words[2], "firstFrame", 1,
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
        throw LineError(fmt::format(
            "milliseconds is {}, expected a number from 0 to {} with up to three decimals",
            Quoted(text), MAX_WAIT_MILLIS));
    }
    return Wait{int64_t{*millis} * 1000 + *micros};
}

Line ParseServiceStatus(const std::vector<Word>& words) {
    RequireWords(words, 3, 3, STATUS_USAGE);
    const auto function = desktop::ServiceFunctionOf(words[1].text);
    if (!function || words[1].isQuoted) {
        throw LineError("function is " + Quoted(words[1].text) + ", expected one of " +
                        ServiceFunctionNames(", "));
    }
    return ServiceStatus{*function, ReadInteger<int32_t>(words[2], "status")};
}

std::string TextOf(std::string_view parameter, const Value& value) {
    if (parameter == OPERATION_MODE) {
        return ModeText(std::get<int32_t>(value));
    }
    if (const auto* name = std::get_if<std::string>(&value)) {
        return WordOf(*name);
    }
    if (const auto* list = std::get_if<std::vector<int32_t>>(&value)) {
        return fmt::format("{}", fmt::join(*list, " "));
    }
    return std::visit([](const auto& held) { return fmt::format("{}", held); }, value);
}

struct Writer {
    std::string operator()(const Comment& comment) const { return comment.text; }

    std::string operator()(const Call& call) const {
        const OperationForm& form = FormOf(call.operation);
        std::string text(form.name);
        for (size_t i = 0; i < call.arguments.size(); ++i) {
            const std::string word = TextOf(form.parameters[i], call.arguments[i]);
            text += (word.empty() ? "" : " ") + word;
        }
        return text;
    }

    std::string operator()(const Recording& recording) const {
        const std::string text = fmt::format("{} {}", RECORDING, recording.frames);
        return recording.first ? fmt::format("{} {}", text, *recording.first) : text;
    }

    std::string operator()(const Wait& wait) const {
        return fmt::format("{} {}", WAIT, static_cast<double>(wait.micros) / MILLISECOND);
    }

    std::string operator()(const ServiceStatus& status) const {
        return fmt::format("{} {} {}", STATUS, NameOf(status.function), status.status);
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
        for (const OperationForm& form : Operations()) {
            if (form.name == name.text) {
                return ParseCall(form, words);
            }
        }
    }
    std::vector<std::string_view> names = {RECORDING, WAIT, STATUS};
    for (const OperationForm& form : Operations()) {
        names.push_back(form.name);
    }
    const auto meant = Meant(name.text, names);
    throw LineError(
        fmt::format("{} is not known, expected {}", Quoted(name.text),
                    meant ? fmt::format("{}, if that was meant", *meant)
                          : fmt::format("an operation of TarvoCameraFrameBoost, {}, {} or {}",
                                        RECORDING, WAIT, STATUS)));
}

std::string WriteLine(const Line& line) {
    return std::visit(Writer{}, line);
}

Session::Session(std::string file) : text(std::move(file)) {
    if (text.starts_with("\xEF\xBB\xBF")) {
        text.erase(0, 3);
    }
    ForEachLine([](uint32_t, const Line&) { return true; },
                [this](uint32_t number, const LineError& error) {
                    errors.push_back({"session-line", Severity::Error, error.what(), {0, number}});
                });
}

void Session::ForEachLine(const std::function<bool(uint32_t, const Line&)>& use,
                          const std::function<void(uint32_t, const LineError&)>& complain) const {
    uint32_t number = 0;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        const std::string_view line = std::string_view(text).substr(at, end - at);
        at = end + 1;
        ++number;
        std::optional<Line> parsed;
        try {
            parsed = ParseLine(line);
        } catch (const LineError& error) {
            complain(number, error);
        }
        if (parsed && !use(number, *parsed)) {
            return;
        }
    }
}

std::string DescribeFormat() {
    std::ostringstream text;
    text << "A session file holds one HAL call a line: the operation and its arguments, separated "
            "by blanks. Numbers are decimal or 0x hexadecimal, flags true or false, names plain "
            "words or text in double quotes. '#' starts a comment. The calls:\n\n";
    for (const OperationForm& form : Operations()) {
        text << "  " << UsageOf(form) << '\n';
    }
    text << "\nand, in between:\n\n  " << RECORDING_USAGE
         << "\n\n"
            "plays that many frames of a normal recording: each node of the loaded stage table "
            "reports each frame, one stage after another, with as many frames in flight as there "
            "are stages. It starts at firstFrame, else where the last one left off, else at 1. "
            "Each frame takes its time at the scene's frame rate.\n\n  "
         << WAIT_USAGE << "\n\nlets time pass, to three decimals.\n\n  " << STATUS_USAGE
         << "\n\nsets what the boost service answers from there on. Its functions:\n\n  "
         << ServiceFunctionNames("\n  ") << '\n';
    return text.str();
}

}  // namespace tools
