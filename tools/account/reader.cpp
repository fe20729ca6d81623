#include "tools/account/reader.h"

#include <algorithm>
#include <tuple>

#include "tools/account/limits.h"

namespace tools {
namespace {

Scene BegunAt(Scene scene, const Place& place, Micros time) {
    scene.from = scene.to = place;
    scene.begin = scene.end = time;
    return scene;
}

bool IsStart(const Event& event) {
    return event.message.kind == MessageKind::FrameStart ||
           event.message.kind == MessageKind::FrameNotContinuous;
}

// Gives an event to the scene that goes on, or to the one before it.
void Take(std::deque<RunningScene>& scenes, const Event& event) {
    const Message& message = event.message;
    const Micros time = event.moment.time;
    RunningScene& running = scenes.back();
    RunningScene& before = scenes.front();
    // No thread of the process logged anything.
    if (time - running.last > limits::SILENCE) {
        for (RunningScene& one : scenes) {
            one.scene.silences.push_back({{running.last, time}, message.place});
        }
    }
    running.last = std::max(running.last, time);
    // A frame of the count before may still be on its way.
    bool isOld = scenes.size() > 1 && !event.opened;
    if (isOld) {
        isOld = message.kind == MessageKind::TableFull
                    ? !running.Oldest()
                    : before.Has(message.frame) && !running.Has(message.frame) &&
                          message.frame > *running.lastOpened;
    }
    (isOld ? before : running).Take(event);
}

}  // namespace

void SceneReader::OnMessage(const Message& message, const Moment& moment) {
    const Micros time = moment.time;
    latest = std::max(latest, time);
    read.hasThreads = read.hasThreads || moment.thread != -1;
    Process& process = processes[moment.process];
    process.next.process = moment.process;
    if (process.dumping.Begins(message)) {
        Load(process, time);
    }
    process.last = std::max(process.last, time);
    if (message.kind <= MessageKind::DumpStage) {
        AddDumped(message, process.configuration->configuration);
        return;
    }
    switch (message.kind) {
        case MessageKind::NoVideo:
        case MessageKind::Video:
            return Describe(process, message, time);
        case MessageKind::SceneDisabled:
            return Refuse(process, message, time);
        case MessageKind::SceneStart:
            if (!message.flag) {
                Refuse(process, message, time);
            } else if (process.running.empty()) {  // Else the library goes on with what runs.
                Start(process, message.place, time);
            }
            return;
        case MessageKind::SceneEnd:
            TakeHeld(process, true);
            if (!process.running.empty()) {
                Scene& scene = process.running.back().scene;
                scene.to = message.place;
                scene.end = std::max(scene.end, time);
            }
            Close(process, Stop::SceneEnd, time);
            process.endedAt = time;
            return;
        case MessageKind::SetTid:
            process.next.setThreads.insert(message.tid);
            for (RunningScene& running : process.running) {
                running.scene.setThreads.insert(message.tid);
            }
            return;
        case MessageKind::AddPersistTid:
        case MessageKind::RemoveTid:
        case MessageKind::DumpInfo:
            return;
        default:
            return OnEvent(process, message, moment);
    }
}

// A process loads the library once: it is a new one.
void SceneReader::Load(Process& process, Micros time) {
    TakeHeld(process, true);
    Close(process, Stop::ProcessGone, process.last);
    lastLoad = {time, process.next.process};
    Process loaded;
    loaded.dumping = process.dumping;
    loaded.configuration = read.configurations.emplace_back(
        std::make_shared<LoadedConfiguration>(LoadedConfiguration{process.next.process, {}, {}}));
    loaded.next.process = process.next.process;
    loaded.next.configuration = read.configurations.size();
    process = std::move(loaded);
}

void SceneReader::Describe(Process& process, const Message& message, Micros time) {
    process.next.isDescribed = true;
    process.next.width = message.width;
    process.next.fps = message.fps;
    if (message.kind == MessageKind::NoVideo) {
        if (process.running.empty()) {  // Else it is the end of the scene that runs.
            Refuse(process, message, time);
        }
    } else if (message.acceptedFps == 0) {
        Refuse(process, message, time);
    } else if (process.configuration && message.width != BOOST_WIDTH) {
        // What came of the description is in its line.
        process.configuration->configuration.additionalWidth = message.width;
    }
}

void SceneReader::Refuse(const Process& process, const Message& message, Micros time) {
    Scene refused = BegunAt(process.next, message.place, time);
    refused.refusal = message.kind;
    // A HAL that tries the same again and again has one such scene.
    const auto keyOf = [](const Scene& scene) {
        return std::tie(scene.process, scene.refusal, scene.width, scene.fps);
    };
    if (read.scenes.empty() || keyOf(read.scenes.back()) != keyOf(refused)) {
        read.scenes.push_back(std::move(refused));
    }
    Scene& scene = read.scenes.back();
    ++scene.refusals;
    scene.to = message.place;
    scene.end = time;
}

RunningScene& SceneReader::Start(Process& process, const Place& place, Micros time) {
    RunningScene& running =
        process.running.emplace_back(BegunAt(process.next, place, time), process.configuration);
    running.scene.isStarted = true;
    return running;
}

void SceneReader::OnEvent(Process& process, const Message& message, const Moment& moment) {
    if (process.running.empty()) {
        Scene& scene = Start(process, message.place, moment.time).scene;
        scene.isBeginningMissing = true;
        scene.isAfterEnd = process.endedAt && moment.time - *process.endedAt < limits::STRAGGLING;
        lastLoad = {moment.time, scene.process};  // It had, before the capture.
    }
    const RunningScene& running = process.running.back();
    Event event{message, moment, running.Opened(message)};
    if (process.held.empty() && !running.IsBehindGap(moment.time) &&
        !(event.opened && running.IsAgain(*event.opened))) {
        return Take(process.running, event);
    }
    event.message.name = *names.emplace(message.name).first;
    process.held.push_back(event);
    TakeHeld(process, false);
}

// `isAll`: nothing more comes to tell what the held events are.
void SceneReader::TakeHeld(Process& process, bool isAll) {
    std::deque<Event>& held = process.held;
    while (!held.empty()) {
        const Event& first = held.front();
        RunningScene& running = process.running.back();
        if (running.IsBehindGap(first.moment.time)) {
            const auto start = std::find_if(held.begin(), held.end(), IsStart);
            if (start == held.end() && !isAll) {
                return;
            }
            // The library would not take a frame of another count: these are of another capture,
            // in the middle of a scene.
            if (start != held.end() && start->message.kind == MessageKind::FrameStart &&
                running.IsFarBelow(start->message.frame)) {
                Close(process, Stop::CaptureEnd, running.scene.end);
                Start(process, first.message.place, first.moment.time).scene.isBeginningMissing =
                    true;
            }
        }
        const RunningScene& now = process.running.back();
        if (first.opened && now.IsAgain(*first.opened)) {
            // Numbers have fallen. They started again if they stay low; two objects, or a line that
            // is late, alternate with the numbers before.
            const auto isOpen = [](const Event& event) { return event.opened.has_value(); };
            const auto high = std::find_if(held.begin(), held.end(), [&now](const Event& event) {
                return event.opened && *event.opened >= *now.lastOpened;
            });
            const auto opens = static_cast<size_t>(std::count_if(held.begin(), high, isOpen));
            const bool isLow = opens >= limits::RESTART_OPENS;
            if (!isLow && high == held.end() && !isAll) {
                return;
            }
            if (isLow || (high == held.end() && opens > 1)) {
                Restart(process);
            } else {
                ++process.running.back().scene.falls;
            }
        }
        Take(process.running, first);
        held.pop_front();
    }
}

// Another scene begins with the first of the held events.
void SceneReader::Restart(Process& process) {
    if (process.running.size() > 1) {
        read.scenes.push_back(process.running.front().Closed());
        process.running.pop_front();
    }
    const Event& first = process.held.front();
    RunningScene& before = process.running.back();
    before.scene.stopped = Stop::NumbersRestart;
    before.scene.stop = first.moment.time;
    RunningScene& running = Start(process, first.message.place, first.moment.time);
    running.scene.restartedAfter = before.lastOpened;
    running.scene.stagesBefore = running.stagesLeft = before.stagesLeft;
    running.scene.hasNodes = before.scene.hasNodes;
    running.scene.stageCount = std::max(running.scene.stageCount, before.scene.stageCount);
}

void SceneReader::Close(Process& process, Stop stopped, Micros stop) {
    if (process.running.empty()) {
        return;
    }
    RunningScene& running = process.running.back();
    running.scene.stopped = stopped;
    running.scene.stop = stop;
    // Node ends that race with the end of a scene are no scene.
    if (running.scene.isAfterEnd && running.last - running.scene.begin < limits::STRAGGLING) {
        process.running.pop_back();
    }
    for (RunningScene& one : process.running) {
        read.scenes.push_back(one.Closed());
    }
    process.running.clear();
    process.next.setThreads.clear();
}

void SceneReader::OnLinesLeftOut(int64_t lines, const Moment& moment, const Place& place) {
    const auto found = processes.find(moment.process);
    if (found != processes.end() && !found->second.running.empty()) {
        found->second.running.back().scene.leftOut.push_back({moment.time, lines, place});
    }
}

void SceneReader::OnClockSet(Micros step, const Moment& moment, const Place& place) {
    for (auto& [number, process] : processes) {
        if (!process.running.empty()) {
            RunningScene& running = process.running.back();
            running.scene.clockSteps.push_back({moment.time, step, place});
            running.last = moment.time;
        }
    }
}

Readings SceneReader::Look(Micros last) const {
    SceneReader copy(*this);
    for (auto& [number, process] : copy.processes) {
        process.held.clear();
        copy.Close(process, Stop::Looked, std::max(last, latest));
    }
    return copy.Sorted();
}

Readings SceneReader::Finish(Micros last) {
    for (auto& [number, process] : processes) {
        TakeHeld(process, true);
        // A process that logs nothing from when another one loads the library is gone.
        const bool isGone = lastLoad.second != number && lastLoad.first >= process.last;
        Close(process, isGone ? Stop::ProcessGone : Stop::CaptureEnd,
              isGone ? process.last : std::max(last, latest));
    }
    return Sorted();
}

Readings SceneReader::Sorted() {
    std::stable_sort(read.scenes.begin(), read.scenes.end(),
                     [](const Scene& one, const Scene& other) { return one.from < other.from; });
    return std::move(read);
}

void SceneReader::Forget(Micros before) {
    std::erase_if(read.scenes, [before](const Scene& scene) { return scene.end < before; });
    for (auto& [number, process] : processes) {
        if (process.running.size() > 1 && process.running.front().scene.end < before) {
            process.running.pop_front();
        }
        if (!process.running.empty()) {
            process.running.back().Forget(before);
        }
    }
}

}  // namespace tools
