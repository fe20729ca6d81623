#include "tools/log/capture.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <functional>

#include "tools/base/words.h"
#include "tools/log/message.h"

namespace tools {
namespace {

constexpr size_t SHOWN_NOT_UNDERSTOOD = 5;
constexpr size_t SHOWN_LENGTH = 200;

constexpr Micros DAY = SECOND * 86'400;
// Lines of several threads do not stand quite in order.
constexpr Micros LARGEST_STEP_BACK = SECOND / 10;
// Nothing comes for longer than that only if the clock has been set: while a scene runs, and else.
constexpr Micros LONGEST_SILENCE_IN_SCENE = 60 * SECOND;
constexpr Micros LONGEST_SILENCE = 30 * DAY;

// As many of the library's lines as Android's largest log buffer holds, 16 MB.
constexpr size_t MOST_KNOWN = 131'072;
// Where a capture begins, and where it is damaged, a few lines may lack their beginning.
constexpr int64_t FEW = 3;

// Before it stand clocks that count from the boot, or that have not been set since.
constexpr time_t ONE_YEAR = 31'536'000;

// Years that RecordReader makes up: 2000, and 2001 where the year turns.
constexpr int64_t FIRST_MADE_UP = SECOND * 946'684'800;
constexpr int64_t LEAP_DAY = FIRST_MADE_UP + 59 * DAY;
constexpr int64_t LAST_MADE_UP = FIRST_MADE_UP + (366 + 365) * DAY;

bool IsMadeUp(int64_t clock) {
    return clock >= FIRST_MADE_UP && clock < LAST_MADE_UP;
}

// "12 lines" and so on at the end of a chatty record.
int64_t LinesLeftOut(std::string_view message) {
    const std::string_view before = message.substr(0, message.rfind(" line"));
    const std::string_view digits = before.substr(before.find_last_not_of("0123456789") + 1);
    return ReadDigits<int64_t>(digits).value_or(0);
}

}  // namespace

std::string ClockText(int64_t clock) {
    const auto second = static_cast<time_t>(clock / SECOND);
    if (second < ONE_YEAR) {
        return fmt::format("{}.{:03}", second, clock % SECOND / 1000);
    }
    const auto date = fmt::format("{:%F %T}", fmt::gmtime(second));
    constexpr size_t year = sizeof("2000");
    return fmt::format("{}.{:03}", date.substr(IsMadeUp(clock) ? year : 0), clock % SECOND / 1000);
}

void CaptureReader::Begin(const std::string& name) {
    records.Begin(static_cast<uint32_t>(names.size()));
    names.push_back(name);
    isBeginning = true;
    timedLines = otherLines = 0;
}

bool CaptureReader::TakeDamage(const char* reason) {
    if (summary.libraryLines != 0) {
        summary.damage = reason == nullptr ? "damaged" : reason;
    }
    return summary.libraryLines != 0;
}

void CaptureReader::End() {
    records.Read(packets.End());
    records.End();
    const auto [recorded, ahead] =
        recordingLog.Deliver(*this, static_cast<uint32_t>(names.size() - 1));
    recordedLines += recorded;
    if (ahead && origin && !wasSet) {
        summary.ahead = *ahead + *origin;
    }
    if (!packets.Damage().empty()) {
        summary.damage = packets.Damage();
    }
    if (timedLines == 0) {
        RequireTimes(0);
    }
}

// Throws where more than `most` more lines are without a time than with one.
void CaptureReader::RequireTimes(int64_t most) const {
    if (otherLines - timedLines > most) {
        throw CommandError(
            NameOf(firstOther) +
            ": error: this line of the library does not begin with a time. Capture the log "
            "with\nadb logcat -v threadtime, and without -v color [no-times]");
    }
}

std::string CaptureReader::NameOf(const Place& place) const {
    return fmt::format("{}:{}", names[place.input], place.line);
}

// Each thread's lines stand in the order of their times, unless the clock was set, and the line
// that adds a frame is followed by the frame's start. Where that is not so and the line has been
// read before, the log is there twice: two objects of a process keep to both.
void CaptureReader::CheckOrder(const Record& record, const Message& message) {
    Thread& thread = threads[int64_t{record.process} << 32 | static_cast<uint32_t>(record.thread)];
    const Known line{record.time, record.process, record.thread,
                     std::hash<std::string_view>()(record.message), message.place};
    const auto fail = [&](const char* how, const Known& other) {
        throw CommandError(fmt::format(
            "{}: error: this line {} {}: {}give captures in order, without lines twice\n"
            "(sort -u makes one file in order of several) [lines-twice]",
            NameOf(message.place), how, NameOf(other.place),
            isBeginning ? "" : "logcat was started twice into one file, it seems;\n"));
    };
    const Micros earliest = record.time - LARGEST_STEP_BACK;
    if (isBeginning || record.time < thread.time ||
        (thread.isAdding && message.kind != MessageKind::FrameStart)) {
        for (auto it = known.rbegin(); it != known.rend() && it->time >= earliest; ++it) {
            if (it->hash == line.hash && it->time == line.time && it->process == line.process &&
                it->thread == line.thread) {
                fail("stands twice, also as", *it);
            }
        }
    }
    if (isBeginning && !known.empty() && known.back().time > earliest + 2 * LARGEST_STEP_BACK) {
        fail("is earlier than", known.back());
    }
    isBeginning = false;
    thread = {record.time, message.kind == MessageKind::FrameAdded && !message.flag};
    if (known.size() == MOST_KNOWN) {
        known.pop_front();
    }
    known.push_back(line);
}

void CaptureReader::OnRecord(const Record& record, const Place& place) {
    if (record.tag == CHATTY_TAG) {
        TakeLeftOut(record, place);
        return;
    }
    ++summary.libraryLines;
    std::optional<Message> message;
    if (record.isWhole) {
        ++timedLines;
        message = ParseMessage(record.message);
    } else {
        firstOther = ++otherLines == 1 ? place : firstOther;
        RequireTimes(FEW);
    }
    if (!message) {
        NoteNotUnderstood(record.message, place);
        return;
    }
    message->place = place;
    CheckOrder(record, *message);
    const Moment moment = MomentOf(record, place);
    const MessageKind kind = message->kind;
    if (kind == MessageKind::NodeEnd || kind == MessageKind::FrameStart) {
        isInScene = true;
    } else if (kind == MessageKind::SceneEnd || kind == MessageKind::DumpSwitch) {
        isInScene = false;
    }
    processes.insert(record.process);
    for (MessageSink* const sink : sinks) {
        sink->OnMessage(*message, moment);
    }
}

void CaptureReader::TakeLeftOut(const Record& record, const Place& place) {
    if (!processes.contains(record.process)) {
        return;
    }
    const int64_t lines = LinesLeftOut(record.message);
    summary.lost += lines;
    const Moment moment = MomentOf(record, place);
    for (MessageSink* const sink : sinks) {
        sink->OnLinesLeftOut(lines, moment, place);
    }
}

void CaptureReader::NoteNotUnderstood(std::string_view text, const Place& place) {
    ++summary.notUnderstood;
    if (summary.firstNotUnderstood.size() < SHOWN_NOT_UNDERSTOOD) {
        summary.firstNotUnderstood.push_back({place, Printable(text, SHOWN_LENGTH)});
    }
}

// Where the form has no year, the 28th of February is followed by the 1st of March until a 29th is
// seen.
int64_t CaptureReader::WithoutMadeUpDay(int64_t clock) {
    if (clock < LEAP_DAY || !IsMadeUp(clock)) {
        return clock;
    }
    hasLeapDay = hasLeapDay || clock < LEAP_DAY + DAY;
    return hasLeapDay ? clock : clock - DAY;
}

// The time since the beginning. Where the clock was set it goes on from where it was.
Moment CaptureReader::MomentOf(const Record& record, const Place& place) {
    const int64_t clock = record.time;
    const int64_t now = WithoutMadeUpDay(clock);
    if (!origin) {
        origin = latest = now;
        summary.clock = lastClock = clock;
    }
    if (clock % MILLISECOND != 0) {
        summary.resolution = 1;
    }
    const Micros passed = now - latest;
    const Micros longest = isInScene ? LONGEST_SILENCE_IN_SCENE : LONGEST_SILENCE;
    // Where other programs go on, only the camera's stood still.
    const bool isSilent = !hasOthers || now - latestOther > longest;
    const bool isSet = passed < -LARGEST_STEP_BACK || (passed > longest && isSilent);
    if (isSet) {
        wasSet = true;
        *origin += passed;
        latest = now;
    }
    latest = std::max(latest, now);
    latestOther = now;
    hasOthers = false;
    lastClock = isSet ? clock : std::max(lastClock, clock);
    const Moment moment{now - *origin, record.process, record.thread};
    summary.last = isSet ? moment.time : std::max(summary.last, moment.time);
    if (isSet) {
        for (MessageSink* const sink : sinks) {
            sink->OnClockSet(passed, moment, place);
        }
    }
    return moment;
}

// Records may still come with an earlier time: it is only noted how far the capture goes.
void CaptureReader::OnTime(int64_t time) {
    const int64_t now = WithoutMadeUpDay(time);
    if (origin && now - latestOther <= LONGEST_SILENCE_IN_SCENE) {
        latestOther = std::max(latestOther, now);
        hasOthers = true;
        summary.last = std::max(summary.last, now - *origin);
    }
}

void CaptureReader::Finish() {
    summary.lines = records.Lines() + recordedLines;
    if (origin) {
        summary.from = ClockText(summary.clock);
        summary.to = ClockText(lastClock);
    }
}

}  // namespace tools
