#include "tools/log/record_reader.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <utility>

#include "tools/base/times.h"
#include "tools/base/words.h"
#include "tools/log/message.h"

namespace tools {
namespace {

// Longer than any line that logcat writes; what goes beyond is dropped.
constexpr size_t MAX_LINE = 65'536;
constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";
constexpr std::string_view PRIORITIES = "VDIWEFS?";
// Any leap year: what has no year may be a 29th of February.
constexpr int64_t MADE_UP_YEAR = 2000;
// How often the times of lines with other tags are told of.
constexpr int64_t LINES_BETWEEN_TIMES = 16;
constexpr int64_t MAX_SECONDS = 1'000'000'000'000;

bool IsDigit(char character) {
    return character >= '0' && character <= '9';
}

bool Contains(std::string_view text, std::string_view part) {
    return memmem(text.data(), text.size(), part.data(), part.size()) != nullptr;
}

void SkipBlanks(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
}

bool Skip(std::string_view& text, std::string_view words) {
    const bool isThere = text.starts_with(words);
    text.remove_prefix(isThere ? words.size() : 0);
    return isThere;
}

// Takes a number of exactly `digits` digits.
bool TakeDigits(std::string_view& text, size_t digits, int64_t& number) {
    const auto read = ReadDigits<uint32_t>(text.substr(0, digits));
    if (!read || text.size() < digits) {
        return false;
    }
    number = *read;
    text.remove_prefix(digits);
    return true;
}

bool ToNumber(std::string_view text, int32_t& number) {
    const auto read = ReadDigits<int32_t>(text);
    number = read.value_or(-1);
    return number >= 0;
}

// Takes the text up to the next blank, with the blanks before it.
std::string_view TakeWord(std::string_view& text) {
    SkipBlanks(text);
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(word.size());
    return word;
}

bool TakePriority(std::string_view& text, char& priority) {
    if (text.empty() || PRIORITIES.find(text[0]) == std::string_view::npos) {
        return false;
    }
    priority = text[0];
    text.remove_prefix(1);
    return true;
}

// Takes one of the tags that matter and its padding.
bool TakeTag(std::string_view& text, std::string_view& tag) {
    for (const std::string_view known : {FACADE_TAG, UTILS_TAG, CHATTY_TAG}) {
        if (!text.empty() && text[0] == known[0] && Skip(text, known)) {
            tag = known;
            SkipBlanks(text);
            return true;
        }
    }
    return false;
}

// What separates a head from its message, whose blank may have gone with an empty message.
bool SkipColon(std::string_view& text) {
    if (text.empty() || text[0] != ':' || (text.size() > 1 && text[1] != ' ')) {
        return false;
    }
    text.remove_prefix(std::min<size_t>(text.size(), 2));
    return true;
}

// Reads "user:process:thread". Where there are two, the second is a thread if `hasThread`, else the
// first is a user. Returns how many there were; 0 when it is something else.
int ReadIds(std::string_view text, bool hasThread, Record& record) {
    std::array<std::string_view, 3> ids;
    size_t count = 0;
    for (size_t at = 0; at <= text.size() && count < ids.size(); ++count) {
        const size_t end = std::min(text.find(':', at), text.size());
        ids[count] = text.substr(at, end - at);
        SkipBlanks(ids[count]);
        at = end + 1;
    }
    const bool isThread = hasThread && count > 1;
    if (!ToNumber(ids[count - (isThread ? 2 : 1)], record.process) ||
        (isThread && !ToNumber(ids[count - 1], record.thread))) {
        return 0;
    }
    return static_cast<int>(count);
}

// Takes ids that end with `end`.
int TakeIds(std::string_view& text, std::string_view end, bool hasThread, Record& record) {
    const size_t close = text.find(end);
    if (close == std::string_view::npos) {
        return 0;
    }
    const std::string_view ids = text.substr(0, close);
    text.remove_prefix(close + end.size());
    return ReadIds(ids, hasThread, record);
}

// A line without what colours it, "ESC[..m", in `plain`.
std::string_view WithoutColors(std::string_view line, std::string& plain) {
    plain.clear();
    for (size_t at = 0; at < line.size();) {
        const size_t escape = std::min(line.find("\x1B[", at), line.size());
        plain += line.substr(at, escape - at);
        at = line.find_first_not_of("0123456789;", escape + 2);
        if (at >= line.size() || line[at] != 'm') {
            // Something else, or cut off.
            plain += line.substr(escape, std::min(at, line.size()) - escape);
        } else {
            ++at;
        }
    }
    return plain;
}

// Whether a line may begin with a time, by its first letter.
bool MayBeTimed(std::string_view line) {
    return !line.empty() &&
           (IsDigit(line[0]) || line[0] == ' ' || line[0] == '[' || line[0] == '\x1B');
}

}  // namespace

// ---- Encodings ----

std::string_view Utf8Decoder::Decode(std::string_view bytes) {
    if (encoding == Encoding::Utf8) {
        return bytes;
    }
    pending += bytes;
    if (encoding == Encoding::Unknown) {
        // The first two characters: a mark and one of logcat's, or two of logcat's.
        if (pending.size() < 4) {
            return {};
        }
        const auto isZero = [this](size_t at) { return pending[at] == '\0'; };
        encoding = pending.starts_with("\xFF\xFE") || (isZero(1) && isZero(3) && !isZero(0))
                       ? Encoding::Utf16Little
                   : pending.starts_with("\xFE\xFF") || (isZero(0) && isZero(2) && !isZero(1))
                       ? Encoding::Utf16Big
                       : Encoding::Utf8;
    }
    text.clear();
    if (encoding == Encoding::Utf8) {
        text.swap(pending);
        return text;
    }
    size_t at = 0;
    for (; at + 1 < pending.size(); at += 2) {
        const auto first = static_cast<unsigned char>(pending[at]);
        const auto second = static_cast<unsigned char>(pending[at + 1]);
        AppendUnit(encoding == Encoding::Utf16Little ? uint32_t{second} << 8 | first
                                                     : uint32_t{first} << 8 | second);
    }
    pending.erase(0, at);
    return text;
}

std::string_view Utf8Decoder::Rest() {
    if (encoding != Encoding::Unknown) {
        pending.clear();
    }
    return pending;
}

void Utf8Decoder::AppendUnit(uint32_t unit) {
    if (unit >= 0xD800 && unit < 0xDC00) {
        highSurrogate = unit;
        return;
    }
    if (unit >= 0xDC00 && unit < 0xE000 && highSurrogate != 0) {
        unit = 0x10000 + ((highSurrogate - 0xD800) << 10) + (unit - 0xDC00);
    }
    highSurrogate = 0;
    const auto append = [this](uint32_t byte) { text += static_cast<char>(byte); };
    if (unit < 0x80) {
        append(unit);
    } else if (unit < 0x800) {
        append(0xC0 | unit >> 6);
        append(0x80 | (unit & 0x3F));
    } else {
        if (unit < 0x10000) {
            append(0xE0 | unit >> 12);
        } else {
            append(0xF0 | unit >> 18);
            append(0x80 | (unit >> 12 & 0x3F));
        }
        append(0x80 | (unit >> 6 & 0x3F));
        append(0x80 | (unit & 0x3F));
    }
}

// ---- Lines ----

void RecordReader::Begin(uint32_t input) {
    place = {input, 0};
    isLog = true;
    year = MADE_UP_YEAR;
    lastMonth = 0;
    dateText.clear();
    lastHead.clear();
}

void RecordReader::Read(std::string_view bytes) {
    ReadText(decoder.Decode(bytes));
    KeepHeld();
    TellTime();
}

void RecordReader::ReadText(std::string_view text) {
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const bool isWhole = end != std::string_view::npos;
        const size_t length = std::min(end, text.size());
        if (isWhole && carry.empty()) {
            ReadLine(text.substr(0, length));
        } else {
            carry += text.substr(0, std::min(length, MAX_LINE - carry.size()));
            if (isWhole) {
                // What is held must not point into the carried line when that goes.
                ReadLine(carry);
                KeepHeld();
                TellTime();
                carry.clear();
            }
        }
        text.remove_prefix(isWhole ? length + 1 : length);
    }
}

