#include "tools/session/session.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <utility>

#include "tools/base/cursor.h"
#include "tools/base/finding.h"
#include "tools/check/check.h"

namespace tools {
namespace {

// The functions of the boost service by their names.
std::string ServiceFunctionNames(std::string_view separator) {
    std::array<std::string_view, desktop::SERVICE_FUNCTION_COUNT> names;
    for (size_t i = 0; i < names.size(); ++i) {
        names[i] = NameOf(static_cast<desktop::ServiceFunction>(i));
    }
    return fmt::format("{}", fmt::join(names, separator));
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
    Call call{&form, {}};
    const size_t count = form.types.size();
    if (count == 1 && IsList(form.types[0])) {
        std::vector<int32_t> list;
        for (size_t i = 1; i < words.size(); ++i) {
            list.push_back(ReadInteger<int32_t>(words[i], form.parameters[0]));
        }
        call.arguments.emplace_back(std::move(list));
        return call;
    }
    RequireWords(words, 1 + count, 1 + count, UsageOf(form));
    for (size_t i = 0; i < count; ++i) {
        call.arguments.push_back(ParseValue(form.parameters[i], form.types[i], words[1 + i]));
    }
    return call;
}

Line ParseRecording(const std::vector<Word>& words) {
    Recording recording{ReadInteger<int64_t>(words[1], "frames", 1, MAX_FRAMES), {}};
    if (words.size() == 3) {
        recording.first = ReadInteger<int64_t>(
            words[2], "firstFrame", 1, std::numeric_limits<int64_t>::max() - 2 * MAX_FRAMES);
    }
    return recording;
}

Line ParseWait(const std::vector<Word>& words) {
    const std::string& text = words[1].text;
    char* end = nullptr;
    const double millis = std::strtod(text.c_str(), &end);
    if (words[1].isQuoted || *end != '\0' || !(millis >= 0 && millis * MILLISECOND <= MAX_WAIT)) {
        throw LineError(fmt::format("milliseconds is {}, expected a number from 0 to {}",
                                    Quoted(text), MAX_WAIT / MILLISECOND));
    }
    return Wait{std::llround(millis * MILLISECOND)};
}

Line ParseServiceStatus(const std::vector<Word>& words) {
    const auto function = desktop::ServiceFunctionOf(words[1].text);
    if (!function || words[1].isQuoted) {
        throw LineError("function is " + Quoted(words[1].text) + ", expected one of " +
                        ServiceFunctionNames(", "));
    }
    return ServiceStatus{*function, ReadInteger<int32_t>(words[2], "status")};
}

// The lines that are no calls of the library.
constexpr struct {
    std::string_view name, parameters;
    size_t fewest, most;  // How many words there are.
    Line (*parse)(const std::vector<Word>& words);
    std::string_view meaning;
} OTHER_LINES[] = {
    {"PlayRecording", "frames [firstFrame]", 2, 3, ParseRecording,
     "plays that many frames of a normal recording: each node of the loaded stage table reports "
     "each frame, one stage after another, with as many frames in flight as there are stages. It "
     "starts at firstFrame, else where the last one left off, else at 1. Each frame takes its time "
     "at the scene's frame rate."},
    {"Wait", "milliseconds", 2, 2, ParseWait, "lets time pass, to three decimals."},
    {"ServiceStatus", "function status", 3, 3, ParseServiceStatus,
     "sets what the boost service answers from there on. Its functions:"},
};

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

}  // namespace

Line ParseLine(std::string_view line) {
    const std::vector<Word> words = SplitWords(line);
    if (words.empty()) {
        const size_t start = std::min(line.find('#'), line.size());
        const size_t end = line.find_last_not_of(BLANKS) + 1;
        return Comment{std::string(line.substr(start, std::max(start, end) - start))};
    }
    const Word& name = words.front();
    std::vector<std::string> names;
    for (const auto& other : OTHER_LINES) {
        if (other.name == name.text && !name.isQuoted) {
            RequireWords(words, other.fewest, other.most,
                         fmt::format("{} {}", other.name, other.parameters));
            return other.parse(words);
        }
        names.emplace_back(other.name);
    }
    for (const OperationForm& form : Operations()) {
        if (form.name == name.text && !name.isQuoted) {
            return ParseCall(form, words);
        }
        names.emplace_back(form.name);
    }
    const auto meant = Meant(name.text, names);
    throw LineError(fmt::format("{} is not known, expected {}", Quoted(name.text),
                                meant ? fmt::format("{}, if that was meant", *meant)
                                      : "an operation of TarvoCameraFrameBoost, PlayRecording, "
                                        "Wait or ServiceStatus"));
}

std::string WriteLine(const Line& line) {
    if (const auto* comment = std::get_if<Comment>(&line)) {
        return comment->text;
    }
    if (const auto* recording = std::get_if<Recording>(&line)) {
        return fmt::format("PlayRecording {}{}", recording->frames,
                           recording->first ? fmt::format(" {}", *recording->first) : "");
    }
    if (const auto* wait = std::get_if<Wait>(&line)) {
        return fmt::format("Wait {}", static_cast<double>(wait->micros) / MILLISECOND);
    }
    if (const auto* status = std::get_if<ServiceStatus>(&line)) {
        return fmt::format("ServiceStatus {} {}", NameOf(status->function), status->status);
    }
    const Call& call = std::get<Call>(line);
    std::string text(call.form->name);
    for (size_t i = 0; i < call.arguments.size(); ++i) {
        const std::string word = TextOf(call.form->parameters[i], call.arguments[i]);
        text += (word.empty() ? "" : " ") + word;
    }
    return text;
}

void ForEachLine(std::string_view file, const std::function<bool(uint32_t, const Line&)>& use,
                 const std::function<void(uint32_t, const LineError&)>& complain) {
    Skip(file, "\xEF\xBB\xBF");
    for (uint32_t number = 1; !file.empty(); ++number) {
        const std::string_view line = file.substr(0, file.find('\n'));
        file.remove_prefix(std::min(line.size() + 1, file.size()));
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
    text << "\nand, in between:\n";
    for (const auto& other : OTHER_LINES) {
        text << "\n  " << other.name << ' ' << other.parameters << "\n\n" << other.meaning << '\n';
    }
    text << "\n  " << ServiceFunctionNames("\n  ") << '\n';
    return text.str();
}

}  // namespace tools
