#include "tools/log/record_reader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <utility>

#include "tools/base/cursor.h"
#include "tools/base/times.h"
#include "tools/base/words.h"
#include "tools/log/message.h"

namespace tools {
namespace {

// Longer than any line that logcat writes; what goes beyond is dropped.
constexpr size_t MAX_LINE = 65'536;
constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";
constexpr std::string_view PRIORITIES = "VDIWEFS?";
constexpr int64_t MAX_SECONDS = 1'000'000'000'000;

bool Contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

// A process or thread id; -1 for what is none.
int32_t IdOf(std::string_view text) {
    return std::max(ReadDigits<int32_t>(text).value_or(-1), -1);
}

bool SkipPriority(std::string_view& text) {
    const bool isThere = !text.empty() && PRIORITIES.find(text[0]) != std::string_view::npos;
    text.remove_prefix(isThere ? 1 : 0);
    return isThere;
}

// Takes one of the tags that matter and its padding; leaves `tag` empty for another program's.
// False where there is no tag, or only a part of one that matters.
bool TakeTag(std::string_view& text, std::string_view& tag) {
    for (const std::string_view known : {FACADE_TAG, UTILS_TAG, CHATTY_TAG}) {
        if (Skip(text, known)) {
            tag = known;
            SkipBlanks(text);
            return true;
        }
    }
    const size_t end = text.find(": ");
    return end != std::string_view::npos && !Contains(text.substr(0, end), FACADE_TAG);
}

// What separates a head from its message, whose blank may have gone with an empty message.
bool SkipColon(std::string_view& text) {
    return Skip(text, ": ") || (text == ":" && Skip(text, ":"));
}

// Takes "(user:process)", the user where the form has it.
bool TakeProcess(std::string_view& text, int32_t& process) {
    const size_t close = text.find(')');
    if (!Skip(text, "(") || close == std::string_view::npos) {
        return false;
    }
    std::string_view id = text.substr(0, close - 1);
    text.remove_prefix(close);
    id.remove_prefix(id.rfind(':') + 1);
    SkipBlanks(id);
    process = IdOf(id);
    return process >= 0;
}

}  // namespace

// ---- Encodings ----

std::string_view Utf8Decoder::Decode(std::string_view bytes) {
    if (isKnown && !fromUtf16) {
        return bytes;
    }
    pending += bytes;
    if (!isKnown) {
        if (pending.size() < 2) {
            return {};
        }
        isKnown = true;
        if (!pending.starts_with("\xFF\xFE") && !pending.starts_with("\xFE\xFF")) {
            text = std::exchange(pending, {});
            return text;
        }
        fromUtf16.reset(iconv_open("UTF-8", "UTF-16"));  // In the order that the mark shows.
    }
    text.resize(2 * pending.size());  // Two bytes become three at most.
    char* next = pending.data();
    size_t left = pending.size();
    char* out = text.data();
    size_t room = text.size();
    // Half of a character that takes two units, alone, is left out.
    while (iconv(fromUtf16.get(), &next, &left, &out, &room) == SIZE_MAX && errno == EILSEQ) {
        next += 2;
        left -= 2;
    }
    text.resize(text.size() - room);
    pending.erase(0, pending.size() - left);
    return text;
}

std::string_view Utf8Decoder::Rest() {
    if (isKnown) {
        pending.clear();
    }
    return pending;
}

// ---- Lines ----

void RecordReader::Begin(uint32_t input) {
    place = {input, 0};
    isLog = true;
    dateText.clear();
}

void RecordReader::Read(std::string_view bytes) {
    ReadText(decoder.Decode(bytes));
}

void RecordReader::ReadText(std::string_view text) {
    SplitLines(text, carry, MAX_LINE, [this](std::string_view line) { ReadLine(line); });
}

void RecordReader::ReadLine(std::string_view line) {
    ++lines;
    ++place.line;
    line = line.substr(0, line.find_last_not_of('\r') + 1);
    if (line.starts_with("------ ")) {
        isLog = Contains(line, "(logcat");
    }
    Skip(line, BYTE_ORDER_MARK);
    // Most lines of a device are not the library's.
    Record record;
    if (Contains(line, FACADE_TAG) || Contains(line, CHATTY_TAG)) {
        const bool isWhole = ReadHead(line, record);
        if (isWhole && !record.tag.empty()) {
            return sink.OnRecord(record, place);
        }
        if (isLog && !isWhole && Contains(line, LIBRARY_FILE)) {
            return sink.OnRecord({.message = line, .isWhole = false}, place);
        }
    }
    // "01-01 12:00:02.000   100   101 I ActivityManager: ..."
    const bool isTimed = !line.empty() && (IsDigit(line[0]) || line[0] == ' ');
    if (isTimed && isLog && ReadTime(line, record.time)) {
        sink.OnTime(record.time);
    }
}

void RecordReader::End() {
    const std::string rest(decoder.Rest());
    decoder = {};  // Of the files in a zip, each has an encoding of its own.
    ReadText(rest);
    // Without a line end, the last line may be a part of one: a number would be another number.
    if (!carry.empty()) {
        ++lines;
        ++place.line;
        if (Contains(carry, FACADE_TAG)) {
            sink.OnRecord({.message = carry, .isWhole = false}, place);
        }
        carry.clear();
    }
}

// ---- Forms ----

// "01-31 23:59:59.999 " and then, in threadtime, " 1047   321  4321 D tag     : ", the user where
// the form has it; in time, "D/tag     ( 1047:  321): ". Whether the line is a record; the tag of
// another program's stays empty.
bool RecordReader::ReadHead(std::string_view line, Record& record) {
    std::string_view& rest = record.message = line;
    if (!ReadTime(rest, record.time)) {
        return false;
    }
    SkipBlanks(rest);
    if (rest.size() > 1 && rest[1] == '/') {
        return SkipPriority(rest) && Skip(rest, "/") && TakeTag(rest, record.tag) &&
               (record.tag.empty() || (TakeProcess(rest, record.process) && SkipColon(rest)));
    }
    // The last two words before the priority, which is no number.
    for (int words = 0; words < 2 || rest.size() < 2 || rest[1] != ' ' || IsDigit(rest[0]);
         ++words) {
        const std::string_view word = rest.substr(0, rest.find(' '));
        if (words == 3 || word.empty()) {
            return false;
        }
        record.process = std::exchange(record.thread, IdOf(word));
        rest.remove_prefix(word.size());
        SkipBlanks(rest);
    }
    return record.process >= 0 && record.thread >= 0 && SkipPriority(rest) && Skip(rest, " ") &&
           TakeTag(rest, record.tag) && (record.tag.empty() || SkipColon(rest));
}

// A date and a time of day, or seconds since 1970 or since boot; then the zone, where there is one.
bool RecordReader::ReadTime(std::string_view& rest, int64_t& time) {
    int64_t seconds = 0;
    if (!ReadDate(rest, seconds)) {
        SkipBlanks(rest);
        if (!TakeNumber(rest, seconds) || seconds < 0 || seconds > MAX_SECONDS) {
            return false;
        }
    }
    if (!Skip(rest, ".")) {
        return false;
    }
    size_t digits = rest.size();
    int64_t fraction = 0;  // In nanoseconds.
    if (rest.empty() || !IsDigit(rest[0]) || !TakeNumber(rest, fraction)) {
        return false;
    }
    digits -= rest.size();
    if (digits < 3 || digits > 9) {
        return false;
    }
    for (; digits < 9; ++digits) {
        fraction *= 10;
    }
    // " +0530"
    std::string_view zone = rest;
    int64_t offset = 0;
    if (Skip(zone, " ") && (Skip(zone, "+") || zone.starts_with('-')) && TakeNumber(zone, offset)) {
        seconds -= 60 * (offset / 100 * 60 + offset % 100);
        rest = zone;
    }
    time = seconds * SECOND + fraction / 1000;
    return Skip(rest, " ");
}

// "YYYY-MM-DD hh:mm:ss", the year where the form has it.
bool RecordReader::ReadDate(std::string_view& rest, int64_t& seconds) {
    if (!dateText.empty() && Skip(rest, dateText)) {
        seconds = dateSeconds;
        return true;
    }
    constexpr std::string_view SEPARATORS[] = {"", "-", "-", " ", ":", ":"};
    std::array<int64_t, std::size(SEPARATORS)> numbers{};
    auto& [number, month, day, hour, minute, second] = numbers;
    std::string_view text = rest;
    const bool hasYear = text.size() > 4 && text[4] == '-';
    const size_t first = hasYear ? 0 : 1;
    for (size_t i = first; i < numbers.size(); ++i) {
        if ((i > first && !Skip(text, SEPARATORS[i])) || !TakeNumber(text, numbers[i])) {
            return false;
        }
    }
    if (month < 1 || month > 12 || day < 1 || day > 31) {
        return false;
    }
    if (!hasYear) {
        // From December to January the year turns; lines of threads may stand the other way round.
        year += lastMonth == 12 && month == 1 ? 1 : 0;
        year -= lastMonth == 1 && month == 12 && year > MADE_UP_YEAR ? 1 : 0;
        lastMonth = static_cast<int32_t>(month);
        number = year;
    }
    const std::chrono::sys_days date = std::chrono::year(static_cast<int>(number)) /
                                       static_cast<int>(month) / static_cast<int>(day);
    const int64_t days = date.time_since_epoch().count();
    seconds = ((days * 24 + hour) * 60 + minute) * 60 + second;
    dateText = rest.substr(0, rest.size() - text.size());
    dateSeconds = seconds;
    rest = text;
    return true;
}

}  // namespace tools