void RecordReader::ReadLine(std::string_view line) {
    ++lines;
    ++place.line;
    line = line.substr(0, line.find_last_not_of('\r') + 1);
    if (line.starts_with("------ ")) {
        TellTime();
        isLog = Contains(line, "(logcat");
    }
    // In the long form, lines of a message may look like a time, too.
    if (MayBeTimed(line) && (timed.empty() || !timed.starts_with('[') || line.starts_with('['))) {
        timed = line;
    }
    if (lines % LINES_BETWEEN_TIMES == 0) {
        TellTime();
    }
    // Colours stand around a line.
    if (line.starts_with('\x1B') || (line.ends_with('m') && Contains(line, "\x1B["))) {
        KeepHeld();
        line = WithoutColors(line, plain);
    }
    if (line.starts_with('\xEF')) {
        Skip(line, BYTE_ORDER_MARK);
    }
    if (isHeld && isLong && GoesOnLong(line)) {
        return;
    }
    const bool isLongHead = line.starts_with("[ ") && line.ends_with(" ]");
    if (isOthersLong && !isLongHead && !line.starts_with("-----")) {
        isOthersLong = !line.empty();
        return;
    }
    isOthersLong = false;
    // Most lines of a device are not the library's.
    const bool isAsLast = !lastHead.empty() && line.starts_with(lastHead);
    const bool isTagWhereLast =
        line.size() > lastHead.size() && line.substr(lastHead.size()).starts_with(FACADE_TAG);
    if (!isAsLast && !isTagWhereLast && !isLongHead && !Contains(line, FACADE_TAG) &&
        !Contains(line, CHATTY_TAG)) {
        Settle();
        return;
    }
    Head head;
    if (!(isAsLast ? ReadHeadAsLast(line, head) : ReadHead(line, head))) {
        Settle();
        isOthersLong = head.isOthers && head.isLong;
        if (!head.isOthers && Contains(line, LIBRARY_FILE)) {
            sink.OnRecord({.message = line, .isWhole = false}, place);
        }
        return;
    }
    if (isHeld && head.isTagged && !head.isLong && !IsLibraryText(head.record.message) &&
        head.text == held.text) {
        Append(head.record.message);
        return;
    }
    Settle();
    held = head;
    heldPlace = place;
    isHeld = true;
    isLong = head.isLong;
}

