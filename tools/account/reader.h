// From messages to scenes: what the lines of a log say of frames, without any opinion.

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "tools/account/scene.h"
#include "tools/log/capture.h"

namespace tools {

// What was read of a capture.
struct Readings {
    std::vector<LoadedConfiguration> configurations;
    std::vector<Scene> scenes;  // In the order of their first lines.
    // Lines left out, and steps of the clock, where no scene ran.
    std::vector<Scene::Disturbance> leftOut, clockSteps;
    bool hasThreads = false;
};

// Takes messages in the order of the log. A scene that was refused is a scene, too. Where frame
// numbers start again, another scene begins.
class SceneReader : public MessageSink {
  public:
    SceneReader();
    ~SceneReader() override;

    void OnMessage(const Message& message, const Moment& moment) override;
    void OnLinesLeftOut(int64_t lines, const Moment& moment, const Place& place) override;
    void OnClockSet(Micros step, const Moment& moment, const Place& place) override;

    // All that has been read so far; scenes that still run are cut off here. `last`: the time of
    // the last line of any tag, NO_TIME where that is not known.
    Readings Look(Micros last) const;
    // The same when nothing more comes. Moves the scenes out: to be called once, last.
    Readings Finish(Micros last);
    // Drops frames whose last line is before that time, and scenes that ended before it.
    void Forget(Micros before);

  private:
    struct Process;
    class Running;

    Process& ProcessOf(int32_t number);
    void Load(Process& process, Micros time);
    void Describe(Process& process, const Message& message, Micros time);
    void RefusePending(Process& process);
    void Refuse(Process& process, Refusal why, const Place& place, Micros time);
    Scene Begin(const Process& process, const Place& place, Micros time) const;
    void Start(Process& process, const Place& place, Micros time);
    void OnEvent(Process& process, const Message& message, const Moment& moment);
    void TakeHeld(Process& process, bool isAll);
    static const Message* NextStart(const Process& process);
    void Cut(Process& process);
    void Restart(Process& process);
    void Take(Process& process, const Message& message, const Moment& moment);
    void EndScene(Process& process, Stop stopped, const Place& place, Micros time);
    // Adds the process's scenes, closed. `before`: its scene before numbers started again.
    void Close(const Process& process, std::optional<Running> before, Running running, Stop stopped,
               Micros stop, std::vector<Scene>& closed) const;
    Readings ReadingsOf(std::vector<Scene> scenes) const;

    std::map<int32_t, Process> processes;
    std::vector<Scene> ended;
    std::vector<LoadedConfiguration> configurations;
    std::vector<std::pair<Micros, int32_t>> loads;  // When which process loaded the library.
    std::vector<Scene::Disturbance> leftOutside, clockOutside;  // Outside of scenes.
    bool hasThreads = false;
    Micros latest = 0;
};

}  // namespace tools
