// One entry of Android's log, and the forms in which logcat writes it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tools {

// Texts belong to whoever made the record.
struct Record {
    // Microseconds since 1970 as the log's clock had them, the year made up where the form has
    // none; nothing in forms without time.
    std::optional<int64_t> time{};
    int32_t process = -1;  // -1 where the form has none.
    int32_t thread = -1;
    char priority = 'D';  // V D I W E F S ?
    std::string_view tag{};
    std::string_view message{};
    bool isWhole = true;  // False: of its line only a part is there, which is the message.
};

// logcat's -v.
enum class Form : uint8_t { Brief, Process, Tag, Thread, Raw, Time, Threadtime, Long };

struct Format {
    Form form = Form::Threadtime;
    bool hasYear = false;
    bool hasZone = false;
    bool isEpoch = false;      // Seconds since 1970.
    bool isMonotonic = false;  // Seconds since boot.
    size_t digits = 3;         // Of the seconds' fraction: 3, 6 (usec) or 9 (nsec).
    bool hasUid = false;
    bool hasColor = false;
    bool isPrintable = false;  // Control characters show as escapes.
};

// "threadtime", or "threadtime,year,usec": a form and its modifiers; nothing for anything else.
std::optional<Format> FormatOf(std::string_view name);

// Appends the record as logcat writes it, line end included. A record without a time shows the
// epoch; the column of the user, which a record does not know, shows a camera HAL's.
void AppendRecord(std::string& text, const Format& format, const Record& record);

}  // namespace tools
