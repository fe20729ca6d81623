#include "tools/log/capture.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <utility>

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

// Before it stand clocks that count from the boot, or that have not been set since.
constexpr time_t ONE_YEAR = 31'536'000;

// Years that RecordReader makes up: 2000, and 2001 where the year turns.
constexpr int64_t FIRST_MADE_UP = SECOND * 946'684'800;
constexpr int64_t LEAP_DAY = FIRST_MADE_UP + 59 * DAY;
constexpr int64_t LAST_MADE_UP = FIRST_MADE_UP + (366 + 365) * DAY;

bool IsMadeUp(int64_t clock) {
    return clock >= FIRST_MADE_UP && clock < LAST_MADE_UP;
}

std::string ClockText(int64_t clock) {
    const auto second = static_cast<time_t>(clock / SECOND);
    if (second < ONE_YEAR) {
        return fmt::format("{}.{:03}", second, clock % SECOND / 1000);
    }
    const auto date = fmt::format("{:%F %T}", fmt::gmtime(second));
    constexpr size_t year = sizeof("2000");
    return fmt::format("{}.{:03}", date.substr(IsMadeUp(clock) ? year : 0), clock % SECOND / 1000);
}

// "12 lines" and so on at the end of a chatty record.
int64_t LinesLeftOut(std::string_view message) {
    const std::string_view before = message.substr(0, message.rfind(" line"));
    const std::string_view digits = before.substr(before.find_last_not_of("0123456789") + 1);
    return ReadDigits<int64_t>(digits).value_or(0);
}

}  // namespace

CaptureReader::CaptureReader(std::vector<MessageSink*> messageSinks)
    : sinks(std::move(messageSinks)) {}

void CaptureReader::Begin(uint32_t input) {
    records.Begin(input);
    overlap.Begin();
}

bool CaptureReader::TakeDamage(const char* reason) {
    if (summary.libraryLines != 0) {
        summary.damage = reason == nullptr ? "damaged" : reason;
    }
    return summary.libraryLines != 0;
}

void CaptureReader::End() {
    records.End();
    overlap.End();
}

void CaptureReader::OnRecord(const Record& record, const Place& place) {
    if (record.tag == CHATTY_TAG) {
        TakeLeftOut(record, place);
        return;
    }
    ++summary.libraryLines;
    std::optional<Message> message;
    if (record.isWhole) {
        message = ParseMessage(record.tag, record.message);
    }
    if (!message) {
        NoteNotUnderstood(record.message, place);
        return;
    }
    message->place = place;
    const Moment moment = MomentOf(record, place);
    summary.hasThreads = summary.hasThreads || record.thread != -1;
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
    if (record.process != -1 && !processes.contains(record.process)) {
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
        std::string shown(text.substr(0, SHOWN_LENGTH));
        for (char& character : shown) {
            character = static_cast<unsigned char>(character) < ' ' ? '?' : character;
        }
        summary.firstNotUnderstood.push_back({place, std::move(shown)});
    }
}

// Where no year is told, the 28th of February is followed by the 1st of March until a 29th is seen.
int64_t CaptureReader::WithoutMadeUpDay(int64_t clock) {
    if (clock < LEAP_DAY || !IsMadeUp(clock)) {
        return clock;
    }
    hasLeapDay = hasLeapDay || clock < LEAP_DAY + DAY;
    return hasLeapDay ? clock : clock - DAY;
}

// The time since the beginning. Where the clock was set it goes on from where it was.
Moment CaptureReader::MomentOf(const Record& record, const Place& place) {
    Moment moment{NO_TIME, record.process, record.thread};
    if (!record.time) {
        return moment;
    }
    const int64_t clock = *record.time;
    const int64_t now = WithoutMadeUpDay(clock);
    if (!origin) {
        origin = latest = now;
        firstClock = lastClock = clock;
        summary.hasTimes = true;
    }
    if (clock % MILLISECOND != 0) {
        summary.resolution = 1;
    }
    const Micros passed = now - latest;
    const bool isSet = passed < -LARGEST_STEP_BACK ||
                       passed > (isInScene ? LONGEST_SILENCE_IN_SCENE : LONGEST_SILENCE);
    if (isSet) {
        *origin += passed;
        latest = now;
    }
    latest = std::max(latest, now);
    lastClock = isSet ? clock : std::max(lastClock, clock);
    moment.time = now - *origin;
    summary.last = isSet ? moment.time : std::max(summary.last, moment.time);
    if (isSet) {
        for (MessageSink* const sink : sinks) {
            sink->OnClockSet(passed, moment, place);
        }
    }
    return moment;
}

// A record that is being held may still come, with an earlier time: it is only noted how far the
// capture goes.
void CaptureReader::OnTime(int64_t time) {
    const int64_t now = WithoutMadeUpDay(time);
    if (origin && now - latest <= LONGEST_SILENCE_IN_SCENE) {
        summary.last = std::max(summary.last, now - *origin);
    }
}

void CaptureReader::Finish() {
    summary.lines = records.Lines();
    if (summary.hasTimes) {
        summary.from = ClockText(firstClock);
        summary.to = ClockText(lastClock);
    }
}

}  // namespace tools
