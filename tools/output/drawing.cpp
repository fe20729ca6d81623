#include "tools/output/drawing.h"

#include <algorithm>

namespace tools {

Look LookOf(const Frame& frame) {
    switch (frame.status) {
        case FrameStatus::Complete:
            return frame.isLate ? Look::Late : Look::Good;
        case FrameStatus::Error:
            return Look::Error;
        case FrameStatus::Evicted:
            return Look::Evicted;
        case FrameStatus::Refused:
            return Look::Refused;
        case FrameStatus::Unseen:
            return Look::Unseen;
        case FrameStatus::Open:
            break;
    }
    if (frame.reason == Outcome::Unknown) {
        return Look::Unknown;
    }
    return frame.hasFinding ? Look::Stuck : Look::Open;
}

int32_t StageOf(const Frame& frame) {
    const bool isKeptOut =
        frame.status == FrameStatus::Refused || frame.status == FrameStatus::Unseen;
    return isKeptOut ? -1 : frame.stage;
}

const char* WordOf(Look look) {
    static constexpr const char* WORDS[LOOKS] = {"",        "late",   "stuck",   "error", "evicted",
                                                 "refused", "unseen", "unknown", "open"};
    return WORDS[static_cast<size_t>(look)];
}

void Span::Include(Micros time) {
    if (time == NO_TIME) {
        return;
    }
    begin = begin == NO_TIME ? time : std::min(begin, time);
    end = std::max(end, time);  // NO_TIME is the least of all times.
}

Micros PeriodOf(const Scene& scene) {
    constexpr Micros SECOND = 1'000'000;
    if (scene.fps > 0) {
        return std::max<Micros>((SECOND + scene.fps / 2) / scene.fps, 1);
    }
    return scene.interval.p50 > 0 ? scene.interval.p50 : SECOND / 60;
}

Span SpanOf(const Scene& scene, size_t frame, size_t stage) {
    const StageTimes& times = scene.StagesOf(frame)[stage];
    Span span;
    span.Include(times.start);
    span.Include(times.end != NO_TIME || times.start == NO_TIME ? times.end
                                                                : times.start + PeriodOf(scene));
    return span;
}

Span SpanOf(const Scene& scene, size_t frame) {
    Span span;
    span.Include(scene.frames[frame].start);
    span.Include(scene.frames[frame].end);
    span.Include(scene.frames[frame].output);
    for (size_t stage = 0; stage < static_cast<size_t>(scene.stageCount); ++stage) {
        const Span part = SpanOf(scene, frame, stage);
        span.Include(part.begin);
        span.Include(part.end);
    }
    return span;
}

std::string TitleOf(const Account& account, size_t scene) {
    const Scene& shown = account.scenes[scene];
    std::string title = "scene " + std::to_string(scene + 1);
    const char* separator = ": ";
    const auto add = [&](const std::string& text) {
        title += separator + text;
        separator = ", ";
    };
    if (shown.width > 0) {
        add(std::to_string(shown.width) + " wide");
    }
    if (shown.fps > 0) {
        add(std::to_string(shown.fps) + " fps");
    }
    if (shown.process >= 0) {
        add("process " + std::to_string(shown.process));
    }
    return title;
}

std::string StageTitleOf(const Scene& scene, size_t stage) {
    std::string title = "stage " + std::to_string(stage);
    if (stage < scene.stageNames.size() && !scene.stageNames[stage].empty()) {
        title += ", " + scene.stageNames[stage];
    }
    return title;
}

std::string ToString(const Account& account, Place place) {
    if (place.line == 0) {
        return "";
    }
    const std::string line = std::to_string(place.line);
    return account.inputs.size() > 1 && place.input < account.inputs.size()
               ? account.inputs[place.input] + ":" + line
               : "line " + line;
}

std::string ToString(const Disturbance& disturbance) {
    switch (disturbance.kind) {
        case Disturbance::Kind::LinesLost:
            return (disturbance.amount > 0 ? std::to_string(disturbance.amount) + " " : "") +
                   "lines lost";
        case Disturbance::Kind::ClockJump:
            return "the clock jumped by " + std::to_string(disturbance.amount / 1000) + " ms";
        case Disturbance::Kind::Start:
            return "the input begins";
        case Disturbance::Kind::End:
            break;
    }
    return "the input ends";
}

size_t Lanes::Put(const Span& span) {
    const auto isFree = [&span](Micros end) { return end <= span.begin; };
    const auto lane = std::find_if(ends.begin(), ends.end(), isFree);
    const auto index = static_cast<size_t>(lane - ends.begin());
    if (lane == ends.end()) {
        ends.push_back(span.end);
    } else {
        *lane = span.end;
    }
    return index;
}

}  // namespace tools
