#include "tools/log/capture.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <ctime>

#include "tools/log/message.h"

namespace tools {
namespace {

constexpr size_t SHOWN_NOT_UNDERSTOOD = 5;
constexpr size_t SHOWN_LENGTH = 200;

constexpr Micros SECOND = 1'000'000;
// Lines of several threads do not stand quite in order.
constexpr Micros LARGEST_STEP_BACK = SECOND / 10;
// Nothing comes for longer than that only if the clock has been set: while a scene runs, and else.
constexpr Micros LONGEST_SILENCE_IN_SCENE = 60 * SECOND;
constexpr Micros LONGEST_SILENCE = SECOND * 30 * 86'400;

// Is boosted whatever the configuration says.
constexpr int32_t BOOSTED_WIDTH = 3840;

// Before it stand clocks that count from the boot, or that have not been set since.
constexpr time_t ONE_YEAR = 31'536'000;
// Where dates without a year are put; see RecordReader.
constexpr int FIRST_MADE_UP_YEAR = 2000;
constexpr int LAST_MADE_UP_YEAR = 2001;

std::string ClockText(int64_t clock) {
    const auto second = static_cast<time_t>(clock / SECOND);
    std::array<char, 40> date{};
    if (second >= ONE_YEAR) {
        tm calendar{};
        gmtime_r(&second, &calendar);
        const int year = calendar.tm_year + 1900;
        const bool isMadeUp = year >= FIRST_MADE_UP_YEAR && year <= LAST_MADE_UP_YEAR;
        std::strftime(date.data(), date.size(), isMadeUp ? "%m-%d %H:%M:%S" : "%F %H:%M:%S",
                      &calendar);
    } else {
        std::snprintf(date.data(), date.size(), "%lld", static_cast<long long>(second));
    }
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "%s.%03d", date.data(),
                  static_cast<int>(clock % SECOND / 1000));
    return text.data();
}

}  // namespace

void CaptureReader::OnRecord(const Record& record, const Place& place) {
    ++summary.libraryLines;
    std::optional<Message> message = ParseMessage(record.tag, record.message);
    if (!message) {
        NoteNotUnderstood(record.message, place);
        return;
    }
    message->place = place;
    const Micros time = TimeOf(record.time, place);
    (record.thread == -1 ? summary.hasUnthreaded : summary.hasThreads) = true;
    switch (message->kind) {
        case MessageKind::NodeEnd:
            summary.stageCount = message->count;
            isInScene = true;
            break;
        case MessageKind::Video:
            if (message->acceptedFps != 0 && message->width != BOOSTED_WIDTH) {
                summary.additionalWidth = message->width;
            }
            break;
        case MessageKind::SceneEnd:
        case MessageKind::DumpSwitch:
            isInScene = false;
            break;
        default:
            break;
    }
    const Moment moment{time, record.process, record.thread};
    if (listener) {
        listener(*message, record.message, moment);
    }
    calls.OnMessage(*message, moment);
}

void CaptureReader::OnLeftOut(int64_t lines, int32_t process, std::optional<int64_t> time,
                              const Place& place) {
    if (process == -1 || calls.Knows(process)) {
        OnDisturbance({Disturbance::Kind::LinesLost, place, TimeOf(time, place), lines});
    }
}

void CaptureReader::OnFragment(std::string_view line, const Place& place) {
    ++summary.libraryLines;
    NoteNotUnderstood(line, place);
}

void CaptureReader::OnDisturbance(const Disturbance& disturbance) {
    if (disturbance.kind == Disturbance::Kind::LinesLost) {
        summary.lost += disturbance.amount;
    }
    sink.OnDisturbance(disturbance);
}

void CaptureReader::NoteNotUnderstood(std::string_view text, const Place& place) {
    ++summary.notUnderstood;
    if (summary.firstNotUnderstood.size() < SHOWN_NOT_UNDERSTOOD) {
        std::string shown(text.substr(0, SHOWN_LENGTH));
        for (char& character : shown) {
            character = character >= 0 && character < ' ' ? '?' : character;
        }
        summary.firstNotUnderstood.push_back({place, std::move(shown)});
    }
}

// The time since the beginning. Where the clock was set it goes on from where it was.
Micros CaptureReader::TimeOf(const std::optional<int64_t>& clock, const Place& place) {
    if (!clock) {
        summary.hasUntimed = true;
        return NO_TIME;
    }
    if (!origin) {
        origin = first = latest = *clock;
        summary.hasTimes = true;
    }
    const Micros passed = *clock - latest;
    if (passed < -LARGEST_STEP_BACK ||
        passed > (isInScene ? LONGEST_SILENCE_IN_SCENE : LONGEST_SILENCE)) {
        ++summary.clockJumps;
        *origin += passed;
        OnDisturbance({Disturbance::Kind::ClockJump, place, *clock - *origin, passed});
        latest = *clock;
    }
    latest = std::max(latest, *clock);
    return *clock - *origin;
}

void CaptureReader::Settle() {
    records.Settle();
    calls.SettleScenes();
}

void CaptureReader::Finish() {
    calls.Settle(true);
    summary.lines = records.Lines();
    if (summary.hasTimes) {
        summary.from = ClockText(first);
        summary.to = ClockText(latest);
    }
}

}  // namespace tools
