#include "tools/account/reader.h"

#include <algorithm>

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

void Take(std::optional<RunningScene>& before, RunningScene& running, const Event& event) {
    const Message& message = event.message;
    const Micros time = event.moment.time;
    running.lastOpened = event.opened ? event.opened : running.lastOpened;
    // No thread of the process logged anything.
    if (time - running.last > limits::SILENCE) {
        const Scene::Silence silence{{running.last, time}, message.place};
        running.scene.silences.push_back(silence);
        if (before) {
            before->scene.silences.push_back(silence);
        }
    }
    running.last = std::max(running.last, time);
    // A frame of the count before may still be on its way.
    const bool isOld = before && (message.kind == MessageKind::TableFull
                                      ? !running.Oldest()
                                      : before->Has(message.frame) && !running.Has(message.frame) &&
                                            message.frame > *running.lastOpened);
    (isOld ? *before : running).Take(event);
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
            process.pending.reset();
            return Refuse(process, Refusal::Disabled, message.place, time);
        case MessageKind::SceneStart:
            process.pending.reset();
            if (!message.flag) {
                Refuse(process, Refusal::Service, message.place, time);
            } else if (!process.running) {  // Else the library goes on with the scene that runs.
                Start(process, message.place, time);
            }
            return;
        case MessageKind::SceneEnd:
            EndScene(process, Stop::SceneEnd, time, message.place);
            process.endedAt = time;
            return;
        case MessageKind::SetTid:
            process.next.setThreads.insert(message.tid);
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
    EndScene(process, Stop::ProcessGone, process.last);
    RefusePending(process);
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
    RefusePending(process);
    process.next.isDescribed = true;
    process.next.width = message.width;
    process.next.fps = message.fps;
    if (message.kind == MessageKind::NoVideo) {
        // Precedes the end of a scene that runs.
        if (!process.running) {
            process.pending = {message.place, time};
        }
    } else if (message.acceptedFps == 0) {
        Refuse(process, Refusal::Description, message.place, time);
    } else if (process.configuration && message.width != BOOST_WIDTH) {
        // What came of the description is in its line.
        process.configuration->configuration.additionalWidth = message.width;
    }
}

void SceneReader::RefusePending(Process& process) {
    if (const auto pending = std::exchange(process.pending, std::nullopt)) {
        Refuse(process, Refusal::NoVideo, pending->first, pending->second);
    }
}

void SceneReader::Refuse(const Process& process, Refusal why, const Place& place, Micros time) {
    std::vector<Scene>& scenes = read.scenes;
    // A HAL that tries the same again and again has one such scene.
    const auto isSame = [&](const Scene& other) {
        return other.process == process.next.process && other.refusal == why &&
               other.width == process.next.width && other.fps == process.next.fps;
    };
    if (scenes.empty() || !isSame(scenes.back())) {
        scenes.push_back(BegunAt(process.next, place, time));
    }
    Scene& scene = scenes.back();
    scene.refusal = why;
    ++scene.refusals;
    scene.to = place;
    scene.end = time;
}

RunningScene& SceneReader::Start(Process& process, const Place& place, Micros time) {
    process.running.emplace(BegunAt(process.next, place, time), process.configuration);
    process.running->scene.isStarted = true;
    return *process.running;
}

void SceneReader::OnEvent(Process& process, const Message& message, const Moment& moment) {
    if (!process.running) {
        process.pending.reset();
        Scene& scene = Start(process, message.place, moment.time).scene;
        scene.isBeginningMissing = true;
        scene.isAfterEnd = process.endedAt && moment.time - *process.endedAt < limits::STRAGGLING;
        lastLoad = {moment.time, scene.process};  // It had, before the capture.
    }
    RunningScene& running = *process.running;
    Event event{message, moment, running.Opened(message)};
    running.isBehindGap = running.isBehindGap || moment.time - running.last > limits::CUT;
    if (process.held.empty() && !running.isBehindGap &&
        !(event.opened && running.IsAgain(*event.opened))) {
        return Take(process.before, running, event);
    }
    event.message.name = *names.emplace(message.name).first;
    process.held.push_back(event);
    TakeHeld(process, false);
}