// Whether the line belongs to the record of the long form that is being held.
bool RecordReader::GoesOnLong(std::string_view line) {
    if (line.empty()) {
        Settle();
        return true;
    }
    Head next;
    if (line.starts_with("-----") || (line.starts_with("[ ") && ReadHead(line, next))) {
        return false;
    }
    if (held.record.message.empty()) {
        // The capture may go on in another form.
        isHeld = IsLibraryText(line) || !ReadHead(line, next);
        held.record.message = isHeld ? line : "";
        KeepHeld();
        return isHeld;
    }
    Append(line);
    return true;
}

void RecordReader::Append(std::string_view line) {
    KeepHeld();
    if (heldMessage.size() + line.size() < MAX_LINE) {
        heldMessage += '\n';
        heldMessage += line;
    }
    held.record.message = heldMessage;
}

// Makes what is held good beyond the bytes that it came in.
void RecordReader::KeepHeld() {
    if (isHeld && held.record.message.data() != heldMessage.data()) {
        heldHead = held.text;
        heldMessage = held.record.message;
        held.text = heldHead;
        held.record.message = heldMessage;
    }
}

void RecordReader::TellTime() {
    std::optional<int64_t> time;
    std::string_view line = std::exchange(timed, {});
    if (!line.empty() && isLog) {
        std::string uncolored;
        line = line.starts_with('\x1B') ? WithoutColors(line, uncolored) : line;
        Skip(line, "[ ");
        if (ReadTime(line, time)) {
            sink.OnTime(*time);
        }
    }
}

