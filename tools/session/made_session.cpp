#include "tools/session/made_session.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace tools {
namespace {

// A step is told when its last line has been read, other threads' calls in between.
constexpr size_t MOST_WAITING = 8192;
constexpr int32_t NO_CALL = -1;

constexpr const char* BEGINNING =
    "# From the log of a device. A log does not tell everything: TcfbtSetVersion, error frames "
    "that\n"
    "# the HAL reported, what the service answered and calls without effect are not here.\n";

// Why a call is marked as guessed.
const char* GuessOf(std::string_view operation) {
    if (operation == "TcfbtNotifySceneStart") {
        return "  # guessed: the mode";
    }
    if (operation == "TcfbtAddTempTids") {
        return "  # guessed: from the threads that were set";
    }
    if (operation == "TcfbtNotifyStageStart") {
        return "  # guessed: what no line tells of it";
    }
    return "  # guessed: maybe several calls, or another one";
}

std::string CommentOf(const Disturbance& disturbance) {
    const std::string amount = std::to_string(disturbance.amount);
    switch (disturbance.kind) {
        case Disturbance::Kind::LinesLost:
            return "# Missing: " + (disturbance.amount > 0 ? amount : "some") +
                   (disturbance.amount == 1 ? " line" : " lines") + " of the log.\n";
        case Disturbance::Kind::ClockJump:
            return "# The clock was set by " + amount + " us.\n";
        case Disturbance::Kind::Start:
            return "# Missing: what was before.\n";
        case Disturbance::Kind::End:
            break;
    }
    return "";
}

// Whether it stands for what happens in a scene that has been started.
bool IsInScene(const Step& step) {
    return std::any_of(step.events.begin(), step.events.end(), [](const Event& event) {
        return event.kind != EventKind::SceneStart && event.kind != EventKind::SceneEnd &&
               event.outcome != Outcome::NoScene;
    });
}

}  // namespace

void SessionMaker::OnStep(const Step& step) {
    lastProcess = step.process;
    if (step.loaded) {
        Making& old = MakingOf(step.process);
        const int32_t run = old.session.run;
        Close(old);
        Making& making = old = Making();
        making.session.process = step.process;
        making.session.run = run + 1;
        making.session.configuration = step.loaded;
        making.session.threads.push_back(step.thread);
        making.session.text = "# The library is loaded.\n";
        making.time = step.time;
        return;
    }
    if (step.call.operation == nullptr) {
        return;
    }
    Making& making = MakingOf(step.process);
    std::string before;
    if (!making.hasScene && IsInScene(step)) {
        making.hasScene = true;
        before =
            "# Missing: the beginning of the scene. To play the rest, take off the # of these:\n"
            "# TcfbtSetSceneInfo true 3840 60\n# TcfbtNotifySceneStart 0x0\n";
    }
    for (const Event& event : step.events) {
        making.hasScene = event.kind == EventKind::SceneStart
                              ? making.hasScene || event.outcome == Outcome::Forwarded
                              : making.hasScene && event.kind != EventKind::SceneEnd;
        const bool isRefused = event.outcome == Outcome::RefusedByService;
        if (event.kind == EventKind::SceneStart && isRefused != making.isServiceRefusing) {
            making.isServiceRefusing = isRefused;
            before +=
                WriteLine(ServiceStatus{desktop::ServiceFunction::SceneStart, isRefused ? 1 : 0}) +
                "  # guessed: its value\n";
        }
    }
    std::string line = WriteLine(step.call);
    if (step.isGuessed) {
        line += GuessOf(step.call.operation->name);
    }
    Put(making, step.place, {step.time, step.thread, true, before + line + "\n"});
}

void SessionMaker::OnDisturbance(const Disturbance& disturbance) {
    const std::string comment = CommentOf(disturbance);
    if (!comment.empty()) {
        Put(MakingOf(lastProcess), disturbance.place, {NO_TIME, NO_CALL, false, comment});
    }
}

SessionMaker::Making& SessionMaker::MakingOf(int32_t process) {
    const auto [making, isNew] = makings.try_emplace(process);
    if (isNew) {
        making->second.session.process = process;
    }
    return making->second;
}

void SessionMaker::Put(Making& making, const Place& place, Entry entry) {
    making.waiting.emplace(std::pair(place.input, place.line), std::move(entry));
    if (making.waiting.size() > MOST_WAITING) {
        Write(making, making.waiting.begin()->second);
        making.waiting.erase(making.waiting.begin());
    }
}

void SessionMaker::Write(Making& making, const Entry& entry) {
    MadeSession& session = making.session;
    const auto append = [&session](const std::string& lines, int32_t thread) {
        session.text += lines;
        session.threads.resize(session.threads.size() + static_cast<size_t>(std::count(
                                                            lines.begin(), lines.end(), '\n')),
                               thread);
    };
    if (entry.time != NO_TIME) {
        if (making.time != NO_TIME && entry.time > making.time) {
            append(WriteLine(Wait{entry.time - making.time}) + "\n", NO_CALL);
        }
        making.time = making.time == NO_TIME ? entry.time : std::max(making.time, entry.time);
    }
    append(entry.lines, entry.thread);
    session.calls += entry.isCall ? 1 : 0;
}

// The run is over.
void SessionMaker::Close(Making& making) {
    for (const auto& [place, entry] : making.waiting) {
        Write(making, entry);
    }
    making.waiting.clear();
    const int64_t calls = making.session.calls;
    if (!best || calls > best->calls) {
        otherCalls += best ? best->calls : 0;
        best = std::move(making.session);
    } else {
        otherCalls += calls;
    }
}

std::optional<MadeSession> SessionMaker::Finish() {
    for (auto& [process, making] : makings) {
        Close(making);
    }
    if (!best || best->calls == 0) {
        return std::nullopt;
    }
    std::string beginning = BEGINNING;
    best->leftOut = otherCalls;
    if (otherCalls != 0) {
        beginning += "# Left out: " + std::to_string(otherCalls) +
                     " calls of other processes, or of other runs of the library.\n";
    }
    best->threads.insert(best->threads.begin(),
                         static_cast<size_t>(std::count(beginning.begin(), beginning.end(), '\n')),
                         NO_CALL);
    best->text.insert(0, beginning);
    return std::move(best);
}

}  // namespace tools
