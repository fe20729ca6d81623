#include "tools/log/record.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <iterator>
#include <utility>

#include "tools/base/times.h"

namespace tools {
namespace {

// Whom a camera HAL runs as, Android's user "cameraserver". A record does not know its own.
constexpr std::string_view USER = " 1047";

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

// The record up to its message.
void AppendHead(std::string& text, const Format& format, const Record& record) {
    AppendTime(text, format, record.time);
    const std::string_view user = format.hasUid ? USER : "";
    const auto end = std::back_inserter(text);
    if (format.hasThread) {
        fmt::format_to(end, " {}{}{:5} {:5} {} {:8}: ", user, user.empty() ? "" : " ",
                       record.process, record.thread, record.priority, record.tag);
    } else {
        fmt::format_to(end, " {}/{:8}({}{}{:5}): ", record.priority, record.tag, user,
                       user.empty() ? "" : ":", record.process);
    }
}

}  // namespace

std::optional<Format> FormatOf(std::string_view name) {
    Format format;
    bool hasForm = false;
    const std::pair<std::string_view, bool*> flags[] = {
        {"year", &format.hasYear},  {"zone", &format.hasZone},          {"UTC", &format.hasZone},
        {"epoch", &format.isEpoch}, {"monotonic", &format.isMonotonic}, {"uid", &format.hasUid},
    };
    for (size_t at = 0; at <= name.size();) {
        const size_t end = std::min(name.find(',', at), name.size());
        const std::string_view word = name.substr(at, end - at);
        at = end + 1;
        const auto* const flag =
            std::find_if(std::begin(flags), std::end(flags),
                         [word](const auto& one) { return one.first == word; });
        if (flag != std::end(flags)) {
            *flag->second = true;
        } else if (word == "usec" || word == "nsec") {
            format.digits = word == "usec" ? 6 : 9;
        } else if ((word == "threadtime" || word == "time") && !std::exchange(hasForm, true)) {
            format.hasThread = word == "threadtime";
        } else {
            return std::nullopt;
        }
    }
    return format;
}

void AppendRecord(std::string& text, const Format& format, const Record& record) {
    const std::string_view message = record.message;
    // Each line of a message has the head before it; a line end at its end begins none.
    for (size_t at = 0;;) {
        const size_t end = std::min(message.find('\n', at), message.size());
        AppendHead(text, format, record);
        text += message.substr(at, end - at);
        text += '\n';
        at = end + 1;
        if (at >= message.size()) {
            return;
        }
    }
}

}  // namespace tools