void RecordReader::Settle() {
    if (!isHeld) {
        return;
    }
    isHeld = false;
    if (isLong && held.record.message.empty() && held.record.tag != CHATTY_TAG) {
        sink.OnRecord({.message = held.text, .isWhole = false}, heldPlace);
    } else {
        sink.OnRecord(held.record, heldPlace);
    }
}

void RecordReader::End() {
    const std::string rest(decoder.Rest());
    decoder = {};  // Of the files in a zip, each has an encoding of its own.
    ReadText(rest);
    TellTime();
    // Without a line end, the last line may be a part of one: a number would be another number.
    if (!carry.empty()) {
        ++lines;
        ++place.line;
        if (Contains(carry, FACADE_TAG)) {
            Settle();
            sink.OnRecord({.message = carry, .isWhole = false}, place);
        }
        carry.clear();
    }
    Settle();
}

// ---- Forms ----

bool RecordReader::ReadHead(std::string_view line, Head& head) {
    head = {};
    Record& record = head.record;
    std::string_view rest = line;
    if (Skip(rest, "[ ")) {
        head.isLong = true;
        head.isTagged = true;
        head.text = line;
        record.thread = -1;
        if (!ReadTime(rest, record.time) || !rest.ends_with(" ]")) {
            return false;
        }
        // "user:process:thread priority/tag ]"
        const size_t slash = rest.find('/');
        if (slash == std::string_view::npos || slash < 2 ||
            ReadIds(rest.substr(0, slash - 2), true, record) < 2) {
            return false;
        }
        rest.remove_prefix(slash - 1);
        if (!TakePriority(rest, record.priority) || !Skip(rest, "/")) {
            return false;
        }
        head.isOthers = !Contains(rest, FACADE_TAG) && !rest.starts_with(CHATTY_TAG);
        return TakeTag(rest, record.tag) && rest == "]";
    }
    if (ReadTime(rest, record.time)) {
        SkipBlanks(rest);
        if (rest.size() < 2 || rest[1] != '/') {
            // threadtime: "user process thread priority tag: "
            std::array<std::string_view, 4> words;
            size_t count = 0;
            do {
                if (count == words.size()) {
                    return false;
                }
                words[count] = TakeWord(rest);
            } while (++count < 3 || words[count - 1].size() != 1 || IsDigit(words[count - 1][0]));
            if (!TakePriority(words[count - 1], record.priority) ||
                !ToNumber(words[count - 2], record.thread) ||
                !ToNumber(words[count - 3], record.process) || !Skip(rest, " ")) {
                return false;
            }
            lastHead = line.substr(0, line.size() - rest.size());
            lastRecord = record;
            return ReadHeadAsLast(line, head);
        }
        if (!ReadTagged(rest, head)) {
            return false;
        }
    } else if (IsLibraryText(rest)) {
        // raw
    } else if (rest.size() > 1 && rest[1] == '/') {
        if (!ReadTagged(rest, head)) {
            return false;
        }
    } else if (TakePriority(rest, record.priority) && Skip(rest, "(")) {
        // process: "priority(process) message  (tag)"; thread: "priority(process:thread) message"
        for (const std::string_view tag : {FACADE_TAG, UTILS_TAG, CHATTY_TAG}) {
            const size_t behind = tag.size() + 4;
            if (rest.size() > behind && rest.ends_with(')') &&
                rest.substr(rest.size() - behind).starts_with("  (") &&
                rest.substr(rest.size() - behind + 3).starts_with(tag)) {
                record.tag = tag;
                head.isTagged = true;
                rest.remove_suffix(behind);
            }
        }
        head.isOthers = !head.isTagged && rest.ends_with(')') && Contains(rest, "  (");
        if (head.isOthers || TakeIds(rest, ") ", !head.isTagged, record) == 0 ||
            (!head.isTagged && !IsLibraryText(rest))) {
            return false;
        }
    } else {
        return false;
    }
    record.message = rest;
    head.text = line.substr(0, static_cast<size_t>(rest.data() - line.data()));
    return true;
}

