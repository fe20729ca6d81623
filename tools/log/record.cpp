#include "tools/log/record.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <sstream>
#include <utility>

#include "tools/base/times.h"

namespace tools {
namespace {

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

}  // namespace

std::optional<Format> FormatOf(std::string_view name) {
    constexpr std::pair<std::string_view, void (*)(Format&)> WORDS[] = {
        {"threadtime", [](Format& format) { format.hasThread = true; }},
        {"time", [](Format& format) { format.hasThread = false; }},
        {"year", [](Format& format) { format.hasYear = true; }},
        {"usec", [](Format& format) { format.digits = 6; }},
        {"nsec", [](Format& format) { format.digits = 9; }},
        {"zone", [](Format& format) { format.hasZone = true; }},
        {"UTC", [](Format& format) { format.hasZone = true; }},
        {"epoch", [](Format& format) { format.isEpoch = true; }},
        {"monotonic", [](Format& format) { format.isMonotonic = true; }},
        {"uid", [](Format& format) { format.hasUid = true; }},
    };
    Format format;
    std::istringstream words{std::string(name)};
    for (std::string word; std::getline(words, word, ',');) {
        const auto* const known =
            std::find_if(std::begin(WORDS), std::end(WORDS),
                         [&word](const auto& one) { return one.first == word; });
        if (known == std::end(WORDS)) {
            return std::nullopt;
        }
        known->second(format);
    }
    return format;
}

void AppendRecord(std::string& text, const Format& format, const Record& record) {
    using std::chrono::floor, std::chrono::seconds, std::chrono::microseconds;
    const int64_t second = floor<seconds>(microseconds(record.time)).count();
    const auto end = std::back_inserter(text);
    if (format.isEpoch || format.isMonotonic) {
        fmt::format_to(end, "{:{}}", second, format.isMonotonic ? 6 : 19);
    } else {
        text += DateOf(second).substr(format.hasYear ? 0 : sizeof("YYYY"));
    }
    const int64_t nanoseconds = (record.time - second * SECOND) * 1000;
    text.append(fmt::format(".{:09}", nanoseconds), 0, 1 + format.digits);
    text += format.hasZone && !format.isEpoch && !format.isMonotonic ? " +0000" : "";
    if (format.hasThread) {
        fmt::format_to(end, " {}{:5} {:5} {} {:8}: ", format.hasUid ? " 1047 " : "", record.process,
                       record.thread, record.priority, record.tag);
    } else {
        fmt::format_to(end, " {}/{:8}({}{:5}): ", record.priority, record.tag,
                       format.hasUid ? " 1047:" : "", record.process);
    }
    text += record.message;
    text += '\n';
}

}  // namespace tools
