// From messages to scenes: what the lines of a log say of frames, without any opinion.

#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "tools/account/running.h"
#include "tools/account/scene.h"
#include "tools/log/calls.h"
#include "tools/log/capture.h"

namespace tools {

// Takes messages in the order of the log. A scene that was refused is a scene, too. Where frame
// numbers start again, another scene begins.
class SceneReader : public MessageSink {
  public:
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
    struct Process {
        Scene next;  // What is known of a scene that begins.
        std::shared_ptr<LoadedConfiguration> configuration;
        Dumping dumping;
        // The scene that goes on comes last. Where numbers started again, it has the scene before
        // it, whose frames may still come out.
        std::deque<RunningScene> running;
        // Events since numbers fell, until enough have come to say whether they started again.
        std::deque<Event> held;
        std::optional<Micros> endedAt;  // When its last scene ended.
        Micros last = NO_TIME;          // The time of its last line.
    };

    void Load(Process& process, Micros time);
    void Describe(Process& process, const Message& message, Micros time);
    void Refuse(const Process& process, const Message& message, Micros time);
    static RunningScene& Start(Process& process, const Place& place, Micros time);
    void OnEvent(Process& process, const Message& message, const Moment& moment);
    void TakeHeld(Process& process, bool isAll);
    void Restart(Process& process);
    void Close(Process& process, Stop stopped, Micros stop);
    Readings Sorted();

    std::map<int32_t, Process> processes;
    Readings read;
    std::pair<Micros, int32_t> lastLoad = {NO_TIME, -1};  // When which process loaded the library.
    std::set<std::string, std::less<>> names;             // Of the events that are held.
    Micros latest = 0;
};

}  // namespace tools