// A line of the default form that begins with `lastHead`.
bool RecordReader::ReadHeadAsLast(std::string_view line, Head& head) {
    std::string_view rest = line.substr(lastHead.size());
    head.record = lastRecord;
    head.isTagged = true;
    head.isLong = false;
    head.isOthers = false;
    if (!ReadTag(rest, head) || !SkipColon(rest)) {
        return false;
    }
    head.record.message = rest;
    head.text = line.substr(0, line.size() - rest.size());
    return true;
}

// One of the tags that matter; else whether it is another one, and not a part of one of those.
bool RecordReader::ReadTag(std::string_view& rest, Head& head) {
    if (TakeTag(rest, head.record.tag)) {
        return true;
    }
    const size_t end = rest.find(": ");
    head.isOthers = end != std::string_view::npos && !Contains(rest.substr(0, end), FACADE_TAG);
    return false;
}

// brief and time: "priority/tag(process): "; tag: "priority/tag: ".
bool RecordReader::ReadTagged(std::string_view& rest, Head& head) {
    head.isTagged = true;
    return TakePriority(rest, head.record.priority) && Skip(rest, "/") && ReadTag(rest, head) &&
           (!Skip(rest, "(") || TakeIds(rest, ")", false, head.record) != 0) && SkipColon(rest);
}

// A date and a time of day, or seconds since 1970 or since boot; then the zone, where there is one.
bool RecordReader::ReadTime(std::string_view& rest, std::optional<int64_t>& time) {
    int64_t seconds = 0;
    if (!ReadDate(rest, seconds)) {
        SkipBlanks(rest);
        const char* const end = rest.data() + rest.size();
        const auto [stop, error] = std::from_chars(rest.data(), end, seconds);
        if (error != std::errc() || seconds < 0 || seconds > MAX_SECONDS) {
            return false;
        }
        rest.remove_prefix(static_cast<size_t>(stop - rest.data()));
    }
    if (!Skip(rest, ".")) {
        return false;
    }
    int64_t fraction = 0;
    size_t digits = 0;
    for (; digits < rest.size() && IsDigit(rest[digits]); ++digits) {
        if (digits < 6) {
            fraction = 10 * fraction + (rest[digits] - '0');
        }
    }
    if (digits < 3) {
        return false;
    }
    for (size_t i = digits; i < 6; ++i) {
        fraction *= 10;
    }
    rest.remove_prefix(digits);
    std::string_view zone = rest;
    int64_t hours = 0;
    int64_t minutes = 0;
    const bool isWest = zone.starts_with(" -");
    if ((Skip(zone, " +") || Skip(zone, " -")) && TakeDigits(zone, 2, hours) &&
        TakeDigits(zone, 2, minutes)) {
        seconds += (isWest ? 60 : -60) * (60 * hours + minutes);
        rest = zone;
    }
    time = seconds * SECOND + fraction;
    return Skip(rest, " ");
}

// "YYYY-MM-DD hh:mm:ss", the year where the form has it.
bool RecordReader::ReadDate(std::string_view& rest, int64_t& seconds) {
    if (!dateText.empty() && Skip(rest, dateText)) {
        seconds = dateSeconds;
        return true;
    }
    std::string_view text = rest;
    int64_t number = 0;
    int64_t month = 0;
    int64_t day = 0;
    int64_t hour = 0;
    int64_t minute = 0;
    int64_t second = 0;
    const bool hasYear = text.size() > 4 && text[4] == '-';
    if ((hasYear && !(TakeDigits(text, 4, number) && Skip(text, "-"))) ||
        !TakeDigits(text, 2, month) || !Skip(text, "-") || !TakeDigits(text, 2, day) ||
        !Skip(text, " ") || !TakeDigits(text, 2, hour) || !Skip(text, ":") ||
        !TakeDigits(text, 2, minute) || !Skip(text, ":") || !TakeDigits(text, 2, second) ||
        month < 1 || month > 12) {
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
