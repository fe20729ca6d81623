#include "tools/log/record.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <iterator>
#include <utility>

#include "tools/base/times.h"

namespace tools {
namespace {

// Whom a camera HAL runs as, Android's user "cameraserver". A record does not know its own.
constexpr std::string_view USER = " 1047";
constexpr size_t TAG_WIDTH = 8;

// A form: what stands around a message. D stands for the time, P for the priority, T for the padded
// tag, t for the bare one, I for user and process, J for the thread; the rest is itself.
struct Layout {
    std::string_view name;
    std::string_view before;
    std::string_view after;
};

// In the order of Form.
constexpr std::array<Layout, 8> LAYOUTS = {{
    {"brief", "P/T(I): ", "\n"},
    {"process", "P(I) ", "  (t)\n"},
    {"tag", "P/T: ", "\n"},
    {"thread", "P(I:J) ", "\n"},
    {"raw", "", "\n"},
    {"time", "D P/T(I): ", "\n"},
    {"threadtime", "D I J P T: ", "\n"},
    {"long", "[ D I:J P/T ]\n", "\n\n"},
}};

// "YYYY-MM-DD hh:mm:ss". Lines come by the thousand a second, so it is made once a second.
std::string_view DateOf(int64_t second) {
    thread_local int64_t shownSecond = 0;
    thread_local std::string shown;
    if (shown.empty() || second != shownSecond) {
        shown = fmt::format("{:%F %T}", fmt::gmtime(second));
        shownSecond = second;
    }
    return shown;
}

void AppendTime(std::string& text, const Format& format, int64_t time) {
    using std::chrono::floor, std::chrono::seconds, std::chrono::microseconds;
    const int64_t second = floor<seconds>(microseconds(time)).count();
    if (format.isEpoch || format.isMonotonic) {
        text += fmt::format("{:{}}", second, format.isMonotonic ? 6 : 19);
    } else {
        const std::string_view date = DateOf(second);
        text += format.hasYear ? date : date.substr(date.find('-', 1) + 1);
    }
    const int64_t nanoseconds = (time - second * SECOND) * 1000;
    text.append(fmt::format(".{:09}", nanoseconds), 0, 1 + format.digits);
    text += format.hasZone && !format.isEpoch && !format.isMonotonic ? " +0000" : "";
}

std::string_view ColorOf(char priority) {
    return priority == 'D'                      ? "\x1B[38;5;75m"
           : priority == 'I'                    ? "\x1B[38;5;40m"
           : priority == 'W'                    ? "\x1B[38;5;166m"
           : priority == 'E' || priority == 'F' ? "\x1B[38;5;196m"
                                                : "\x1B[38;5;231m";
}

void AppendLayout(std::string& text, const Format& format, const Record& record,
                  std::string_view layout) {
    for (const char part : layout) {
        switch (part) {
            case 'D':
                AppendTime(text, format, record.time.value_or(0));
                break;
            case 'P':
                text += record.priority;
                break;
            case 'T':
                text += record.tag;
                text.append(TAG_WIDTH - std::min(TAG_WIDTH, record.tag.size()), ' ');
                break;
            case 't':
                text += record.tag;
                break;
            case 'I':
                if (format.hasUid) {
                    text += USER;
                    text += format.form == Form::Threadtime ? ' ' : ':';
                }
                fmt::format_to(std::back_inserter(text), "{:5}", record.process);
                break;
            case 'J':
                fmt::format_to(std::back_inserter(text), "{:5}", record.thread);
                break;
            default:
                text += part;
        }
    }
}

void AppendMessage(std::string& text, const Format& format, std::string_view message) {
    constexpr std::string_view escaped = "\a\b\v\f\r\\";
    constexpr std::string_view letters = "abvfr\\";
    if (!format.isPrintable) {
        text += message;
        return;
    }
    for (const char character : message) {
        const auto code = static_cast<unsigned char>(character);
        const size_t letter = escaped.find(character);
        if (letter != std::string_view::npos) {
            text += {'\\', letters[letter]};
        } else if (code < ' ' && character != '\t' && character != '\n') {
            text += '\\';
            text += code >= 8 ? std::string{char('0' + code / 8)} : "";
            text += char('0' + code % 8);
        } else {
            text += character;
        }
    }
}

// Whether `word` is a modifier; if so it is in `format`.
bool SetModifier(Format& format, std::string_view word) {
    const std::pair<std::string_view, bool*> flags[] = {
        {"year", &format.hasYear},   {"zone", &format.hasZone},          {"UTC", &format.hasZone},
        {"epoch", &format.isEpoch},  {"monotonic", &format.isMonotonic}, {"uid", &format.hasUid},
        {"color", &format.hasColor}, {"printable", &format.isPrintable},
    };
    for (const auto& [name, flag] : flags) {
        if (word == name) {
            *flag = true;
            return true;
        }
    }
    if (word == "usec" || word == "nsec") {
        format.digits = word == "usec" ? 6 : 9;
        return true;
    }
    return false;
}

}  // namespace

std::optional<Format> FormatOf(std::string_view name) {
    Format format;
    bool hasForm = false;
    for (size_t at = 0; at <= name.size();) {
        const size_t end = std::min(name.find(',', at), name.size());
        const std::string_view word = name.substr(at, end - at);
        at = end + 1;
        const auto* const layout =
            std::find_if(LAYOUTS.begin(), LAYOUTS.end(),
                         [word](const Layout& candidate) { return candidate.name == word; });
        if (layout != LAYOUTS.end() && !hasForm) {
            format.form = static_cast<Form>(layout - LAYOUTS.begin());
            hasForm = true;
        } else if (layout != LAYOUTS.end() || !SetModifier(format, word)) {
            return std::nullopt;
        }
    }
    return format;
}

void AppendRecord(std::string& text, const Format& format, const Record& record) {
    const Layout& layout = LAYOUTS[static_cast<size_t>(format.form)];
    const std::string_view message = record.message;
    // Each line of a message gets what stands around it; a line end at its end begins none.
    for (size_t at = 0;;) {
        const size_t end =
            std::min(format.form == Form::Long ? std::string_view::npos : message.find('\n', at),
                     message.size());
        text += format.hasColor ? ColorOf(record.priority) : "";
        AppendLayout(text, format, record, layout.before);
        AppendMessage(text, format, message.substr(at, end - at));
        text += format.hasColor ? "\x1B[0m" : "";
        AppendLayout(text, format, record, layout.after);
        at = end + 1;
        if (at >= message.size()) {
            return;
        }
    }
}

}  // namespace tools
