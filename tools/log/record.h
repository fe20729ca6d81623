// One entry of Android's log, and the forms in which logcat writes it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/base/times.h"

namespace tools {

// Texts belong to whoever made the record.
struct Record {
    // Microseconds since 1970 as the log's clock had them, the year made up where the form has
    // none.
    int64_t time = 0;
    int32_t process = -1;
    int32_t thread = -1;  // -1 where the form has none.
    char priority = 'D';  // V D I W E F S ?
    std::string_view tag{};
    std::string_view message{};
    // False: the line does not begin as a log's, or only a part of it is there. It is the message,
    // and nothing else is known.
    bool isWhole = true;
};

// logcat's -v: threadtime, which is its default, or time, and modifiers.
struct Format {
    bool hasThread = true;  // Threadtime.
    bool hasYear = false;
    bool hasZone = false;
    bool isEpoch = false;      // Seconds since 1970.
    bool isMonotonic = false;  // Seconds since boot.
    size_t digits = 3;         // Of the seconds' fraction: 3, 6 (usec) or 9 (nsec).
    bool hasUid = false;
};

// Reads "threadtime", "time" and modifiers, with commas between them; nothing for anything else.
std::optional<Format> FormatOf(std::string_view name);

// Appends the record as logcat writes it, line end included. The column of the user, which a record
// does not know, shows a camera HAL's, Android's user "cameraserver".
void AppendRecord(std::string& text, const Format& format, const Record& record);

}  // namespace tools