// Numbers have fallen. They started again if they stay low; two objects, or a line that is late,
// alternate with the numbers before. `isAll`: nothing more comes to tell.
void SceneReader::TakeHeld(Process& process, bool isAll) {
    std::deque<Event>& held = process.held;
    while (!held.empty()) {
        RunningScene& running = *process.running;
        if (running.isBehindGap) {
            const auto next = std::find_if(held.begin(), held.end(), IsStart);
            if (next == held.end() && !isAll) {
                return;
            }
            // The library would not take a frame of another count.
            if (next != held.end() && next->message.kind == MessageKind::FrameStart &&
                running.IsFarBelow(next->message.frame)) {
                Cut(process);
                continue;
            }
        }
        if (held.front().opened && running.IsAgain(*held.front().opened)) {
            size_t opens = 0;
            bool isRestart = true;
            for (auto next = held.begin();
                 next != held.end() && opens < limits::RESTART_OPENS && isRestart; ++next) {
                opens += next->opened ? 1U : 0U;
                isRestart = !next->opened || *next->opened < *running.lastOpened;
            }
            if (isRestart && opens < limits::RESTART_OPENS && !isAll) {
                return;
            }
            if (isRestart && opens > 1) {
                Restart(process);
            } else {
                ++running.scene.falls;
            }
        }
        Take(process.before, running, held.front());
        held.pop_front();
    }
}

// The held events are of another capture, in the middle of a scene.
void SceneReader::Cut(Process& process) {
    std::deque<Event> held = std::exchange(process.held, {});
    EndScene(process, Stop::CaptureEnd, process.running->scene.end);
    Start(process, held.front().message.place, held.front().moment.time).scene.isBeginningMissing =
        true;
    process.held = std::move(held);
}

// Another scene begins with the first of the held events.
void SceneReader::Restart(Process& process) {
    const Event& first = process.held.front();
    if (process.before) {
        Close(process, *process.before, Stop::NumbersRestart, process.before->scene.stop);
    }
    process.before = std::move(process.running);
    RunningScene& before = *process.before;
    before.scene.stop = first.moment.time;
    RunningScene& running = Start(process, first.message.place, first.moment.time);
    running.scene.restartedAfter = before.lastOpened;
    running.scene.stagesBefore = running.stagesLeft = before.stagesLeft;
    running.scene.hasNodes = before.scene.hasNodes;
    running.scene.stageCount = std::max(running.scene.stageCount, before.scene.stageCount);
}

void SceneReader::EndScene(Process& process, Stop stopped, Micros stop, const Place& place) {
    if (!process.running) {
        return;
    }
    TakeHeld(process, true);
    Scene& scene = process.running->scene;
    if (stopped == Stop::SceneEnd) {
        scene.to = place;
        scene.end = std::max(scene.end, stop);
    }
    if (process.before) {
        Close(process, *process.before, Stop::NumbersRestart, process.before->scene.stop);
    }
    // Node ends that race with the end of a scene are no scene.
    if (!scene.isAfterEnd || process.running->last - scene.begin >= limits::STRAGGLING) {
        Close(process, *process.running, stopped, stop);
    }
    process.next.setThreads.clear();
    process.running.reset();
    process.before.reset();
}

void SceneReader::Close(const Process& process, RunningScene& running, Stop stopped, Micros stop) {
    read.scenes.push_back(running.Closed(stopped, stop));
    read.scenes.back().setThreads = process.next.setThreads;
}

void SceneReader::OnLinesLeftOut(int64_t lines, const Moment& moment, const Place& place) {
    const auto found = processes.find(moment.process);
    if (found != processes.end()) {
        auto& running = found->second.running;
        (running ? running->scene.leftOut : read.leftOut).push_back({moment.time, lines, place});
    }
}

void SceneReader::OnClockSet(Micros step, const Moment& moment, const Place& place) {
    bool isInScene = false;
    for (auto& [number, process] : processes) {
        if (process.running) {
            process.running->scene.clockSteps.push_back({moment.time, step, place});
            process.running->last = moment.time;
            process.running->isBehindGap = process.running->isBehindStep = step > 0;
            isInScene = true;
        }
    }
    if (!isInScene) {
        read.clockSteps.push_back({moment.time, step, place});
    }
}

Readings SceneReader::Look(Micros last) const {
    SceneReader copy(*this);
    for (auto& [number, process] : copy.processes) {
        process.held.clear();
        copy.EndScene(process, Stop::Looked, std::max(last, latest));
    }
    return copy.Sorted();
}

Readings SceneReader::Finish(Micros last) {
    for (auto& [number, process] : processes) {
        // A process that logs nothing from when another one loads the library is gone.
        if (lastLoad.second != number && lastLoad.first >= process.last) {
            EndScene(process, Stop::ProcessGone, process.last);
        } else {
            EndScene(process, Stop::CaptureEnd, std::max(last, latest));
        }
        RefusePending(process);
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
        if (process.running) {
            process.running->Forget(before);
        }
        if (process.before && process.before->scene.end < before) {
            process.before.reset();
        }
    }
}

}  // namespace tools
